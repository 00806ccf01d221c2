#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# From a fresh checkout to a reply: installs what is missing, builds the tool, and talks to the
# small model that travels with the sources. demo/README.md says what it knows.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '\n== %s\n' "$*"; }

say "Packages and build"
bash scripts/bootstrap.sh
cmake --preset release
cmake --build --preset release --target zem

zem=build/release/bin/zem
model=demo/demo.zem

ask() {
  say "$1"
  shift
  "$zem" run -m "$model" --temp 0 "$@"
  echo
}

ask "A greeting: Hello!" --think off -p "Hello!"
ask "A question: What is 27 + 45?" --think off -p "What is 27 + 45?"
ask "A story: Tell me a story about a fox." --think off -p "Tell me a story about a fox."
ask "With thinking: What is 34 + 58?" --think on --think-show on -p "What is 34 + 58?"
ask "With tools: What is the weather in Paris?" --think off --tools demo/tools.json \
  -p "What is the weather in Paris?"

if [[ -t 0 && -t 1 ]]; then
  say "A chat (/help for commands, /quit to leave)"
  exec "$zem" chat -m "$model" --think off
fi
