#!/usr/bin/env bash
# Installs what is missing, builds and runs every test.
#   scripts/test.sh [PRESET]      release (the default), debug or sanitize
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=${1:-release}
case $preset in
  release | debug | sanitize) ;;
  *)
    echo "usage: scripts/test.sh [release|debug|sanitize]" >&2
    exit 2
    ;;
esac

# The tests run side by side; threads that spin while they wait would starve them.
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive}

bash scripts/bootstrap.sh
cmake --preset "$preset" ${CI:+-DZEM_WARNINGS_AS_ERRORS=ON}
cmake --build --preset "$preset"
ctest --preset "$preset" --parallel "$(nproc)"
