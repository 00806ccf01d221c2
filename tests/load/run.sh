#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# 64 clients at once of a server with a tiny model, half of which leave in the middle of their
# answers: every answer that is read is the right one, nothing is lost, memory does not grow, and
# the server stays awake.
#   tests/load/run.sh [MINUTES [BUILD]]   5 minutes; a build with its tests, build/release
# Needs Python alone.
set -euo pipefail
sources=$(dirname "${BASH_SOURCE[0]}")
build=$(realpath "${2:-$sources/../../build/release}")

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
"$build/tests/libzem_write_model" "$folder/tiny.zem"
OMP_WAIT_POLICY=passive python3 -B "$sources/load.py" "$build/bin/zem" "$folder/tiny.zem" "${1:-5}"
