# Shared by the scripts: packages, builds, tests. Sourced by bash with -euo pipefail set.

# shellcheck shell=bash

DAK_HOME=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What a build needs; beyond it the tests and benchmarks, the check of the form, and the Windows tests.
# shellcheck disable=SC2034 # used by the scripts that source this
BUILD_PACKAGES=(cmake ninja-build g++ libcli11-dev nlohmann-json3-dev)
TEST_PACKAGES=(libgtest-dev libbenchmark-dev)
# shellcheck disable=SC2034 # used by the scripts that source this
FORM_PACKAGES=(git clang-format clang-tidy shellcheck)
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

# run_tests PRESET: every test, four at a time, for many of them wait most of their time. Ends with
# ctest's own summary.
run_tests() {
    (cd "$DAK_HOME" && ctest --preset "$1" --parallel 4 --no-tests=error)
}
