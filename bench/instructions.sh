#!/bin/sh
# Instructions per packet of each step of the hot path, counted by valgrind: the difference between
# runs of N and 2N packets, so start-up and preparation cancel out. Unlike time it has no noise.
#
# usage: bench/instructions.sh [BUILD_DIRECTORY]    (default build/release)
set -eu

driver=${1:-build/release}/bench/bench_driver
packets=65536
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Instructions of the whole run of a step.
instructions() {
    valgrind --tool=callgrind --callgrind-out-file="$scratch/out" "$driver" "$1" "$2" \
        > "$scratch/log" 2>&1 || { cat "$scratch/log" >&2; exit 1; }
    awk '$1 == "totals:" || $1 == "summary:" { count = $2 } END { print count }' "$scratch/out"
}

printf '%-12s %s\n' step 'instructions per packet'
for step in parse parse_udp hit miss evict handover; do
    once=$(instructions "$step" "$packets")
    twice=$(instructions "$step" $((packets * 2)))
    awk -v step="$step" -v difference=$((twice - once)) -v packets="$packets" \
        'BEGIN { printf "%-12s %.1f\n", step, difference / packets }'
done
