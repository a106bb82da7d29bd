# Shared by the scripts: packages, builds, tests. Sourced by bash with -euo pipefail set.

# shellcheck shell=bash

DAK_HOME=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What a build needs; beyond it the tests and benchmarks, the check of the form, and the Windows tests.
# shellcheck disable=SC2034 # used by the scripts that source this
BUILD_PACKAGES=(cmake ninja-build g++ libcli11-dev nlohmann-json3-dev)
TEST_PACKAGES=(libgtest-dev libbenchmark-dev)
FUZZ_PACKAGES=(clang libclang-rt-dev)
# shellcheck disable=SC2034 # used by the scripts that source this
FORM_PACKAGES=(git clang-format clang-tidy shellcheck "${FUZZ_PACKAGES[@]}")
# shellcheck disable=SC2034 # used by the scripts that source this
WINDOWS_PACKAGES=(g++-mingw-w64-x86-64-posix wine64 googletest)

say() { printf '%s\n' "$*"; }

headline() { printf '\n== %s\n' "$*"; }

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

package_installed() {
    [[ $(dpkg-query -W -f '${Status}' "$1" 2>/dev/null) == "install ok installed" ]]
}

# apt-get with the rights it needs, without a question and without taking the script's input.
apt_get() {
    local -a as_root=()
    if [[ $(id -u) != 0 ]]; then
        as_root=(sudo -n)
    fi
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq -y "$@" </dev/null >/dev/null
}

# Installs those of the packages that are missing, or says which they are and ends.
need_packages() {
    command -v dpkg-query >/dev/null ||
        die "this is not a Debian system; install what these packages hold by hand, and build as" \
            "README.md says: $*"
    local package
    local -a missing=()
    for package in "$@"; do
        package_installed "$package" || missing+=("$package")
    done
    if [[ ${#missing[@]} == 0 ]]; then
        return
    fi
    if [[ $(id -u) != 0 ]] && ! sudo -n true 2>/dev/null; then
        die "these packages are missing; install them and start again:" \
            $'\n'"    sudo apt-get install ${missing[*]}"
    fi
    say "Installing ${missing[*]}"
    # Without package lists there is nothing to install from.
    for package in "${missing[@]}"; do
        if [[ -z $(apt-cache policy "$package" 2>/dev/null) ]]; then
            apt_get update || die "apt-get update failed"
            break
        fi
    done
    apt_get install --no-install-recommends "${missing[@]}" ||
        { apt_get update && apt_get install --no-install-recommends "${missing[@]}"; } ||
        die "apt-get could not install ${missing[*]}"
}

# configure PRESET: tests, and benchmarks where nothing slows them down, are part of the build where
# their libraries are there.
configure() {
    local tests=ON bench=OFF package
    for package in "${TEST_PACKAGES[@]}"; do
        package_installed "$package" || tests=OFF
    done
    [[ $1 == release ]] && bench=$tests
    (cd "$DAK_HOME" &&
        cmake --preset "$1" -DDAK_BUILD_TESTS="$tests" -DDAK_BUILD_BENCH="$bench" >/dev/null)
}

# build PRESET [TARGET...]
build() {
    local preset=$1
    shift
    local -a targets=()
    if [[ $# -gt 0 ]]; then
        targets=(--target "$@")
    fi
    (cd "$DAK_HOME" && cmake --build --preset "$preset" "${targets[@]}")
}

# run_tests PRESET [CTEST_OPTION...]: every test, four at a time, for many of them wait most of their
# time. Ends with ctest's own summary. In CI a test that was skipped has failed.
run_tests() {
    local preset=$1 folder=build-$1
    shift
    [[ $preset == release ]] && folder=build
    (cd "$DAK_HOME" && ctest --preset "$preset" --parallel 4 --no-tests=error "$@")
    if [[ -n ${CI:-} ]] &&
        grep -E '^\[  SKIPPED \]' "$DAK_HOME/$folder/Testing/Temporary/LastTest.log"; then
        die "tests were skipped"
    fi
}

WINE_FOLDER=/usr/lib/wine

# set_up_wine FOLDER: a system for the Windows tests, without a display and below FOLDER, and one more
# for each test that wants its own; build-windows is configured, and says which those are. IN_WINE is
# what goes ahead of a program.
set_up_wine() {
    local own
    export WINEPREFIX=$1/prefix WINEDEBUG=-all
    export WINEDLLOVERRIDES="mscoree,mshtml,winemenubuilder.exe,winedbg.exe=d"
    unset DISPLAY WAYLAND_DISPLAY
    # Wine takes UTF-8 for the ANSI code page of a language that never had one. Only the language's
    # name matters to it, so the system's own UTF-8 locale serves under that name.
    mkdir -p "$1/locale"
    ln -s "$(find /usr/lib/locale -maxdepth 1 -iname 'C.utf*8' | head -n 1)" "$1/locale/hi_IN.UTF-8"
    IN_WINE=(env LOCPATH="$1/locale" LC_ALL=hi_IN.UTF-8)
    timeout --foreground 180 "${IN_WINE[@]}" "$WINE_FOLDER/wine64" wineboot --init \
        >/dev/null 2>&1 </dev/null || die "Wine could not be set up"
    # Consoles need a window, and a window a driver: this one shows nothing.
    timeout --foreground 60 "${IN_WINE[@]}" "$WINE_FOLDER/wine64" reg add 'HKCU\Software\Wine\Drivers' \
        /v Graphics /d null /f >/dev/null 2>&1 </dev/null || die "Wine's registry could not be written"
    # The desktop that is there has none yet, and the next one will.
    timeout --foreground 60 "$WINE_FOLDER/wineserver" -w || die "Wine did not come to rest"
    while read -r own; do
        cp -al "$WINEPREFIX" "$WINEPREFIX-$own" # the system's files are many, and nobody writes to them
        cp --remove-destination "$WINEPREFIX"/*.reg "$WINEPREFIX-$own"
    done < <(find "$DAK_HOME/build-windows" -name CTestTestfile.cmake -exec \
        sed -n 's/.*WINEPREFIX=string_append:-\([^";]*\).*/\1/p' {} + | sort -u)
}

# end_wine FOLDER: ends what runs in the systems below FOLDER.
end_wine() {
    local folder how
    for folder in "$1"/prefix*; do
        [[ -d $folder ]] || continue
        for how in -k -w; do
            WINEPREFIX=$folder timeout --foreground 30 "$WINE_FOLDER/wineserver" "$how" 2>/dev/null ||
                true
        done
    done
}
