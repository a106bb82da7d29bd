#!/usr/bin/env bash
# soak.sh [MINUTES [FIRST_SEED]]: random work under random faults (tests/scenarios/seed_tests.cpp), on
# all processors, for so many minutes (10), from a seed on (one that the clock gives). Every twentieth
# seed runs twice, and its traces are compared. Ends with what was done, and with status 1 if a seed
# failed: each is named with the command that repeats it.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

CHUNK=50 # seeds of one run of the program

minutes=${1:-10}
first=${2:-$(date +%s)}
[[ $# -le 2 && $minutes =~ ^[0-9]+$ && $first =~ ^[0-9]+$ ]] ||
    die "usage: soak.sh [MINUTES [FIRST_SEED]]"

need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
cd "$DAK_HOME"
headline "Building"
configure release
build release seed_tests

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
end=$((SECONDS + minutes * 60))

# Every so-manieth chunk is this process's. Behind a seed that fails it goes on with the next.
soak() {
    local chunk=$1 seed last failed
    for (( ; SECONDS < end; chunk += processors)); do
        seed=$((first + chunk * CHUNK)) last=$((first + (chunk + 1) * CHUNK))
        while ((seed < last)); do
            if DAK_SEED=$seed DAK_SEEDS=$((last - seed)) build/seed_tests >"$work/$1.run" 2>&1; then
                seed=$last
            else
                failed=$(sed -n 's/^To repeat: DAK_SEED=\([0-9]*\) .*/\1/p' "$work/$1.run")
                # A program that has broken down names no seed.
                : "${failed:=$seed}"
                cp "$work/$1.run" "build/seed-$failed.log"
                say "$failed" >>"$work/failed"
                seed=$((failed + 1))
            fi
            sed -n 's/^count //p' "$work/$1.run" >>"$work/$1.counts"
        done
    done
}

processors=$(nproc)
headline "Soaking for $minutes minutes from seed $first on"
for ((i = 0; i < processors; ++i)); do
    soak "$i" &
done
wait

headline "What was done"
cat "$work"/*.counts | awk '{ n = $1; $1 = ""; total[$0] += n }
    END { for (what in total) printf "%10d%s\n", total[what], what }' | sort -k 2
[[ -e $work/failed ]] || exit 0
headline "Seeds that failed, each with its log in build/seed-SEED.log"
sort -n "$work/failed" | sed 's|.*|DAK_SEED=& DAK_SEEDS=1 build/seed_tests|'
exit 1
