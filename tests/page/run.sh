#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Tests the page in headless Chromium against a mock server and against the real one, and the parts
# that need no browser. Needs Node 20 or later, npm with its registry, and the package chromium; the
# real server is that of build/release, or of the build that ZEM_BUILD names.
#   tests/page/run.sh                        all tests
#   SHOTS=FOLDER tests/page/run.sh           and leaves pictures of the page in FOLDER
#   tests/page/run.sh --test-name-pattern=X  the tests with X in their name
# Exit status 77: left out, with the reason.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

for program in node npm; do
  if ! command -v "$program" >/dev/null; then
    echo "page tests: left out, $program is missing" >&2
    exit 77
  fi
done
[[ -d node_modules ]] || npm ci --no-audit --no-fund
node --test "$@" unit.test.mjs page.test.mjs server.test.mjs
