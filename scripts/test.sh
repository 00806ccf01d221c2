#!/usr/bin/env bash
# Installs what is missing, builds and runs every test.
#   scripts/test.sh [PRESET]      release (the default), debug, sanitize, tsan or windows
# tsan: the tests of threads alone, under the thread sanitizer.
# windows: cross-built, run under Wine, and compared with the release build.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=${1:-release}
case $preset in
  release | debug | sanitize | tsan | windows) ;;
  *)
    echo "usage: scripts/test.sh [release|debug|sanitize|tsan|windows]" >&2
    exit 2
    ;;
esac

# The tests run side by side; threads that spin while they wait would starve them.
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive}

if [[ $preset == windows ]]; then
  exec bash tests/windows/run.sh
fi

bash scripts/bootstrap.sh
[[ $preset != tsan && $preset != sanitize ]] || bash scripts/bootstrap.sh clang
cmake --preset "$preset" ${CI:+-DZEM_WARNINGS_AS_ERRORS=ON}
cmake --build --preset "$preset"
ctest --preset "$preset" --parallel "$(nproc)"
