#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What each type and each arithmetic costs in quality, as a table (docs/quality.md).
#   scripts/quality.sh                      of the demo model, with the rates of its replies
#   scripts/quality.sh MODEL_FOLDER TEXT    of another model: the folder of a checkpoint, and a text
#                                           that it was not trained on, some 10,000 words
# Another model needs disk space for two files: its weights as bf16, against which all types are
# measured, and one type at a time. They go to a folder under TMPDIR, and are removed. Each row
# reads the text twice: minutes for a small model, hours for a large one and a long text.
set -euo pipefail

if (($# == 1 || $# > 2)); then
  echo "usage: scripts/quality.sh [MODEL_FOLDER TEXT]" >&2
  exit 2
fi
if (($# == 2)); then
  folder=$(realpath -- "$1") text=$(realpath -- "$2")
  [[ -f $folder/config.json ]] || { echo "$1: has no config.json; is it the folder of a checkpoint?" >&2; exit 1; }
  [[ -f $text ]] || { echo "$2: no such file" >&2; exit 1; }
fi
cd "$(dirname "${BASH_SOURCE[0]}")/.."
bash scripts/bootstrap.sh >&2
[[ -f build/release/CMakeCache.txt ]] || cmake --preset release >&2
cmake --build --preset release --target zem behaviour >&2
if (($# == 2)); then
  exec python3 scripts/quality_table.py --reference bf16 "$folder" "$text"
fi
exec python3 scripts/quality_table.py --cases demo/cases.jsonl demo/pip demo/held_out.txt
