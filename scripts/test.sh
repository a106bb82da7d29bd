#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
headline "Building"
configure release
build release
headline "Testing"
run_tests release
