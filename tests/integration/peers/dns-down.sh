#!/bin/bash
# Usage: dns-down.sh DIR  -> stops the dnsmasq that dns-up.sh started there, and waits for it.
set -uo pipefail
D=$(realpath -m "${1:?directory}")
[ -s "$D/dnsmasq.pid" ] || exit 0
PID=$(cat "$D/dnsmasq.pid")
kill "$PID" 2>/dev/null || exit 0
for _ in $(seq 50); do kill -0 "$PID" 2>/dev/null || exit 0; sleep 0.1; done
kill -9 "$PID" 2>/dev/null
exit 0
