#!/usr/bin/env bash
# The units are well-formed and hardened: service_test.sh UNITS OBREGD
set -euo pipefail
units=$(realpath "$1")
command -v systemd-analyze >/dev/null || { echo "there is no systemd-analyze"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed "s|^ExecStart=/usr/sbin/obregd|ExecStart=$2|; s|/usr/libexec|$units|" "$units/obregd.service" >"$work/obregd.service"
cp "$units/obregd.socket" "$work"
systemd-analyze verify --man=no "$work/obregd.service" "$work/obregd.socket" 2>&1 | tee "$work/complaints"
! grep -F obregd "$work/complaints" || exit 1
# The threshold is in tenths.
systemd-analyze security --offline=true --no-pager --threshold=20 "$units/obregd.service" | tail -n 1
systemd-sysusers --dry-run "$units/obregd.sysusers"
