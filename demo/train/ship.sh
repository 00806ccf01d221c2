#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes demo/pip and demo/demo.zem of what train.py has saved, holds the engine against
# PyTorch, and counts how many replies are right.
#   demo/train/ship.sh FOLDER
set -euo pipefail
folder=$(realpath -- "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
zem=build/release/bin/zem
python=${PYTHON:-/usr/bin/python3}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
template=tests/data/chat/qwen3.5-4b.jinja
# A training that goes on may write a newer one meanwhile.
cp "$folder/checkpoint.pt" "$folder/tokenizer.json" "$folder/held_out.jsonl" "$work"
"$python" demo/train/export.py "$work" "$template" "$work/whole" F32
"$zem" convert "$work/whole" -o "$work/f32.zem" --type f32 >/dev/null
"$python" demo/train/check_engine.py "$zem" "$work" "$work/f32.zem"
"$python" demo/train/export.py "$work" "$template" demo/pip F16
"$zem" convert demo/pip -o demo/demo.zem --type q8_0 --force
# Steps that were done again after a stop count once.
for curve in loss held_out; do
  tac "$folder/$curve.tsv" | awk '!seen[$1]++' | tac >"demo/train/$curve.tsv"
done
build/release/demo/behaviour demo/demo.zem demo/cases.jsonl
