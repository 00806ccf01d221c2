#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Holds `zem serve` against clients that others wrote, from npm: those of the OpenAI, Anthropic
# and Ollama dialects, two frameworks above them, a parser of event streams and a validator of
# schemas. Two servers with random weights run meanwhile, on free ports of this machine: a quick
# one, and one slow enough to be left, to be full and to run out of time.
#   tests/clients/server/run.sh [BUILD]   a build with its tests, build/release by default
# Exits with 77 and a reason where Node.js or npm is missing.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
build=$(realpath "${1:-../../../build/release}")

left_out() {
  echo "left out: $1" >&2
  exit 77
}
command -v node >/dev/null || left_out "needs Node.js 20"
command -v npm >/dev/null || left_out "needs npm"
version=$(node -p 'process.versions.node.split(".")[0]')
((version >= 20)) || left_out "needs Node.js 20, found $version"
npm ci --ignore-scripts --no-audit --no-fund

folder=$(mktemp -d)
servers=()
clean() {
  local server
  for server in "${servers[@]}"; do
    kill -TERM "$server" 2>/dev/null || true
    kill -TERM "$server" 2>/dev/null || true  # the second one ends replies that run
    wait "$server" 2>/dev/null || true
  done
  rm -rf "$folder"
}
trap clean EXIT

# serve NAME OPTIONS...: starts a server; its address goes to $address.
serve() {
  local name=$1
  shift
  : >"$folder/$name.out"
  "$build/bin/zem" serve --port 0 --metrics --alias model --threads 1 "$@" \
    >"$folder/$name.out" 2>"$folder/$name.err" &
  servers+=($!)
  address=
  for _ in {1..100}; do
    address=$(sed -n 's/^listening on //p' "$folder/$name.out")
    [[ -z $address ]] || return 0
    sleep 0.1
  done
  cat "$folder/$name.err" >&2
  echo "the $name server does not listen" >&2
  return 1
}

export OMP_WAIT_POLICY=passive ZEM_API_KEY=secret
"$build/tests/libzem_write_model" "$folder/quick.zem"
"$build/bin/zem" make-demo "$folder/slow.zem" >/dev/null
serve quick -m "$folder/quick.zem" --sequences 4
export ZEM_QUICK_SERVER=$address
serve slow -m "$folder/slow.zem" --sequences 1 --max-queue 0 --timeout 5 --batch-size 16
export ZEM_SLOW_SERVER=$address

# One file after the other: the slow server answers one client.
if ! node --test --test-concurrency=1 ./*.test.mjs; then
  tail -n 20 "$folder"/*.err >&2
  exit 1
fi
