#!/bin/bash
# Usage: cyrus-down.sh DIR: stops the Cyrus master that cyrus-up.sh DIR started (and its
# services with it), and waits.
exec "$(dirname "$0")/stop-pid.sh" "$(realpath -m "${1:?directory}")/run/master.pid"
