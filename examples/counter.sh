#!/usr/bin/env bash
# counter.sh - several processes count together, and no step is lost: each stores the next number only while the value
# is still the one that it has read.
#
#   counter.sh KEY NAME STEPS [PROCESSES]
set -euo pipefail
key=$1 name=$2 steps=$3 processes=${4:-8}
exec 2>/dev/null # obreg tells each time that somebody was faster

count() {
    local i seen status
    for ((i = 0; i < $1; ++i)); do
        status=6 # a condition did not hold
        while [ $status = 6 ]; do
            seen=$(obreg get "$key" "$name")
            obreg set "$key" "$name" $((seen + 1)) --if-equals "$seen" && status=0 || status=$?
        done
        [ $status = 0 ] || exit $status
    done
}

obreg set "$key" "$name" 0 --type REG_DWORD --if-absent || [ $? = 6 ]
pids=()
for ((p = 0; p < processes; ++p)); do
    count $((steps / processes + (p < steps % processes))) &
    pids+=($!)
done
for pid in "${pids[@]}"; do
    wait "$pid"
done
