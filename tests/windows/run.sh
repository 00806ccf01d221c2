#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds for Windows and tests what came of it under Wine: the tests of what differs between
# systems, and the same bits as the build for Linux. With ZEM_ALL=1 every test, the tool through the
# tests of the command line, and the server. Installs what is missing; scripts/test.sh windows
# calls this.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
source scripts/changed.sh
source scripts/steps.sh

export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive} CI=${CI:-}
# No device is expected under Wine, and other tests are skipped.
unset ZEM_REQUIRE_GPU ZEM_EXPECTED_SKIPS

linux_targets=(zem qwen35_vulkan_plugin)
windows_targets=(zem qwen35_vulkan_plugin compat_test plugin_test)
tests=(--tests-regex '^(compat_test|plugin_test)')
if [[ ${ZEM_ALL:-} == 1 ]]; then
  linux_targets+=(cli_test libzem_write_model)
  windows_targets=(all)
  tests=(--label-exclude slow)
fi

linux_build() {
  cmake --preset release ${CI:+-DZEM_WARNINGS_AS_ERRORS=ON}
  cmake --build --preset release --target "${linux_targets[@]}"
}

cross_build() {
  cmake --preset windows ${CI:+-DZEM_WARNINGS_AS_ERRORS=ON}
  cmake --build --preset windows --target "${windows_targets[@]}"
}

lint() {
  local headers base= checks=('--checks=-clang-analyzer-*')
  if [[ ${ZEM_ALL:-} == 1 ]]; then
    base=--all
    checks=()
  fi
  headers=$(x86_64-w64-mingw32-g++-posix -print-file-name=include)/c++
  changed_files "$base" 'src/*_windows.cpp' 'tools/zem/console/windows/*.cpp' |
    xargs -P "$(nproc)" -I{} clang-tidy-14 --quiet "${checks[@]}" {} -- \
      --target=x86_64-w64-mingw32 -std=c++20 -isystem "$headers" \
      -isystem "$headers/x86_64-w64-mingw32" -isystem build/windows/host-headers \
      -Iinclude -Isrc -Itools/zem \
      -D_FILE_OFFSET_BITS=64 -D__USE_MINGW_ANSI_STDIO=1 -DNOMINMAX -DWIN32_LEAN_AND_MEAN
}

# The first start writes Wine's own folder. The command processor that waits for its
# input keeps Wine's server and services up: to start them takes longer than most tests,
# and as children of a test they would hold its pipes open.
start_wine() {
  wine=$(sed -n 's/^WINE:FILEPATH=//p' build/windows/CMakeCache.txt)
  if [[ ! -x $wine ]]; then
    echo "tests/windows/run.sh: no Wine to run the tests with; is the package wine64 installed?" >&2
    exit 1
  fi
  export WINEPREFIX=$PWD/build/windows/wine WINEDEBUG=-all
  "$wine" cmd /c ver
  rm -f "$WINEPREFIX/input" # of an earlier run
  mkfifo "$WINEPREFIX/input"
  "$wine" cmd <>"$WINEPREFIX/input" >/dev/null 2>&1 &
  trap '"$wine" wineboot --kill >/dev/null 2>&1 || true' EXIT
}

# Threads meet by way of Wine's server, which takes several times as long as small
# models do: where a test does not ask for a team, it has none.
unit_tests() {
  OMP_NUM_THREADS=1 ctest --preset windows --parallel "$(nproc)" "${tests[@]}"
}

# A sixteenth: that these hold does not depend on the system, and here they are slow.
slow_tests() {
  OMP_NUM_THREADS=1 GTEST_TOTAL_SHARDS=16 GTEST_SHARD_INDEX=1 \
    ctest --preset windows --parallel "$(nproc)" --label-regex slow
}

command_line() {
  ZEM_TEST_WINDOWS_BUILD=$PWD/build/windows build/release/tests/cli_test --gtest_brief=1
}

# Programs that use libzem.dll, which lies beside them as on a Windows machine.
library() {
  local model=build/windows/chat.zem program
  build/release/tests/libzem_write_model "$model"
  cp build/windows/bin/libzem.dll build/windows/bin/examples
  for program in engine_c engine_cpp; do
    echo "$program"
    "$wine" "build/windows/bin/examples/$program.exe" "$model" "Hello" >/dev/null
  done
}

step "packages" bash scripts/bootstrap.sh windows
step "the build for Linux that Windows is compared with" linux_build
step "cross build" cross_build
step "lint of what only Windows compiles" lint
step "Wine" start_wine
step "tests" unit_tests
if [[ ${ZEM_ALL:-} == 1 ]]; then
  step "slow tests" slow_tests
  step "the command line" command_line
  step "the server" python3 -B tests/windows/serve_same_as_linux.py build/release build/windows
  step "libzem" library
fi
step "the same bits as on Linux" bash tests/windows/same_as_linux.sh build/release build/windows
steps_table
