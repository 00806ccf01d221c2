#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Layout (clang-format) of every source, which folder includes which, names that would collide,
# lint (clang-tidy) of the sources that changed, and the comments of the public headers (doxygen). Needs a configured
# release build.
#   scripts/check.sh [BASE]    lints what changed since the commit BASE; by default since the
#                              last commit that is a day older than the newest
#   scripts/check.sh --all     lints every source, with Clang's analyser too
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/changed.sh

build=build/release
# What only Windows compiles is checked where it is built, by tests/windows/run.sh.
linted_folders=('src/*.cpp' 'plugins/*.cpp' 'tools/*.cpp' 'engine/*.cpp' 'libzem/*.cpp' 'server/*.cpp'
  ':!*_windows.cpp' ':!tools/zem/console/windows')

mapfile -t sources < <(git ls-files '*.cpp' '*.c' '*.h')
mapfile -t linted < <(changed_files "${1:-}" "${linted_folders[@]}")
# The analyser takes half of the time.
checks=('--checks=-clang-analyzer-*')
[[ ${1:-} != --all ]] || checks=()

echo "check.sh: layout of ${#sources[@]} files"
clang-format-14 --dry-run --Werror "${sources[@]}"

echo "check.sh: includes against docs/architecture.md"
python3 scripts/check_includes.py

echo "check.sh: names of functions of one file"
python3 scripts/check_names.py "$build"

echo "check.sh: lint of ${#linted[@]} files"
if ((${#linted[@]} > 0)); then
  python3 scripts/single_sources.py "$build" "$build/lint"
  printf '%s\0' "${linted[@]}" |
    xargs -0 -n 1 -P "$(nproc)" clang-tidy-14 -p "$build/lint" --quiet "${checks[@]}" --extra-arg=-Wno-unknown-warning-option
fi

echo "check.sh: comments of the public headers"
bash scripts/apidocs.sh
