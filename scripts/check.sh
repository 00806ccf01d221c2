#!/usr/bin/env bash
# Layout (clang-format) and lint (clang-tidy) of every source, and the comments of the
# public headers (doxygen). Needs a configured release build.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build=build/release
mapfile -t sources < <(git ls-files '*.cpp' '*.c' '*.h')
# What only Windows compiles is checked where it is built, by tests/windows/run.sh.
mapfile -t linted < <(git ls-files 'src/*.cpp' 'plugins/*.cpp' 'tools/*.cpp' ':!*_windows.cpp' ':!tools/zem/console/windows')

echo "check.sh: layout of ${#sources[@]} files"
clang-format-14 --dry-run --Werror "${sources[@]}"

echo "check.sh: lint of ${#linted[@]} files"
printf '%s\0' "${linted[@]}" |
  xargs -0 -n 1 -P "$(nproc)" clang-tidy-14 -p "$build" --quiet --extra-arg=-Wno-unknown-warning-option

echo "check.sh: comments of the public headers"
bash scripts/apidocs.sh
