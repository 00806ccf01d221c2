#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the fuzzers with clang and runs each on its corpus.
#   scripts/fuzz.sh [MINUTES] [TARGET...]   a minute each (0.5 is possible), all targets
# New inputs stay in build/fuzz/found/TARGET for the next run. What made a target crash,
# hang for 25 seconds or take over 2 GB is kept in build/fuzz/crashes/TARGET, and the
# script fails. JOBS says how many targets run side by side: as many as processors.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

minutes=${1:-1}
if [[ ! $minutes =~ ^[0-9]*\.?[0-9]+$ ]]; then
  echo "usage: scripts/fuzz.sh [MINUTES] [TARGET...]" >&2
  exit 2
fi
shift || true
seconds=$(awk -v m="$minutes" 'BEGIN { s = int(m * 60); print s < 1 ? 1 : s }')
targets=("$@")
if ((${#targets[@]} == 0)); then
  mapfile -t targets < <(cd fuzz && ls -- *_fuzz.cpp | sed 's/_fuzz\.cpp$//')
fi
for target in "${targets[@]}"; do
  if [[ ! -f fuzz/${target}_fuzz.cpp ]]; then
    echo "fuzz.sh: there is no fuzz/${target}_fuzz.cpp" >&2
    exit 2
  fi
done

bash scripts/bootstrap.sh clang
cmake --preset fuzz ${CI:+-DZEM_WARNINGS_AS_ERRORS=ON}
cmake --build --preset fuzz --target "${targets[@]/#/fuzz_}"

build=build/fuzz
mkdir -p "$build/log"
jobs=${JOBS:-$(nproc)} # which counts OMP_NUM_THREADS, so before that is set
symbolizer=$(command -v llvm-symbolizer-14 || true)
export ZEM_NO_VULKAN=1 OMP_NUM_THREADS=1
export ASAN_OPTIONS=${symbolizer:+external_symbolizer_path=$symbolizer:}allocator_may_return_null=0
export UBSAN_OPTIONS=print_stacktrace=1

dictionary_of() {
  case $1 in
    config | text_tokenizer | tokenizer_json | safetensors) echo fuzz/dict/json.dict ;;
    tokenizer_section | container) echo fuzz/dict/container.dict ;;
    *) echo "fuzz/dict/$1.dict" ;;
  esac
}

# Sessions and plans say much on the standard error stream, which mask 2 discards; the
# fuzzer's own lines and the sanitizers' reports go round it.
run_target() {
  local target=$1 dictionary
  dictionary=$(dictionary_of "$target")
  local found=$build/found/$target crashes=$build/crashes/$target
  mkdir -p "$found" "$crashes"
  local options=()
  [[ $target == hint || $target == session ]] && options+=(-close_fd_mask=2)
  [[ -d fuzz/crashes/$target ]] && options+=("fuzz/crashes/$target")
  [[ -f $dictionary ]] && options+=("-dict=$dictionary")
  "$build/fuzz/fuzz_$target" "$found" "fuzz/corpus/$target" ${options[@]+"${options[@]}"} \
    -max_total_time="$seconds" -timeout=25 -rss_limit_mb=4096 -malloc_limit_mb=2048 \
    -max_len=4096 -print_final_stats=1 -artifact_prefix="$crashes/" \
    >"$build/log/$target.log" 2>&1 || echo "exit status $?" >>"$build/log/$target.log"
}

for target in "${targets[@]}"; do
  while (($(jobs -rp | wc -l) >= jobs)); do wait -n || true; done
  run_target "$target" &
done
wait

failed=()
printf '%-18s %12s %10s %10s %9s %8s\n' target executions 'per second' coverage inputs findings
for target in "${targets[@]}"; do
  log=$build/log/$target.log
  stat() { sed -n "s/^stat::$1: *//p" "$log" | tail -n 1; }
  coverage=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' "$log" | tail -n 1)
  inputs=$(find "$build/found/$target" "fuzz/corpus/$target" -type f | wc -l)
  findings=$(sed -n 's/.*Test unit written to //p' "$log" | wc -l)
  if grep -q '^exit status' "$log"; then
    failed+=("$target")
    ((findings > 0)) || findings=1
  fi
  printf '%-18s %12s %10s %10s %9s %8s\n' "$target" "$(stat number_of_executed_units)" \
    "$(stat average_exec_per_sec)" "${coverage:-?}" "$inputs" "$findings"
done

for target in ${failed[@]+"${failed[@]}"}; do
  echo
  echo "fuzz.sh: $target failed; its report is $build/log/$target.log"
  sed -n 's/.*Test unit written to /  reproducer: /p' "$build/log/$target.log"
  grep -m 3 -E '^fuzz: |ERROR: |runtime error: |SUMMARY: ' "$build/log/$target.log" | sed 's/^/  /' || true
  echo "  again: $build/fuzz/fuzz_$target REPRODUCER"
done
((${#failed[@]} == 0))
