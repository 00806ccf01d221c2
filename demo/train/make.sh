#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Makes the demo model anew, or goes on after a stop: text, vocabulary, training, demo/demo.zem.
#   demo/train/make.sh FOLDER [STEPS]
# FOLDER keeps what has been done. Needs Debian's python3-torch and libopenblas0-pthread (with
# the reference BLAS training takes many times longer) and a build of `zem` and `behaviour`.
set -euo pipefail
mkdir -p -- "$1"
folder=$(realpath -- "$1")
steps=${2:-6000}
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
zem=build/release/bin/zem
template=tests/data/chat/qwen3.5-4b.jinja
python=${PYTHON:-/usr/bin/python3}
export OMP_NUM_THREADS=1 OPENBLAS_NUM_THREADS=1

corpus() {  # NAME STAGE DOCUMENTS SEED
  [[ -f $folder/$1 ]] && return
  "$python" demo/train/corpus.py "$zem" "$template" "$2" "$3" "$4" "$folder/$1.new"
  mv "$folder/$1.new" "$folder/$1"
}

cmake --build --preset release --target zem behaviour
if [[ ! -f $folder/tokenizer.json ]]; then
  corpus vocabulary.jsonl vocabulary 3000 7
  "$python" demo/train/vocabulary.py "$folder/vocabulary.jsonl" 900 "$folder/tokenizer.json"
fi
corpus first.jsonl first 30000 1
corpus second.jsonl second 30000 4
corpus held_out.jsonl second 400 2
"$python" demo/train/cases.py demo/cases.jsonl demo/held_out.txt
train() { "$python" demo/train/train.py --folder "$folder" --steps "$steps" "$@"; }
train --corpus first.jsonl --until 313
train --corpus second.jsonl
bash demo/train/ship.sh "$folder"
