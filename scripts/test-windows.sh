#!/usr/bin/env bash
# Builds the library for Windows with the cross compiler, and runs its tests under Wine, without a
# display and in Wine folders of their own.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

WINE_FOLDER=/usr/lib/wine
# What the DLL may need, and the command beside it: libraries that every Windows brings along.
SYSTEM_LIBRARIES='ADVAPI32|KERNEL32|msvcrt|SETUPAPI|USER32|api-ms-win-core-synch-l1-2-0'

need_packages "${BUILD_PACKAGES[@]}" "${WINDOWS_PACKAGES[@]}"
cd "$DAK_HOME"

# What tests of their own Wine folder have behind WINEPREFIX (tests/CMakeLists.txt).
OWN_FOLDERS=(-seam -library -command -copies -code-page)

work=$(mktemp -d)
finish() {
    local folder how
    for folder in "$work"/prefix*; do
        for how in -k -w; do
            WINEPREFIX=$folder timeout --foreground 30 "$WINE_FOLDER/wineserver" "$how" 2>/dev/null ||
                true
        done
    done
    rm -rf "$work" || say "Something is left in $work"
}
trap finish EXIT

export WINEPREFIX=$work/prefix WINEDEBUG=-all
export WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe,winedbg.exe=d"
unset DISPLAY WAYLAND_DISPLAY
# Wine takes UTF-8 for the ANSI code page of a language that never had one. Only the language's name
# matters to it, so the system's own UTF-8 locale serves under that name.
mkdir -p "$work/locale"
ln -s "$(find /usr/lib/locale -maxdepth 1 -iname 'C.utf*8' | head -n 1)" "$work/locale/hi_IN.UTF-8"

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
in_utf8=(env LOCPATH="$work/locale" LC_ALL=hi_IN.UTF-8)
timeout --foreground 180 "${in_utf8[@]}" "$WINE_FOLDER/wine64" wineboot --init >/dev/null 2>&1 </dev/null ||
    die "Wine could not be set up"
# Consoles need a window, and a window a driver: this one shows nothing.
timeout --foreground 60 "${in_utf8[@]}" "$WINE_FOLDER/wine64" reg add 'HKCU\Software\Wine\Drivers' \
    /v Graphics /d null /f >/dev/null 2>&1 </dev/null || die "Wine's registry could not be written"
# The desktop that is there has none yet, and the next one will.
timeout --foreground 60 "$WINE_FOLDER/wineserver" -w || die "Wine did not come to rest"
for own in "${OWN_FOLDERS[@]}"; do
    cp -al "$WINEPREFIX" "$WINEPREFIX$own" # the system's files are many, and nobody writes to them
    cp --remove-destination "$WINEPREFIX"/*.reg "$WINEPREFIX$own"
done
timeout --foreground 1500 "${in_utf8[@]}" ctest --preset windows --parallel 4 --no-tests=error \
    </dev/null | tr -d '\r' || die "tests failed under Wine"
count=$(tr -d '\r' <build-windows/Testing/Temporary/LastTest.log |
    awk '/^\[  PASSED  \]/ { count += $(NF - 1) } END { print count + 0 }')
say "Under Wine: $count tests passed"
