#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Pages of the public headers, in build/apidocs/index.html. Fails on anything public
# without a comment, and on any comment that doxygen does not understand.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

if ! command -v doxygen >/dev/null; then
  echo "apidocs.sh: doxygen is missing; scripts/bootstrap.sh installs it" >&2
  exit 1
fi
rm -rf build/apidocs
mkdir -p build/apidocs
doxygen docs/Doxyfile
