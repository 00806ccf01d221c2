#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Holds the text library against programs that others wrote: tokenizer and schema validator
# from npm, and the published chat template run by Jinja.
#   tests/clients/compare.sh [BUILD]   a build with its tests, build/release by default
# Needs Node.js, npm with its registry, and Debian's python3-jinja2.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
build=$(realpath "${1:-build/release}")

for client in tokenizer ajv; do
  (cd "tests/clients/$client" && npm ci --ignore-scripts --no-audit --no-fund)
done
node tests/clients/tokenizer/compare.mjs "$build/tests/encode_lines" 10000
node tests/clients/ajv/compare.mjs "$build/tests/constrain_lines" 300
python3 -B tests/clients/chat/compare.py "$build/tests/render_lines" 10000
