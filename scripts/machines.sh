# shellcheck shell=bash
# Machines on this one, for ./demo --shared and the storm that tests it: network namespaces on a switch, each with a
# member of etcd and an obregd of its own. Sourced with `build`, the folder of the programs, and `machines`, their names.
#
# begin_inside COMMAND... comes first: it runs the command again in namespaces that end with it.
begin_inside() {
    [ -z "${OBREG_INSIDE:-}" ] || return 0
    local map=
    [ "$(id -u)" = 0 ] || map=--map-root-user
    # shellcheck disable=SC2086
    OBREG_INSIDE=1 exec unshare --mount --net --pid --fork --kill-child --mount-proc $map "$@"
}

begin_machines() {
    export PATH=$build:$PATH LD_LIBRARY_PATH=$build
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    mount -t tmpfs none /run
    mkdir -p /run/netns
    ip link set lo up
    if ! ip link add switch type bridge || ! ip link add probe type veth peer name probed; then
        echo "$0: this system gives no bridges and cables between network namespaces, of which the machines are made" >&2
        exit 77 # a test is then skipped
    fi
    ip link delete probe
    ip link set switch up
    declare -gA address holder etcd daemon
    local m number=0
    members= urls=
    for m in "${machines[@]}"; do
        number=$((number + 1))
        address[$m]=10.77.0.$number
        ip netns add "$m"
        ip link add "to-$m" type veth peer name eth0 netns "$m"
        ip link set "to-$m" master switch up
        ip -n "$m" address add "${address[$m]}/24" dev eth0
        ip -n "$m" link set eth0 up
        ip -n "$m" link set lo up
        nsenter --net="/run/netns/$m" unshare --mount sh -c '
            mount -t tmpfs none /var/opt && mkdir -p /var/opt/quorlin/ombrel/obregd && exec sleep infinity' &
        holder[$m]=$!
        members+="${members:+,}$m=http://${address[$m]}:2380"
        urls+="${urls:+,}http://${address[$m]}:2379"
    done
    sleep 0.3
}

# on MACHINE COMMAND... : runs it there; begin_on: in the background, as $!
on() { nsenter --target "${holder[$1]}" --mount --net "${@:2}"; }
begin_on() { exec nsenter --target "${holder[$1]}" --mount --net "${@:2}"; }

start_etcd() {
    begin_on "$1" etcd --name "$1" --data-dir "$work/etcd-$1" --initial-cluster "$members" --logger zap \
        --listen-peer-urls "http://${address[$1]}:2380" --initial-advertise-peer-urls "http://${address[$1]}:2380" \
        --listen-client-urls "http://${address[$1]}:2379" --advertise-client-urls "http://${address[$1]}:2379" \
        >>"$work/etcd-$1.log" 2>&1 &
    etcd[$1]=$!
}

start_daemon() {
    begin_on "$1" obregd --store "$work/$1.db" --share 'HKLM\Shared=office' --engine "$urls" --engine-patience 8 \
        --engine-library "$build/obregd-etcd.so" 2>>"$work/obregd-$1.log" &
    daemon[$1]=$!
}

# until_so COMMAND... : waits for it to succeed
until_so() {
    for _ in {1..200}; do
        "$@" >/dev/null 2>&1 && return
        sleep 0.1
    done
    echo "$0: this did not come true in 20 s: $*" >&2
    tail -n 5 "$work"/*.log >&2
    exit 1
}

is_connected() { on "$1" obreg shared status | cut -f 3 | grep -qx connected; }

# Prints what each copy has; fails when they are not equal.
compare_copies() {
    local m
    for m in "${machines[@]}"; do
        until_so on "$m" obreg shared sync
        on "$m" obreg export HKLM/Shared "$work/$m.reg"
        echo "$m: $(grep -c '^["@]' "$work/$m.reg" || true) values, $(cksum <"$work/$m.reg")"
    done
    for m in "${machines[@]}"; do cmp "$work/${machines[0]}.reg" "$work/$m.reg" || return; done
}
