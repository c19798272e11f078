#!/bin/bash
# Usage: postfix-down.sh DIR: stops the Postfix that postfix-up.sh DIR started,
# master and every process it ran (smtpd, qmgr, pickup, ...), and waits.
# The master leads its own session, so the session id finds its children
# even after the master is gone. Fails if one is still there after a kill.
export PATH=$PATH:/usr/sbin:/sbin
D=$(realpath -m "${1:?directory}")
f=$D/spool/pid/master.pid
[ -s "$f" ] || exit 0
master=$(tr -dc 0-9 < "$f")
[ -n "$master" ] || exit 0
members() { ps -e -o pid=,sid= | awk -v s="$master" '$2 == s { print $1 }'; }
pids=$(members)
[ -n "$pids" ] || exit 0
postfix -c "$D/etc" stop >/dev/null 2>&1 || kill "$master" 2>/dev/null
for _ in $(seq 50); do
    [ -z "$(members)" ] && exit 0
    sleep 0.1
done
# Daemons that outlive an orderly stop (an smtpd with a client still on it) go now.
pids=$(members)
[ -n "$pids" ] && kill -9 $pids 2>/dev/null
for _ in $(seq 20); do
    [ -z "$(members)" ] && exit 0
    sleep 0.1
done
echo "postfix processes left: $(members | tr '\n' ' ')" >&2
exit 1
