#!/usr/bin/env bash
# counter.sh - several processes count together, and no step is lost: each stores the next number only while the value
# is still the one that it has read, and otherwise waits for another one.
#
#   counter.sh KEY NAME STEPS [PROCESSES]
set -euo pipefail
key=$1 name=$2 steps=$3 processes=${4:-8}
count() {
    local i seen
    for ((i = 0; i < $1; ++i)); do
        seen=$(obreg wait "$key" "$name")
        until obreg set "$key" "$name" $((seen + 1)) --if-equals "$seen" 2>/dev/null; do
            [ $? = 6 ] || exit 1 # for another reason than that the condition did not hold
            seen=$(obreg wait "$key" "$name" --not-equals "$seen")
        done
    done
}

obreg set "$key" "$name" 0 --type REG_DWORD --if-absent 2>/dev/null || [ $? = 6 ]
pids=()
for ((p = 0; p < processes; ++p)); do
    count $((steps / processes + (p < steps % processes))) &
    pids+=($!)
done
for pid in "${pids[@]}"; do
    wait "$pid"
done
