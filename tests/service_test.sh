#!/usr/bin/env bash
# The units are well-formed and hardened: service_test.sh UNITS OBREGD
set -euo pipefail
units=$(realpath "$1")
command -v systemd-analyze >/dev/null || { echo "there is no systemd-analyze"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$units"/*.{service,socket,timer} "$work"
sed -i "s|/usr/sbin/obregd|$2|; s|/usr/libexec|$units|" "$work"/*.service
systemd-analyze verify --man=no "$work"/*.{service,socket,timer} 2>&1 | tee "$work/complaints"
! grep -F obregd "$work/complaints" || exit 1
for service in "$units"/*.service; do # the threshold is in tenths
    systemd-analyze security --offline=true --no-pager --threshold=20 "$service" | tail -n 1
done
systemd-sysusers --dry-run "$units/obregd.sysusers"
