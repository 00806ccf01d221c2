#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# From a fresh checkout to a reply: installs what is missing, builds, makes a
# small model with random weights, and talks to it. Random weights make random
# words; the point is that everything runs.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '\n== %s\n' "$*"; }

say "Packages and build"
bash scripts/bootstrap.sh
cmake --preset release
cmake --build --preset release --target zem qwen35_vulkan_plugin

zem=build/release/bin/zem
model=build/release/demo.zem

say "A model with random weights: $model"
"$zem" make-demo --force -o "$model"

say "What the runtime says of it"
"$zem" plugin probe "$model"

say "A completion"
"$zem" run -m "$model" -p "The river was" -n 60

if [[ -t 0 && -t 1 ]]; then
  say "A chat (/help for commands, /quit to leave)"
  exec "$zem" chat -m "$model" -n 60 # random words have no end
fi
