#!/bin/bash
# Usage: dns-up.sh DIR [ADDRESS] [PORT]
# Starts dnsmasq, authoritative for example.test, on ADDRESS:PORT (UDP and
# TCP; default 127.0.0.2:53), from a private configuration under DIR, and
# prints its PID once it answers. The library's DNS client always asks port
# 53, hence an address of its own rather than another port.
set -euo pipefail
D=$(realpath -m "${1:?directory}")
ADDR=${2:-127.0.0.2}
PORT=${3:-53}
DNSMASQ=$(command -v dnsmasq || echo /usr/sbin/dnsmasq)
[ -x "$DNSMASQ" ] || { echo "dnsmasq not found (Debian package dnsmasq-base)" >&2; exit 2; }
mkdir -p "$D"
{
cat <<EOT
port=$PORT
listen-address=$ADDR
bind-interfaces
no-resolv
no-hosts
no-poll
user=
local-ttl=300
local=/example.test/
local=/localhost/
log-facility=$D/dnsmasq.log
pid-file=$D/dnsmasq.pid
mx-host=example.test,mail.example.test,10
mx-host=example.test,mx2.example.test,20
host-record=mail.example.test,127.0.0.1
host-record=mx2.example.test,127.0.0.3
host-record=localhost,127.0.0.1
mx-host=noip.example.test,missing.example.test,10
mx-host=same.example.test,first.example.test,5
mx-host=same.example.test,second.example.test,5
EOT
# 40 records with long names: more than one UDP answer of 512 bytes holds.
for i in $(seq 1 40); do echo "mx-host=big.example.test,mx$i.a-rather-long-mail-exchanger-name.example.test,$((41 - i))"; done
} > "$D/dnsmasq.conf"
rm -f "$D/dnsmasq.pid"
timeout 10 "$DNSMASQ" --conf-file="$D/dnsmasq.conf"
for _ in $(seq 50); do [ -s "$D/dnsmasq.pid" ] && break; sleep 0.1; done
[ -s "$D/dnsmasq.pid" ] || { echo "dnsmasq did not start" >&2; cat "$D/dnsmasq.log" >&2 2>/dev/null; exit 1; }
cat "$D/dnsmasq.pid"
