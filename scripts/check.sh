#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Layout (clang-format) of every source, which folder includes which, lint (clang-tidy) of the
# sources that changed, and the comments of the public headers (doxygen). Needs a configured
# release build.
#   scripts/check.sh [BASE]    lints what changed since the commit BASE; by default since the
#                              last commit that is a day older than the newest
#   scripts/check.sh --all     lints every source
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build=build/release
# What only Windows compiles is checked where it is built, by tests/windows/run.sh.
linted_folders=('src/*.cpp' 'plugins/*.cpp' 'tools/*.cpp' 'engine/*.cpp'
  ':!*_windows.cpp' ':!tools/zem/console/windows')

a_day_before_head() {
  git rev-list -1 --before="$(($(git log -1 --format=%ct) - 86400))" HEAD
}

mapfile -t sources < <(git ls-files '*.cpp' '*.c' '*.h')
base=${1:-$(a_day_before_head)}
if [[ $base == --all || -z $base ]]; then
  mapfile -t linted < <(git ls-files "${linted_folders[@]}")
else
  mapfile -t linted < <(git diff --name-only -M100% --diff-filter=AMT "$base" -- "${linted_folders[@]}")
fi

echo "check.sh: layout of ${#sources[@]} files"
clang-format-14 --dry-run --Werror "${sources[@]}"

echo "check.sh: includes against docs/architecture.md"
python3 scripts/check_includes.py

echo "check.sh: lint of ${#linted[@]} files"
if ((${#linted[@]} > 0)); then
  printf '%s\0' "${linted[@]}" |
    xargs -0 -n 1 -P "$(nproc)" clang-tidy-14 -p "$build" --quiet --extra-arg=-Wno-unknown-warning-option
fi

echo "check.sh: comments of the public headers"
bash scripts/apidocs.sh
