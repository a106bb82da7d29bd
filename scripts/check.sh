#!/usr/bin/env bash
# Checks the form of the sources: clang-format on all, shellcheck on the scripts, that the fuzzers
# compile, clang-tidy on the library's (with --all also on the agent's and the command's, which takes
# minutes). Needs a configured build folder for clang-tidy, and makes one if there is none.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

need_packages "${BUILD_PACKAGES[@]}" "${FORM_PACKAGES[@]}"
cd "$DAK_HOME"

headline "clang-format"
mapfile -t sources < <(git ls-files '*.cpp' '*.h')
[[ ${#sources[@]} -gt 0 ]] || die "git names no sources"
clang-format --dry-run -Werror "${sources[@]}"
say "${#sources[@]} files are in form"

headline "shellcheck"
mapfile -t scripts < <(git ls-files '*.sh' '*.bash' .ci/run)
shellcheck --external-sources "${scripts[@]}"
say "${#scripts[@]} scripts are in form"

# Nothing else compiles them until somebody fuzzes.
headline "Fuzzers"
mapfile -t fuzzers < <(git ls-files 'fuzz/*.cpp')
clang++ -std=c++20 -fsyntax-only -Wall -Wextra -Werror -I. -DDAK_STATIC "${fuzzers[@]}"
say "${#fuzzers[@]} fuzzers compile"

headline "clang-tidy"
[[ -f build/compile_commands.json ]] || configure release
folders=(link stream transfer remote_files device_services platform/posix)
if [[ ${1:-} == --all ]]; then
    folders+=(agent cli)
fi
# What another system than this one compiles has no place in its compile commands.
mapfile -t tidied < <(git ls-files "${folders[@]/%//*.cpp}" | grep -v '_windows\.cpp$')
[[ ${#tidied[@]} -gt 0 ]] || die "git names no sources"
# clang-tidy counts on standard error the warnings of foreign headers that it leaves out.
printf '%s\0' "${tidied[@]}" | xargs -0 -P 2 -n 1 clang-tidy -p build --quiet 2> >(
    grep -v 'warnings generated\.$' >&2 || true)
say "clang-tidy has nothing to say on ${#tidied[@]} files"
