#!/usr/bin/env bash
# Four machines that share a tree, writers on all, and one fault after the other: shared_storm.sh BUILD-FOLDER [ROUNDS].
# In the end all copies are equal, what was answered is there, what was deleted is not (a write that is done twice would
# bring it back), and a write of which no answer came is there whole or not at all.
set -euo pipefail

build=$(readlink -f "$1")
rounds=$((${2:-3} * ${OBREG_TORTURE:-1}))
. "$(dirname "$(readlink -f "$0")")/../../scripts/machines.sh"
begin_inside "$0" "$build" "${2:-3}"
machines=(a b c d)
begin_machines
for m in "${machines[@]}"; do start_etcd "$m"; done
for m in "${machines[@]}"; do start_daemon "$m"; done
for m in "${machines[@]}"; do until_so is_connected "$m"; done

# Writes v0, v1, ... in a key of its own and notes what it was answered: "+ name", "- name" for a deletion, "? name".
cat >"$work/writer.py" <<'END'
import ctypes, itertools, os, sys, time
library, key, stop = ctypes.CDLL("libobreg.so"), ctypes.c_void_p(), sys.argv[2]
done = lambda status: (status & 0xFFFFFFFF) == 0
path = b"Shared\\" + sys.argv[1].encode()
for i in itertools.count():
    if os.path.exists(stop):
        break
    name = b"v%d" % i
    made = done(library.OBRegCreateKeyExA(ctypes.c_void_p(0x80000002), path, 0, None, 0, 0xF003F, None, ctypes.byref(key), None))
    sign = "+" if made and done(library.OBRegSetValueExA(key, name, 0, 1, name + b"\0", len(name) + 1)) else "?"
    if sign == "+" and i % 3 == 0:
        sign = "-" if done(library.OBRegDeleteValueA(key, name)) else "?"
    print(sign, name.decode(), flush=True)
    time.sleep(0.002)
END
writers=()
for i in 1 2 3 4 5 6 7 8; do
    begin_on "${machines[i % 4]}" python3 "$work/writer.py" "writer$i" "$work/stop" >"$work/answers-$i" &
    writers+=($!)
done

again() { kill -KILL "$1" && wait "$1" || true; } 2>/dev/null
for ((round = 0; round < rounds; ++round)); do
    first=$((RANDOM % 4))
    for fault in kill_etcd stop_etcd kill_daemon stop_daemon cut compact wipe; do
        first=$(((first + 1 + RANDOM % 3) % 4))
        m=${machines[first]} other=${machines[(first + 1) % 4]}
        echo "round $round: $fault on $m"
        case $fault in
        kill_etcd) again "${etcd[$m]}"; sleep 1; start_etcd "$m" ;;
        stop_etcd) kill -STOP "${etcd[$m]}"; sleep 3; kill -CONT "${etcd[$m]}" ;;
        kill_daemon) again "${daemon[$m]}"; start_daemon "$m" ;;
        stop_daemon) kill -STOP "${daemon[$m]}"; sleep 2; kill -CONT "${daemon[$m]}" ;;
        cut) ip link set "to-$m" down; sleep 4; ip link set "to-$m" up ;;
        compact)
            kill -STOP "${daemon[$m]}"
            sleep 1
            revision=$(on "$other" obreg shared status | cut -f 4)
            on "$other" env ETCDCTL_API=3 etcdctl --endpoints "http://${address[$other]}:2379" compact "$revision" || true
            kill -CONT "${daemon[$m]}" ;;
        wipe) again "${daemon[$m]}"; rm -f "$work/$m.db"*; start_daemon "$m" ;;
        esac
        sleep 1
    done
done
for m in "${machines[@]}"; do until_so is_connected "$m"; done
touch "$work/stop"
wait "${writers[@]}"
sleep 10 # what was on its way when it was given up has arrived by now, or never will
compare_copies || { echo "the copies differ"; exit 1; }
wrong=0
for i in 1 2 3 4 5 6 7 8; do
    sed -n "/\\\\writer$i\]/,/^\[/s/^\"\(v[0-9]*\)\"=\"\(.*\)\"$/\1 \2/p" "$work/a.reg" | tr -d '\r' | sort >"$work/there"
    awk '$1 != $2' "$work/there" | grep . && wrong=$((wrong + 1))
    cut -d ' ' -f 1 "$work/there" >"$work/names"
    grep '^+' "$work/answers-$i" | cut -c 3- | sort | comm -23 - "$work/names" | sed "s/^/writer$i: answered and lost: /" | tee "$work/lost"
    grep '^-' "$work/answers-$i" | cut -c 3- | sort | comm -12 - "$work/names" | sed "s/^/writer$i: deleted and back: /" | tee "$work/back"
    [ ! -s "$work/lost" ] && [ ! -s "$work/back" ] || wrong=$((wrong + 1))
done
echo "FIGURE shared storm: $(cat "$work"/answers-* | cut -c 1 | sort | uniq -c | tr '\n' ' ')"
[ "$wrong" = 0 ] && [ "$(cat "$work"/answers-* | grep -c '^+')" -gt 100 ]
