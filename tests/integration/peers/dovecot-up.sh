#!/bin/bash
# Usage: dovecot-up.sh DIR CERTDIR [KRB5DIR]
# Starts Dovecot on 127.0.0.1 from a private configuration under DIR and
# prints its master PID once every listener answers. CERTDIR holds server.pem
# and server.key (tests/integration/tls/make-certs.sh). With KRB5DIR (made by
# krb5-up.sh) GSSAPI logins are offered with the service keys from there
# (pop, imap and smtp /localhost).
# Ports come from the environment (defaults in brackets):
#   KV_POP3_PORT [10110] POP3 with STLS    KV_POP3S_PORT [10995] POP3S
#   KV_IMAP_PORT [10143] IMAP with STARTTLS KV_IMAPS_PORT [10993] IMAPS
#   KV_LMTP_PORT [10024] LMTP, for delivery into the mailboxes
#   KV_AUTH_PORT [10026] the auth service, for Postfix's SASL (postfix-up.sh)
# Accounts (passwords checked in plain text, so APOP works):
#   alice@example.test/alicepw, bob@example.test/bobpw, and alice/alicepw, the
#   mailbox a Kerberos ticket of alice logs in to. XOAUTH2 takes the bearer token
#   ya29.test-token-alice for alice@example.test, checked as a password.
# Mailboxes are maildirs under DIR/mail/<user>/Maildir. Stop with dovecot-down.sh DIR.
set -euo pipefail
D=$(realpath -m "${1:?directory}")
CERTS=$(realpath "${2:?certificate directory}")
KRB=${3:+$(realpath "$3")}
POP3=${KV_POP3_PORT:-10110} POP3S=${KV_POP3S_PORT:-10995}
IMAP=${KV_IMAP_PORT:-10143} IMAPS=${KV_IMAPS_PORT:-10993} LMTP=${KV_LMTP_PORT:-10024}
AUTH=${KV_AUTH_PORT:-10026}
DOVECOT=$(command -v dovecot || echo /usr/sbin/dovecot)
[ -x "$DOVECOT" ] || { echo "dovecot not found (tests/integration/install-peers.sh)" >&2; exit 2; }

mkdir -p "$D"/{run,state,log,ssl,mail}
# Dovecot's auth and mail processes drop root: they must reach into DIR.
chmod 711 "$D"
# Mail belongs to the system user "mail" when we are root (Dovecot refuses
# root and its own internal users), to the caller otherwise.
if [ "$(id -u)" = 0 ]; then
    MUID=$(id -u mail) MGID=$(id -g mail)
else
    MUID=$(id -u) MGID=$(id -g)
fi
cp "$CERTS/server.pem" "$CERTS/server.key" "$D/ssl/"
chmod 600 "$D/ssl/server.key"

cat > "$D/users" <<EOT
alice@example.test:{PLAIN}alicepw:$MUID:$MGID::$D/mail/alice@example.test::
bob@example.test:{PLAIN}bobpw:$MUID:$MGID::$D/mail/bob@example.test::
alice:{PLAIN}alicepw:$MUID:$MGID::$D/mail/alice::
EOT
if [ -n "$KRB" ]; then
    # A ticket's principal arrives as alice@<realm, lower case>: alice's mailbox.
    realm=$(sed -n 's/^ *default_realm *= *//p' "$KRB/krb5.conf" | tr 'A-Z' 'a-z')
    echo "alice@$realm:{PLAIN}alicepw:$MUID:$MGID::$D/mail/alice::" >> "$D/users"
fi
cat > "$D/oauth-tokens" <<EOT
alice@example.test:{PLAIN}ya29.test-token-alice::::::
EOT
for u in alice@example.test bob@example.test alice; do
    mkdir -p "$D/mail/$u/Maildir"/{cur,new,tmp}
done
chown -R "$MUID:$MGID" "$D/mail"

