#!/usr/bin/env bash
# fuzz.sh [MINUTES [NAME...]]: runs the fuzzers (agent, library, usb_node, usbip_connection; by default
# all), each for so many minutes (10), as many at a time as the machine has processors. What they learn
# is kept in build-fuzz/corpus/; what they find ends the script with status 1 and lies, with its log,
# in build-fuzz/. To repeat a finding: build-fuzz/NAME_fuzz build-fuzz/NAME-crash-...
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

minutes=${1:-10}
[[ $minutes =~ ^[0-9]+$ ]] || die "usage: fuzz.sh [MINUTES [NAME...]]"
names=("${@:2}")
[[ ${#names[@]} -gt 0 ]] || names=(agent library usb_node usbip_connection)

need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${FUZZ_PACKAGES[@]}"
cd "$DAK_HOME"
headline "Building"
cmake --preset fuzz >/dev/null
cmake --build build-fuzz --target "${names[@]/%/_fuzz}"

headline "Fuzzing for $minutes minutes each: ${names[*]}"
fuzz() {
    mkdir -p "build-fuzz/corpus/$1"
    "build-fuzz/$1_fuzz" -max_total_time=$((minutes * 60)) -max_len=4096 -timeout=60 \
        -artifact_prefix="build-fuzz/$1-" "build-fuzz/corpus/$1" "fuzz/corpus/$1" \
        >"build-fuzz/$1.log" 2>&1 || {
        tail -n 30 "build-fuzz/$1.log"
        return 1
    }
    say "$1: $(grep '^Done ' "build-fuzz/$1.log")," \
        "$(grep -o 'cov: [0-9]*' "build-fuzz/$1.log" | tail -n 1)"
}
export -f fuzz say
export minutes
printf '%s\0' "${names[@]}" | xargs -0 -P "$(nproc)" -I '{}' bash -c 'fuzz {}' ||
    die "something was found; it lies in build-fuzz/"
