#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# 2,000 sessions one after the other, and a conversation of 8,192 positions, with what
# they took and what memory they held.
#   scripts/long_runs.sh [CYCLES [POSITIONS]]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

export ZEM_LONG_CYCLES=${1:-2000} ZEM_LONG_POSITIONS=${2:-8192} ZEM_NO_VULKAN=1

bash scripts/bootstrap.sh
cmake --preset release
cmake --build --preset release --target long_runs_test
exec build/release/tests/long_runs_test
