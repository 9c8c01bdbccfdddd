#!/bin/sh
# Runs a command in a private mount namespace with an empty /var/opt, as root or as any user with user namespaces.
# OBREG_RUNNER, a program to run the command with, valgrind for instance, may be set.
if [ "$(id -u)" = 0 ]; then map=; else map=--map-root-user; fi
export OBREG_RUNNER
exec unshare --mount $map sh -c 'mount -t tmpfs none /var/opt && mkdir -p /var/opt/quorlin/ombrel/obregd && exec $OBREG_RUNNER "$@"' sh "$@"