MECHS="plain login cram-md5 apop xoauth2 oauthbearer"
extra=""
if [ -n "$KRB" ]; then
    MECHS="$MECHS gssapi"
    # The auth process runs as Dovecot's internal user: it reads its own copy.
    cp "$KRB/service.keytab" "$D/pop.keytab"
    if [ "$(id -u)" = 0 ]; then chown dovecot "$D/pop.keytab"; fi
    chmod 600 "$D/pop.keytab"
    extra="auth_krb5_keytab = $D/pop.keytab
auth_gssapi_hostname = \"\$ALL\"
import_environment = \$import_environment KRB5_CONFIG=$KRB/krb5.conf KRB5_KTNAME=FILE:$D/pop.keytab"
fi

cat > "$D/dovecot.conf" <<EOT
instance_name = korvane-test
base_dir = $D/run
state_dir = $D/state
log_path = $D/log/dovecot.log
info_log_path = $D/log/dovecot.log
debug_log_path = $D/log/dovecot.log
protocols = imap pop3 lmtp
listen = 127.0.0.1
shutdown_clients = yes
first_valid_uid = $MUID
last_valid_uid = $MUID
mail_location = maildir:~/Maildir
mail_uid = $MUID
mail_gid = $MGID
ssl = yes
ssl_cert = <$D/ssl/server.pem
ssl_key = <$D/ssl/server.key
ssl_min_protocol = TLSv1.2
disable_plaintext_auth = no
auth_mechanisms = $MECHS
auth_verbose = yes
auth_cache_size = 0
auth_failure_delay = 0
$extra
passdb {
  driver = passwd-file
  args = scheme=PLAIN username_format=%u $D/users
  mechanisms = plain login cram-md5 apop gssapi
}
passdb {
  driver = passwd-file
  args = scheme=PLAIN username_format=%u $D/oauth-tokens
  mechanisms = xoauth2 oauthbearer
}
userdb {
  driver = passwd-file
  args = username_format=%u $D/users
}
service imap-login {
  inet_listener imap {
    address = 127.0.0.1
    port = $IMAP
  }
  inet_listener imaps {
    address = 127.0.0.1
    port = $IMAPS
    ssl = yes
  }
}
service pop3-login {
  inet_listener pop3 {
    address = 127.0.0.1
    port = $POP3
  }
  inet_listener pop3s {
    address = 127.0.0.1
    port = $POP3S
    ssl = yes
  }
}
service lmtp {
  inet_listener lmtp {
    address = 127.0.0.1
    port = $LMTP
  }
}
# Postfix asks here for the SMTP logins (smtpd_sasl_type = dovecot); the
# mechanisms are the same as for POP3 and IMAP.
service auth {
  inet_listener sasl {
    address = 127.0.0.1
    port = $AUTH
  }
}
# Failed logins would otherwise be held back for seconds each.
service anvil {
  unix_listener anvil-auth-penalty {
    mode = 0
  }
}
protocol lmtp {
  auth_username_format = %u
}
EOT

rm -f "$D/run/master.pid"
"$DOVECOT" -c "$D/dovecot.conf" >>"$D/log/dovecot.log" 2>&1 ||
    { echo "dovecot did not start:" >&2; tail -20 "$D/log/dovecot.log" >&2; exit 1; }
for _ in $(seq 100); do [ -s "$D/run/master.pid" ] && break; sleep 0.1; done
[ -s "$D/run/master.pid" ] || { echo "dovecot wrote no PID" >&2; tail -20 "$D/log/dovecot.log" >&2; exit 1; }
for port in $POP3 $POP3S $IMAP $IMAPS $LMTP $AUTH; do
    for _ in $(seq 100); do (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break; sleep 0.1; done
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null ||
        { echo "dovecot does not answer on $port" >&2; tail -20 "$D/log/dovecot.log" >&2; exit 1; }
done
cat "$D/run/master.pid"
