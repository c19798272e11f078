#!/bin/bash
# Usage: postfix-up.sh DIR CERTDIR
# Starts a private Postfix on 127.0.0.1 (configuration, queue, data and log
# under DIR) and prints its master PID once every listener answers. Mail for
# example.test goes into Dovecot over LMTP; nothing is relayed anywhere else.
# CERTDIR holds server.pem and server.key (tests/integration/tls/make-certs.sh).
# Dovecot (dovecot-up.sh) must be running: it takes the deliveries and checks
# the logins of every listener but the NTLM one. Ports from the environment:
#   KV_SMTP_PORT [10025]            STARTTLS offered, AUTH only after it,
#                                   mail from 127/8 taken without a login
#   KV_SUBMISSION_PORT [10587]      STARTTLS and AUTH required
#   KV_SMTPS_PORT [10465]           implicit TLS, AUTH required
#   KV_SMTP_PLAINAUTH_PORT [10027]  no TLS at all, AUTH in the clear
#   KV_SMTP_NTLM_PORT [10028]       Cyrus SASL with its own sasldb: NTLM, PLAIN,
#                                   LOGIN, CRAM-MD5, also without TLS;
#                                   accounts alice/alicepw, bob/bobpw (realm example.test)
#   KV_LMTP_PORT [10024]            Dovecot's LMTP
#   KV_AUTH_PORT [10026]            Dovecot's auth service
# Stop with postfix-down.sh DIR.
set -euo pipefail
export PATH=$PATH:/usr/sbin:/sbin
D=$(realpath -m "${1:?directory}")
CERTS=$(realpath "${2:?certificate directory}")
SMTP=${KV_SMTP_PORT:-10025} SUBMISSION=${KV_SUBMISSION_PORT:-10587} SMTPS=${KV_SMTPS_PORT:-10465}
PLAINAUTH=${KV_SMTP_PLAINAUTH_PORT:-10027} NTLM=${KV_SMTP_NTLM_PORT:-10028}
LMTP=${KV_LMTP_PORT:-10024} AUTH=${KV_AUTH_PORT:-10026}
command -v postfix >/dev/null || { echo "postfix not found (tests/integration/install-peers.sh)" >&2; exit 2; }
command -v saslpasswd2 >/dev/null || { echo "saslpasswd2 not found (Debian sasl2-bin)" >&2; exit 2; }
[ "$(id -u)" = 0 ] || { echo "Postfix needs root (its master drops to the postfix user)" >&2; exit 2; }

mkdir -p "$D"/{etc/sasl,spool,data,log,ssl}
chmod 711 "$D"
chown postfix "$D/data"
cp "$CERTS/server.pem" "$CERTS/server.key" "$D/ssl/"
chmod 600 "$D/ssl/server.key"
LOG=$D/log/postfix.log
OUT=$D/log/postfix.out
fail() {   # the complaints first: the cause is often far above the log's tail
    echo "$1" >&2
    tail -20 "$OUT" >&2 2>/dev/null || true
    grep -E 'warning:|fatal:|panic:' "$LOG" 2>/dev/null | head -20 >&2 || true
    echo "--- last lines of $LOG:" >&2
    tail -10 "$LOG" >&2 2>/dev/null || true
    exit 1
}

cat > "$D/etc/main.cf" <<EOT
compatibility_level = 3.6
queue_directory = $D/spool
data_directory = $D/data
mail_owner = postfix
setgid_group = postdrop
# postlogd writes here: Postfix logs nowhere else without syslog
maillog_file_prefixes = $D/log
maillog_file = $LOG
myhostname = mail.example.test
mydomain = example.test
myorigin = example.test
mydestination =
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
mynetworks = 127.0.0.0/8
relayhost =
alias_maps =
alias_database =
local_recipient_maps =
biff = no
smtputf8_enable = yes
# room for the 30 MB attachments of the round-trip tests and the 100 MB message of bench/smtp.py
message_size_limit = 209715200
virtual_mailbox_domains = example.test
virtual_mailbox_maps = texthash:$D/etc/vmailbox
virtual_transport = lmtp:inet:127.0.0.1:$LMTP
# Whatever is not for example.test bounces here instead of leaving the machine.
default_transport = error:outbound mail disabled in tests
relay_transport = error:outbound mail disabled in tests
smtpd_relay_restrictions = permit_sasl_authenticated, reject_unauth_destination
smtpd_recipient_restrictions = permit_mynetworks, permit_sasl_authenticated, reject_unauth_destination
smtpd_tls_cert_file = $D/ssl/server.pem
smtpd_tls_key_file = $D/ssl/server.key
smtpd_tls_security_level = may
smtpd_tls_auth_only = yes
smtpd_tls_mandatory_protocols = >=TLSv1.2
smtpd_tls_loglevel = 1
smtpd_sasl_auth_enable = yes
smtpd_sasl_type = dovecot
smtpd_sasl_path = inet:127.0.0.1:$AUTH
# Failed commands and logins would otherwise be held back for a second each.
smtpd_error_sleep_time = 0
smtpd_soft_error_limit = 100
smtpd_hard_error_limit = 100
EOT
# Debian's Postfix reads the Cyrus SASL settings of smtpd from here.
cat > "$D/etc/sasl/smtpd.conf" <<EOT
pwcheck_method: auxprop
auxprop_plugin: sasldb
sasldb_path: $D/etc/sasl/sasldb2
mech_list: NTLM PLAIN LOGIN CRAM-MD5
EOT
rm -f "$D/etc/sasl/sasldb2"
echo alicepw | saslpasswd2 -p -c -f "$D/etc/sasl/sasldb2" -u example.test alice
echo bobpw | saslpasswd2 -p -c -f "$D/etc/sasl/sasldb2" -u example.test bob
chown root:postfix "$D/etc/sasl/sasldb2"
chmod 640 "$D/etc/sasl/sasldb2"
cat > "$D/etc/vmailbox" <<EOT
alice@example.test ok
bob@example.test ok
EOT
only_auth="-o smtpd_client_restrictions=permit_sasl_authenticated,reject
  -o smtpd_relay_restrictions=permit_sasl_authenticated,reject
  -o smtpd_recipient_restrictions=permit_sasl_authenticated,reject"
