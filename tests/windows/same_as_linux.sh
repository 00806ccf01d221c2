#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the tool of a Windows build under Wine beside that of a build for Linux, and
# compares what they compute and write, byte for byte: models, tokens, completions and
# every hidden state (QWEN35_HID_DUMP), for each instruction set that this processor
# has, and for one and two threads.
#   tests/windows/same_as_linux.sh LINUX_BUILD WINDOWS_BUILD
set -euo pipefail

linux=$(realpath "$1")/bin/zem
windows=$(realpath "$2")/bin/zem # runs zem.exe under Wine

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

export ZEM_NO_VULKAN=1 OMP_WAIT_POLICY=passive LC_ALL=C.UTF-8
compared=0

# same NAME: what the two builds left in l/NAME and w/NAME.
same() {
  if ! cmp "l/$1" "w/$1"; then
    echo "same_as_linux.sh: $1 differs" >&2
    exit 1
  fi
  compared=$((compared + 1))
}

# both NAME ARGUMENT ...: runs both, each in its folder; standard output is compared.
both() {
  local name=$1
  shift
  (cd l && "$linux" "$@" >"$name")
  (cd w && "$windows" "$@" >"$name")
  same "$name"
}

mkdir l w
name='modèle 模型 😀.zem' # beyond ASCII, and beyond 16 bits
both nothing make-demo "$name"
same "$name"
both q6.out make-demo --type q6_k --seed 7 q6.zem
same q6.zem
both info info --json --tensors "$name"
both tokens tokenize --json -m "$name" -p 'Zwölf Boxkämpfer, 東京! 😀 *?"\ end\'
printf 'Es war einmal,\r\nein Zug nach 東京\n' | tee l/prompt.txt >w/prompt.txt
both tokens-of-file tokenize --ids -m "$name" -f prompt.txt

# Both print one line for a level that the processor lacks, and take the best.
for level in baseline avx2 avx512; do
  if [[ $level != baseline ]] && ! grep -qwE "$level|${level}f" /proc/cpuinfo; then
    echo "same_as_linux.sh: SKIPPED level $level: this processor does not have it"
    continue
  fi
  for threads in 1 2; do
    run="$level-$threads"
    export QWEN35_CPU=$level QWEN35_HID_DUMP="états $run.bin"
    both "text-$run" plugin run -m "$name" -t "$threads" -p 'The river' 2>"errors"
    same "états $run.bin"
    unset QWEN35_HID_DUMP
  done
done
unset QWEN35_CPU
if [[ ! -s l/états\ baseline-1.bin ]]; then
  echo "same_as_linux.sh: no hidden states were written" >&2
  exit 1
fi
both sampled plugin run -m q6.zem -t 2 -p 'Hällo 東京' --temp 0.8 --top-k 40 --top-p 0.9 -s 5 2>"errors"

echo "same_as_linux.sh: $compared files are the same, byte for byte"
