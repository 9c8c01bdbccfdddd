#!/bin/sh
# Runs a command beside a daemon on the fixed socket path, inside in-namespace.sh: with-daemon.sh OBREGD COMMAND...
set -eu
socket=/var/opt/quorlin/ombrel/obregd/reg-socket
daemon=$1
shift
"$daemon" &
pid=$!
trap 'kill "$pid" && wait "$pid"' EXIT
for _ in $(seq 200); do
    [ ! -S "$socket" ] || break
    sleep 0.05
done
OMBREL_MAX_REGIPC_SETUP_TIME=5 "$@" # it may be there and not listening yet
