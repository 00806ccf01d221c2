#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks what deploy/ has: two servers behind HAProxy, of which one is killed while it answers and
# the other is told to end; the metrics by Prometheus' own checks; the unit by those of systemd.
#   tests/deploy/run.sh [BUILD] [TEST ...]   a build with its tests, build/release by default; a
#                                            test is a name such as Proxy.test_both_down
# Exits with 77 and a reason where HAProxy or promtool is missing: scripts/bootstrap.sh deploy
# installs them.
set -euo pipefail
folder=$(dirname "${BASH_SOURCE[0]}")
ZEM_BUILD=$(realpath "${1:-$folder/../../build/release}")
export ZEM_BUILD
cd "$folder"
PATH=$PATH:/usr/sbin

for program in haproxy promtool; do
  if ! command -v "$program" >/dev/null; then
    echo "deploy tests: left out, $program is missing; scripts/bootstrap.sh deploy installs it" >&2
    exit 77
  fi
done
export OMP_WAIT_POLICY=passive
exec python3 -B deploy_test.py --verbose "${@:2}"
