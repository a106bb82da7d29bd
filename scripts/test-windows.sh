#!/usr/bin/env bash
# Builds the library for Windows with the cross compiler, and runs its tests under Wine, without a
# display and in Wine folders of their own.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

PACKAGES=(g++-mingw-w64-x86-64-posix wine64 libcli11-dev nlohmann-json3-dev libgtest-dev googletest)
WINE_FOLDER=/usr/lib/wine
# What the DLL and the command may need: libraries that every Windows brings along.
SYSTEM_LIBRARIES='ADVAPI32|KERNEL32|msvcrt|SETUPAPI|SHELL32|USER32|api-ms-win-core-synch-l1-2-0'

need_packages cmake ninja-build "${PACKAGES[@]}"
cd "$DAK_HOME"

# What tests of their own Wine folder have behind WINEPREFIX (tests/CMakeLists.txt).
OWN_FOLDERS=(-seam -end-to-end -command -code-page)

work=$(mktemp -d)
finish() {
    local folder
    for folder in "$work"/prefix*; do
        WINEPREFIX=$folder timeout 60 "$WINE_FOLDER/wineserver" -k 2>/dev/null || true
    done
    rm -rf "$work"
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
cmake --preset windows >/dev/null
cmake --build --preset windows
for program in DAK.dll dak.exe; do
    foreign=$(x86_64-w64-mingw32-objdump -p "build-windows/$program" |
        sed -n 's/^\s*DLL Name: //p' | grep -viE "^($SYSTEM_LIBRARIES|DAK)\.dll$" || true)
    [[ -z $foreign ]] || die "$program needs more than the system: $foreign"
done

headline "Testing under Wine"
in_utf8=(env LOCPATH="$work/locale" LC_ALL=hi_IN.UTF-8)
timeout 180 "${in_utf8[@]}" "$WINE_FOLDER/wine64" wineboot --init >/dev/null 2>&1 </dev/null ||
    die "Wine could not be set up"
# Consoles need a window, and a window a driver: this one shows nothing.
timeout 60 "${in_utf8[@]}" "$WINE_FOLDER/wine64" reg add 'HKCU\Software\Wine\Drivers' \
    /v Graphics /d null /f >/dev/null 2>&1 </dev/null || die "Wine's registry could not be written"
# The desktop that is there has none yet, and the next one will.
timeout 60 "$WINE_FOLDER/wineserver" -w || die "Wine did not come to rest"
for own in "${OWN_FOLDERS[@]}"; do
    cp -al "$WINEPREFIX" "$WINEPREFIX$own" # the system's files are many, and nobody writes to them
    cp --remove-destination "$WINEPREFIX"/*.reg "$WINEPREFIX$own"
done
timeout 1500 "${in_utf8[@]}" ctest --preset windows --parallel 4 --no-tests=error --verbose \
    </dev/null >"$work/log" 2>&1 || {
    tr -d '\r' <"$work/log" | grep -vE '\[ +(RUN|OK) ' | tail -n 200
    die "tests failed under Wine"
}
grep -E 'Test +#' "$work/log"
say "Under Wine: $(tr -d '\r' <"$work/log" | awk '/\[  PASSED  \]/ { count += $(NF - 1) } END { print count }')" \
    "tests passed"
