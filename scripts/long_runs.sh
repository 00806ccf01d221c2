#!/usr/bin/env bash
# 2,000 sessions one after the other, with what they took and what memory they held.
# Some minutes.
#   scripts/long_runs.sh [CYCLES]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

export ZEM_LONG_CYCLES=${1:-2000} ZEM_NO_VULKAN=1

bash scripts/bootstrap.sh
cmake --preset release
cmake --build --preset release --target long_runs_test
exec build/release/tests/long_runs_test