cat > "$D/etc/master.cf" <<EOT
127.0.0.1:$SMTP inet n - n - - smtpd
127.0.0.1:$SUBMISSION inet n - n - - smtpd
  -o syslog_name=postfix/submission
  -o smtpd_tls_security_level=encrypt
  $only_auth
127.0.0.1:$SMTPS inet n - n - - smtpd
  -o syslog_name=postfix/smtps
  -o smtpd_tls_wrappermode=yes
  -o smtpd_tls_security_level=encrypt
  $only_auth
127.0.0.1:$PLAINAUTH inet n - n - - smtpd
  -o syslog_name=postfix/plainauth
  -o smtpd_tls_security_level=none
  -o smtpd_tls_auth_only=no
127.0.0.1:$NTLM inet n - n - - smtpd
  -o syslog_name=postfix/ntlm
  -o smtpd_tls_auth_only=no
  -o smtpd_sasl_type=cyrus
  -o smtpd_sasl_path=smtpd
  -o smtpd_sasl_local_domain=example.test
pickup    unix  n       -       n       60      1       pickup
cleanup   unix  n       -       n       -       0       cleanup
qmgr      unix  n       -       n       300     1       qmgr
tlsmgr    unix  -       -       n       1000?   1       tlsmgr
rewrite   unix  -       -       n       -       -       trivial-rewrite
bounce    unix  -       -       n       -       0       bounce
defer     unix  -       -       n       -       0       bounce
trace     unix  -       -       n       -       0       bounce
verify    unix  -       -       n       -       1       verify
flush     unix  n       -       n       1000?   0       flush
proxymap  unix  -       -       n       -       -       proxymap
smtp      unix  -       -       n       -       -       smtp
relay     unix  -       -       n       -       -       smtp
showq     unix  n       -       n       -       -       showq
error     unix  -       -       n       -       -       error
retry     unix  -       -       n       -       -       error
discard   unix  -       -       n       -       -       discard
lmtp      unix  -       -       n       -       -       lmtp
anvil     unix  -       -       n       -       1       anvil
scache    unix  -       -       n       -       1       scache
postlog   unix-dgram n  -       n       -       1       postlogd
EOT

# postfix reports most errors only to a terminal or its log: both are shown on failure.
rm -f "$D/spool/pid/master.pid"
postfix -c "$D/etc" check >>"$OUT" 2>&1 || fail "postfix check failed:"
postfix -c "$D/etc" start >>"$OUT" 2>&1 || fail "postfix did not start:"
for _ in $(seq 100); do [ -s "$D/spool/pid/master.pid" ] && break; sleep 0.1; done
[ -s "$D/spool/pid/master.pid" ] || fail "postfix wrote no PID:"
# Ready means a session to the end on each listener, TLS checked against the
# test CA: smtpd starts on the first connection and only warns (and goes on
# without TLS) when its certificate is unusable.
session() {   # PORT plain|starttls|tls
    case $2 in
        plain) timeout 5 bash -c 'exec 3<>"/dev/tcp/127.0.0.1/$1" && read -r l <&3 &&
                   [[ $l == 220* ]] && echo QUIT >&3 && read -r l <&3 && [[ $l == 221* ]]' _ "$1" ;;
        tls) echo QUIT | timeout 5 openssl s_client -connect "127.0.0.1:$1" -CAfile "$CERTS/ca.pem" \
                 -verify_return_error -quiet 2>/dev/null | grep -q '^221' ;;
        starttls) echo QUIT | timeout 5 openssl s_client -connect "127.0.0.1:$1" -CAfile "$CERTS/ca.pem" \
                 -verify_return_error -quiet -starttls smtp 2>/dev/null | grep -q '^221' ;;
    esac
}
for listener in "$SMTP starttls" "$SUBMISSION starttls" "$SMTPS tls" "$PLAINAUTH plain" "$NTLM starttls"; do
    ok=0
    for _ in $(seq 50); do session $listener && { ok=1; break; }; sleep 0.1; done
    [ $ok = 1 ] || fail "postfix does not answer on ${listener% *} (${listener#* }):"
done
! grep -E 'warning:|fatal:|panic:' "$LOG" >&2 || fail "postfix complains:"
tr -dc 0-9 < "$D/spool/pid/master.pid"
echo
