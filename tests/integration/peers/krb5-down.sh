#!/bin/bash
# Usage: krb5-down.sh DIR: stops the KDC that krb5-up.sh DIR started, and waits.
D=$(realpath -m "${1:?directory}")
[ -s "$D/krb5kdc.pid" ] || exit 0
pid=$(cat "$D/krb5kdc.pid")
kill "$pid" 2>/dev/null || exit 0
for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || exit 0; sleep 0.1; done
kill -9 "$pid" 2>/dev/null
exit 0
