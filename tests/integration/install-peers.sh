#!/bin/bash
# Installs the mail servers the integration tests start (Debian 12, as root),
# without letting the packages start them as system services (none may stay
# on port 25 or the other standard ports), and unpacks
# Cyrus pop3d privately under $KV_PEERS_OPT (default /opt/korvane-peers):
# Debian's Cyrus server packages conflict with Dovecot's, so they are never
# installed. Quick and silent when everything is already there.
set -euo pipefail
OPT=${KV_PEERS_OPT:-/opt/korvane-peers}
PACKAGES=(dovecot-core dovecot-pop3d dovecot-imapd dovecot-lmtpd dovecot-gssapi
          postfix sasl2-bin libsasl2-modules cyrus-common
          krb5-kdc krb5-admin-server krb5-user python3-gssapi openssl)

missing=()
for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
cyrus_ok() { [ -x "$OPT/cyrus/usr/lib/cyrus/bin/pop3d" ]; }
[ ${#missing[@]} -eq 0 ] && cyrus_ok && exit 0

if [ "$(id -u)" -ne 0 ]; then
    echo "install-peers: need root to install ${missing[*]:-} and unpack Cyrus pop3d" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
APT=(apt-get -o DPkg::Lock::Timeout=600 -q)

if [ ${#missing[@]} -gt 0 ]; then
    echo "install-peers: installing ${missing[*]}"
    # A policy-rc.d answering 101 keeps the maintainer scripts from starting
    # Dovecot, Postfix, the KDC or Cyrus on the standard ports of every interface.
    ours=0
    if [ ! -e /usr/sbin/policy-rc.d ]; then
        printf '#!/bin/sh\nexit 101\n' > /usr/sbin/policy-rc.d
        chmod +x /usr/sbin/policy-rc.d
        ours=1
    fi
    trap '[ "$ours" = 1 ] && rm -f /usr/sbin/policy-rc.d' EXIT
    # Postfix with no main.cf of Debian's making: the tests bring their own.
    echo "postfix postfix/main_mailer_type select No configuration" | debconf-set-selections
    "${APT[@]}" update >/dev/null
    "${APT[@]}" install -y --no-install-recommends "${missing[@]}" >/dev/null
    if command -v systemctl >/dev/null && [ -d /run/systemd/system ]; then
        systemctl disable --now dovecot.socket dovecot.service cyrus-imapd.service \
            krb5-kdc.service krb5-admin-server.service postfix.service >/dev/null 2>&1 || true
    fi
    # Without systemd a maintainer script may still have run the system
    # Postfix (its own config, port 25): stop it the way it was started.
    if [ -s /var/spool/postfix/pid/master.pid ] &&
        kill -0 "$(tr -dc 0-9 < /var/spool/postfix/pid/master.pid)" 2>/dev/null; then
        postfix -c /etc/postfix stop >/dev/null 2>&1 || true
    fi
fi

if ! cyrus_ok; then
    echo "install-peers: unpacking Cyrus pop3d into $OPT/cyrus"
    mkdir -p "$OPT/debs"
    # The unpacked binary must match the installed cyrus-common (its libraries).
    version=$(dpkg-query -W -f='${Version}' cyrus-common)
    (cd "$OPT/debs" && rm -f cyrus-pop3d_*.deb &&
        "${APT[@]}" download "cyrus-pop3d=$version" >/dev/null 2>&1 ||
        { "${APT[@]}" update >/dev/null && "${APT[@]}" download "cyrus-pop3d=$version" >/dev/null; })
    rm -rf "$OPT/cyrus.new"
    dpkg-deb -x "$OPT"/debs/cyrus-pop3d_*.deb "$OPT/cyrus.new"
    rm -rf "$OPT/cyrus"
    mv "$OPT/cyrus.new" "$OPT/cyrus"
fi
cyrus_ok || { echo "install-peers: no pop3d in $OPT/cyrus" >&2; exit 1; }
