#!/bin/sh
# Runs a command in a private mount namespace with an empty /var/opt, as root or as any user with user namespaces.
if [ "$(id -u)" = 0 ]; then map=; else map=--map-root-user; fi
exec unshare --mount $map sh -c 'mount -t tmpfs none /var/opt && mkdir -p /var/opt/quorlin/ombrel/obregd && exec "$@"' sh "$@"
