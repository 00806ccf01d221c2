#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Counts the instructions of the kernels and compares them with those recorded
# in ceilings.txt. Unlike a time, a count is the same on a busy machine.
#
#   check_ceilings.sh PROGRAM             compare; 3 % more than recorded fail
#   check_ceilings.sh PROGRAM --record    write what is counted to ceilings.txt
#
# PROGRAM is instruction_counts of a release build by g++ 12: every compiler has
# counts of its own. Only instructions of the program itself count. The C
# library chooses versions of its functions by the processor, so its share would
# differ from machine to machine. Exit status 77: nothing could be counted.
set -euo pipefail

record=${2:-}
if (($# < 1)) || [[ -n $record && $record != --record ]]; then
  echo "usage: check_ceilings.sh PROGRAM [--record]" >&2
  exit 2
fi
program=$(realpath "$1")
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
recorded=$here/ceilings.txt

if ! command -v valgrind >/dev/null; then
  echo "skipped: valgrind is not installed"
  exit 77
fi
if ! grep -qw avx2 /proc/cpuinfo; then
  echo "skipped: this processor has no AVX2, which half of the kernels need"
  exit 77
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Names in full and lines numbered absolutely make the dumps easy to read.
if ! OMP_NUM_THREADS=1 valgrind --tool=callgrind --instr-atstart=no --collect-atstart=no \
  --compress-strings=no --compress-pos=no --combine-dumps=yes \
  --callgrind-out-file="$work/dumps" "$program" 2>"$work/log"; then
  cat "$work/log" >&2
  echo "the kernels did not run under valgrind" >&2
  exit 1
fi

# A cost line belongs to the object last named by ob=. The line after calls= is
# the cost of what was called, which is listed in its own place as well.
awk -v program="$program" '
  /^desc: Trigger: / { trigger = $0; sub(/^desc: Trigger: (Client Request: )?/, "", trigger) }
  /^ob=/ { own = substr($0, 4) == program }
  /^calls=/ { getline; next }
  /^[0-9]/ && own { counts[trigger] += $2 }
  END { for (name in counts) printf "%s %d\n", name, counts[name] }
' "$work/dumps" | LC_ALL=C sort >"$work/counts"

if [[ $record == --record ]]; then
  {
    sed -n '/^#/p' "$recorded"
    cat "$work/counts"
  } >"$work/ceilings"
  cp "$work/ceilings" "$recorded"
  echo "recorded $(wc -l <"$work/counts") kernels in $recorded"
  exit 0
fi

awk -v again="$here/check_ceilings.sh $program --record" '
  NR == FNR { if (!/^#/ && NF == 2) recorded[$1] = $2; next }
  {
    seen[$1] = 1
    if (!($1 in recorded)) {
      printf "FAILED %s: %d instructions, and no ceiling is recorded\n", $1, $2
      failed = 1
      next
    }
    ceiling = int(recorded[$1] * 1.03)
    if ($2 > ceiling) {
      printf "FAILED %s: %d instructions, the ceiling is %d (%d recorded and 3 %%)\n",
        $1, $2, ceiling, recorded[$1]
      failed = 1
    } else {
      printf "ok     %s: %d instructions, the ceiling is %d\n", $1, $2, ceiling
    }
    if ($2 * 1.03 < recorded[$1]) printf "       far below what was recorded: record it again\n"
  }
  END {
    for (name in recorded) {
      if (name in seen) continue
      printf "FAILED %s: recorded, but not counted\n", name
      failed = 1
    }
    if (failed) printf "If the change is meant, record the counts again:\n  %s\n", again
    exit failed
  }
' "$recorded" "$work/counts"
