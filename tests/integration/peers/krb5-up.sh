#!/bin/bash
# Usage: krb5-up.sh DIR [PORT]
# Makes a Kerberos realm KORVANE.TEST under DIR and starts an MIT KDC for it
# on 127.0.0.1:PORT (UDP and TCP; default 10088). Prints the KDC's PID once a
# ticket can be had. Leaves in DIR:
#   krb5.conf       the client configuration (KRB5_CONFIG)
#   service.keytab  keys of pop, imap, smtp, POP3, IMAP, SMTP /localhost (KRB5_KTNAME)
#   cc.alice        a credential cache of alice (KRB5CCNAME=FILE:DIR/cc.alice)
# Users: alice/alicepw, bob/bobpw. Stop it with krb5-down.sh DIR.
set -euo pipefail
export PATH=$PATH:/usr/sbin:/sbin
D=$(realpath -m "${1:?directory}")
PORT=${2:-10088}
REALM=KORVANE.TEST
for tool in krb5kdc kdb5_util kadmin.local kinit; do
    command -v $tool >/dev/null || { echo "$tool not found (Debian krb5-kdc, krb5-admin-server, krb5-user)" >&2; exit 2; }
done
mkdir -p "$D"
cat > "$D/krb5.conf" <<EOT
[libdefaults]
  default_realm = $REALM
  dns_lookup_kdc = false
  dns_lookup_realm = false
  dns_canonicalize_hostname = false
  rdns = false
  udp_preference_limit = 1
[realms]
  $REALM = {
    kdc = 127.0.0.1:$PORT
  }
[domain_realm]
  localhost = $REALM
EOT
cat > "$D/kdc.conf" <<EOT
[kdcdefaults]
  kdc_listen = 127.0.0.1:$PORT
  kdc_tcp_listen = 127.0.0.1:$PORT
[realms]
  $REALM = {
    database_name = $D/principal
    key_stash_file = $D/stash
    acl_file = $D/kadm5.acl
  }
[logging]
  kdc = FILE:$D/krb5kdc.log
  default = FILE:$D/krb5kdc.log
EOT
: > "$D/kadm5.acl"
export KRB5_CONFIG=$D/krb5.conf KRB5_KDC_PROFILE=$D/kdc.conf
rm -f "$D"/principal* "$D/stash" "$D"/*.keytab "$D/cc.alice" "$D/krb5kdc.pid"
kdb5_util create -s -r $REALM -P "master-$$-$RANDOM" >/dev/null 2>&1
admin() { kadmin.local -r $REALM -q "$1" >"$D/kadmin.out" 2>&1 || { cat "$D/kadmin.out" >&2; exit 1; }; }
admin "addprinc -pw alicepw alice"
admin "addprinc -pw bobpw bob"
services=""
for svc in pop imap smtp POP3 IMAP SMTP; do
    admin "addprinc -randkey $svc/localhost"
    services="$services $svc/localhost"
done
admin "ktadd -k $D/service.keytab$services"
admin "ktadd -k $D/alice.keytab -norandkey alice"
krb5kdc -P "$D/krb5kdc.pid"
for _ in $(seq 50); do [ -s "$D/krb5kdc.pid" ] && break; sleep 0.1; done
[ -s "$D/krb5kdc.pid" ] || { echo "krb5kdc did not start" >&2; cat "$D/krb5kdc.log" >&2 2>/dev/null; exit 1; }
# The first ticket proves the KDC answers.
for _ in $(seq 50); do
    kinit -k -t "$D/alice.keytab" -c "FILE:$D/cc.alice" alice >/dev/null 2>&1 && break
    sleep 0.1
done
[ -s "$D/cc.alice" ] || { echo "no ticket from the KDC on 127.0.0.1:$PORT" >&2; kill "$(cat "$D/krb5kdc.pid")"; exit 1; }
cat "$D/krb5kdc.pid"
