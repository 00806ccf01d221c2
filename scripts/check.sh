#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Layout (clang-format) of every source, which folder includes which, names that would collide,
# lint (clang-tidy) of the sources that changed, and the comments of the public headers (doxygen).
# Needs a configured release build.
#   scripts/check.sh [BASE]    lints what changed since the commit BASE, and what is compiled
#                              together with it; by default since the last commit that is a day
#                              older than the newest
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

echo "check.sh: layout of ${#sources[@]} files"
clang-format-14 --dry-run --Werror "${sources[@]}"

echo "check.sh: includes against docs/architecture.md"
python3 scripts/check_includes.py

echo "check.sh: names of functions of one file"
python3 scripts/check_names.py "$build"

echo "check.sh: lint of ${#linted[@]} files"
lint() {
  xargs -d '\n' -n 1 -P "$(nproc)" clang-tidy-14 --quiet --extra-arg=-Wno-unknown-warning-option "$@"
}
if [[ ${1:-} == --all ]]; then
  python3 scripts/single_sources.py "$build" "$build/lint"
  printf '%s\n' "${linted[@]}" | lint -p "$build/lint"
elif ((${#linted[@]} > 0)); then
  # As the build compiles them, several at once: they share most headers. The analyser would take
  # half of the time.
  python3 scripts/lint_units.py "$build" "${linted[@]}" |
    lint -p "$build" --checks=-clang-analyzer-*,-bugprone-suspicious-include
fi

echo "check.sh: comments of the public headers"
bash scripts/apidocs.sh
