#!/bin/bash
# Usage: stop-pid.sh PIDFILE...: stops each process named by a PID file, waits
# up to 5 s for it to go, then kills it. Missing files and dead PIDs are fine.
for f in "$@"; do
    [ -s "$f" ] || continue
    pid=$(tr -dc 0-9 < "$f")
    [ -n "$pid" ] && kill "$pid" 2>/dev/null || continue
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || continue 2; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null
done
exit 0
