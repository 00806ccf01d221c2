#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What takes too long for every change: each source compiled by itself, all mutations, all
# failing requests for memory, the tests on a Vulkan device under the sanitizers, the thread
# sanitizer, every test under Wine, the text library, the server and its page against other
# programs, the server under load and behind a proxy, the lint of every file, the fuzzers, long
# runs, and a fresh Debian.
#   scripts/nightly.sh [MINUTES]   minutes for each fuzzer, 5 by default
# Takes hours. Every step runs, whatever became of the one before; the table at the end says
# which failed. The fresh Debian needs root and debootstrap, the other programs npm and its
# registry; they are left out without root, debootstrap or npm.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
export CI=${CI:-true} OMP_WAIT_POLICY=passive
export ZEM_REQUIRE_GPU=1 ZEM_EXPECTED_SKIPS=$PWD/tests/expected_skips.txt

minutes=${1:-5}
table=()
failures=0
step() {
  local name=$1 begin=$SECONDS verdict=passed status=0
  shift
  printf '\n== %s\n' "$name"
  "$@" || status=$?
  if ((status == 77)); then
    verdict="left out"  # the step has said why
  elif ((status != 0)); then
    verdict=FAILED
  fi
  [[ $verdict != FAILED ]] || failures=$((failures + 1))
  table+=("$(printf '%6d s  %s  %s' $((SECONDS - begin)) "$verdict" "$name")")
}

each_source() {
  cmake --preset debug -DZEM_WARNINGS_AS_ERRORS=ON -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON
  cmake --build --preset debug
}

bash scripts/bootstrap.sh
bash scripts/bootstrap.sh clang
bash scripts/bootstrap.sh windows
step "tests, with all mutations and requests" env ZEM_ALL=1 bash scripts/test.sh release
step "each source compiles by itself" each_source
if command -v npm >/dev/null; then
  step "text against other programs" bash tests/clients/compare.sh
  step "the server and other programs" bash tests/clients/server/run.sh
  step "the page in a browser" env ZEM_BUILD="$PWD/build/release" bash tests/page/run.sh
else
  table+=("         left out  text, server and page against other programs (needs Node.js with npm)")
fi
step "the server under load" bash tests/load/run.sh
step "servers behind a proxy" bash tests/deploy/run.sh
step "benchmarks build" cmake --build --preset release --target benchmarks
step "lint of every file" bash scripts/check.sh --all
step "thread sanitizer" bash scripts/test.sh tsan
step "sanitizers, with devices, all mutations and requests" env ZEM_ALL=1 bash scripts/test.sh sanitize
step "Windows, every test" env ZEM_ALL=1 bash scripts/test.sh windows
step "fuzzers, $minutes minutes each" bash scripts/fuzz.sh "$minutes"
step "long runs" bash scripts/long_runs.sh
if ((EUID == 0)) && command -v debootstrap >/dev/null; then
  step "a fresh Debian" bash tests/consumer/fresh_debian.sh
else
  table+=("         left out  a fresh Debian (needs root and debootstrap)")
fi

printf '\n== nightly\n'
printf '%s\n' "${table[@]}" "$(printf '%6d s  in all, %d failed' "$SECONDS" "$failures")"
((failures == 0))
