#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the example programs of libzem on a small model.
#   tests/libzem/examples.sh PROGRAMS MODEL
set -euo pipefail
programs=$1
model=$2
sources=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../examples" && pwd)

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

fail() {
  echo "examples.sh: $*" >&2
  exit 1
}

# status_of COMMAND ...: its exit status, with what it wrote in out.txt and err.txt.
status_of() {
  local status=0
  "$@" >"$folder/out.txt" 2>"$folder/err.txt" || status=$?
  echo "$status"
}

# try NAME COMMAND ...: the example streams a reply, and tells what is wrong.
try() {
  local name=$1
  shift
  [[ $(status_of "$@" "$model" "Once upon a time") == 0 ]] || fail "$name: $(<"$folder/err.txt")"
  [[ -s $folder/out.txt ]] || fail "$name wrote nothing"
  [[ $(status_of "$@" "$folder/missing.zem" "Once") == 1 ]] || fail "$name: a missing model was taken"
  grep -q "missing.zem: No such file" "$folder/err.txt" || fail "$name: $(<"$folder/err.txt")"
  [[ $(status_of "$@" "$model") != 0 ]] || fail "$name: missing arguments were taken"
  grep -q usage "$folder/err.txt" || fail "$name: $(<"$folder/err.txt")"
}

try engine_c "$programs/engine_c"
try engine_cpp "$programs/engine_cpp"
if command -v python3 >/dev/null; then
  try engine_python python3 "$sources/engine_python/chat.py"
fi
