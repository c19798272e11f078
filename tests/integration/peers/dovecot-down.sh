#!/bin/bash
# Usage: dovecot-down.sh DIR: stops the Dovecot that dovecot-up.sh DIR started, and waits.
exec "$(dirname "$0")/stop-pid.sh" "$(realpath -m "${1:?directory}")/run/master.pid"
