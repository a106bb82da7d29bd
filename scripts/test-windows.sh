#!/usr/bin/env bash
# Builds the library for Windows with the cross compiler, and runs its tests under Wine, without a
# display and in Wine folders of their own.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# What the DLL may need, and the command beside it: libraries that every Windows brings along.
SYSTEM_LIBRARIES='ADVAPI32|KERNEL32|msvcrt|SETUPAPI|USER32|api-ms-win-core-synch-l1-2-0'

need_packages "${BUILD_PACKAGES[@]}" "${WINDOWS_PACKAGES[@]}"
cd "$DAK_HOME"

work=$(mktemp -d)
finish() {
    end_wine "$work"
    rm -rf "$work" || say "Something is left in $work"
}
trap finish EXIT

headline "Building for Windows"
cmake --preset windows -DDAK_BUILD_TESTS=ON >/dev/null
cmake --build --preset windows
needs_only() {
    x86_64-w64-mingw32-objdump -p "build-windows/$1" >"$work/headers"
    sed -n 's/^\s*DLL Name: //p' "$work/headers" >"$work/needs"
    [[ -s $work/needs ]] || die "$1 names no library that it needs"
    ! grep -viE "^($2)\.dll$" "$work/needs" || die "$1 needs more than the system"
}
needs_only DAK.dll "$SYSTEM_LIBRARIES"
needs_only dak.exe "$SYSTEM_LIBRARIES|SHELL32|DAK"

headline "Testing under Wine"
set_up_wine "$work"
timeout --foreground 1500 "${IN_WINE[@]}" ctest --preset windows --parallel 4 --no-tests=error \
    </dev/null | tr -d '\r' || die "tests failed under Wine"
count=$(tr -d '\r' <build-windows/Testing/Temporary/LastTest.log |
    awk '/^\[  PASSED  \]/ { count += $(NF - 1) } END { print count + 0 }')
say "Under Wine: $count tests passed"
