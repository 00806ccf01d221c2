#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what is missing, builds and runs the tests of every day.
#   scripts/test.sh [PRESET]      release (the default), debug, sanitize, tsan or windows
# sanitize: all but the slow tests and those on a Vulkan device; with the fuzzers' kept inputs.
# tsan: the tests of threads alone, under the thread sanitizer.
# windows: cross-built, run under Wine, and compared with the release build.
# ZEM_ALL=1 runs what takes too long for every day too; scripts/nightly.sh sets it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/steps.sh

preset=${1:-release}
case $preset in
  release | debug | sanitize | tsan | windows) ;;
  *)
    echo "usage: scripts/test.sh [release|debug|sanitize|tsan|windows]" >&2
    exit 2
    ;;
esac

# The tests run side by side; threads that spin while they wait would starve them.
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive}

if [[ $preset == windows ]]; then
  exec bash tests/windows/run.sh
fi

tests=()
if [[ $preset == sanitize && ${ZEM_ALL:-} != 1 ]]; then
  tests=(--label-exclude 'gpu|slow')
fi

packages() {
  bash scripts/bootstrap.sh
  [[ $preset != tsan && $preset != sanitize ]] || bash scripts/bootstrap.sh clang
}

step "packages" packages
step "configure" cmake --preset "$preset" ${CI:+-DZEM_WARNINGS_AS_ERRORS=ON}
step "build" cmake --build --preset "$preset"
step "tests" ctest --preset "$preset" --parallel "$(nproc)" "${tests[@]}"
steps_table
