#!/bin/bash
# Usage: cyrus-up.sh DIR CERTDIR
# Starts Cyrus pop3d under cyrmaster on 127.0.0.1 from a private configuration
# under DIR and prints the master's PID once both listeners answer. Logins go
# through Cyrus SASL with a private sasldb: NTLM, PLAIN, LOGIN, CRAM-MD5, and
# USER/PASS; accounts alice/alicepw and bob/bobpw (realm mail.example.test).
# Ports: KV_CYRUS_POP3_PORT [11110] POP3 with STLS, KV_CYRUS_POP3S_PORT [11995] POP3S.
# pop3d is the one install-peers.sh unpacked (CYRUS_POP3D overrides), since
# the Cyrus server packages cannot be installed beside Dovecot's.
# Stop with cyrus-down.sh DIR.
set -euo pipefail
D=$(realpath -m "${1:?directory}")
CERTS=$(realpath "${2:?certificate directory}")
POP3=${KV_CYRUS_POP3_PORT:-11110} POP3S=${KV_CYRUS_POP3S_PORT:-11995}
POP3D=${CYRUS_POP3D:-${KV_PEERS_OPT:-/opt/korvane-peers}/cyrus/usr/lib/cyrus/bin/pop3d}
MASTER=/usr/sbin/cyrmaster
[ -x "$POP3D" ] || { echo "no Cyrus pop3d at $POP3D (tests/integration/install-peers.sh)" >&2; exit 2; }
[ -x "$MASTER" ] || { echo "no $MASTER (Debian cyrus-common)" >&2; exit 2; }
command -v saslpasswd2 >/dev/null || { echo "saslpasswd2 not found (Debian sasl2-bin)" >&2; exit 2; }

mkdir -p "$D"/{lib,spool,socket,run,log}
chmod 711 "$D"
cp "$CERTS/server.pem" "$CERTS/server.key" "$D/"
cat > "$D/imapd.conf" <<EOT
configdirectory: $D/lib
partition-default: $D/spool
defaultpartition: default
servername: mail.example.test
admins: cyrus
allowplaintext: yes
unixhierarchysep: yes
# a user's INBOX is made at the first login, so an account needs no setup
autocreate_quota: 0
sasl_pwcheck_method: auxprop
sasl_auxprop_plugin: sasldb
sasl_sasldb_path: $D/sasldb2
sasl_mech_list: PLAIN LOGIN CRAM-MD5 NTLM
tls_server_cert: $D/server.pem
tls_server_key: $D/server.key
lmtpsocket: $D/socket/lmtp
idlesocket: $D/socket/idle
notifysocket: $D/socket/notify
syslog_prefix: korvane-test-cyrus
EOT
cat > "$D/cyrus.conf" <<EOT
START {
  recover cmd="ctl_cyrusdb -C $D/imapd.conf -r"
}
SERVICES {
  pop3  cmd="$POP3D -C $D/imapd.conf"    listen="127.0.0.1:$POP3" prefork=0
  pop3s cmd="$POP3D -s -C $D/imapd.conf" listen="127.0.0.1:$POP3S" prefork=0
}
EVENTS {
  checkpoint cmd="ctl_cyrusdb -C $D/imapd.conf -c" period=30
}
EOT
rm -f "$D/sasldb2"
echo alicepw | saslpasswd2 -p -c -f "$D/sasldb2" -u mail.example.test alice
echo bobpw | saslpasswd2 -p -c -f "$D/sasldb2" -u mail.example.test bob
if [ "$(id -u)" = 0 ]; then
    chown -R cyrus:mail "$D"
    chmod 640 "$D/sasldb2" "$D/server.key"
fi

rm -f "$D/run/master.pid"
"$MASTER" -C "$D/imapd.conf" -M "$D/cyrus.conf" -p "$D/run/master.pid" -d >>"$D/log/cyrus.log" 2>&1 ||
    { echo "cyrmaster did not start" >&2; tail -20 "$D/log/cyrus.log" >&2; exit 1; }
for _ in $(seq 100); do [ -s "$D/run/master.pid" ] && break; sleep 0.1; done
[ -s "$D/run/master.pid" ] || { echo "cyrmaster wrote no PID" >&2; exit 1; }
for port in $POP3 $POP3S; do
    for _ in $(seq 100); do (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break; sleep 0.1; done
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "Cyrus does not answer on $port" >&2; exit 1; }
done
cat "$D/run/master.pid"
