#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds packages, checks them and says where they lie.
#   scripts/package.sh            .deb files for Debian 12 and what descends from it, and the
#                                 Python wheel
#   scripts/package.sh windows    a .zip with what a Windows machine needs
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=${1:-release}
case $preset in
  release)
    bash scripts/bootstrap.sh packages
    targets=(zem libzem qwen35_vulkan_plugin kiv qwen35 qwen35gpu pages python_wheel libzem_write_model)
    ;;
  windows)
    bash scripts/bootstrap.sh windows
    targets=(zem libzem qwen35_vulkan_plugin)
    ;;
  *)
    echo "usage: scripts/package.sh [windows]" >&2
    exit 2
    ;;
esac

cmake --preset "$preset" ${CI:+-DZEM_WARNINGS_AS_ERRORS=ON}
rm -rf "build/$preset/packages" "build/$preset/wheels"
cmake --build --preset "$preset" --target "${targets[@]}"
if [[ $preset == windows ]]; then
  (cd "build/$preset" && cpack --config CPackConfig.cmake)
  rm -rf "build/$preset/packages/_CPack_Packages"
else
  bash scripts/debian_packages.sh "build/$preset" "build/$preset/packages"
  lintian --fail-on error,warning "build/$preset"/packages/*.deb
  cp "build/$preset"/wheels/zem-*.whl "build/$preset/packages"
  "build/$preset/tests/libzem_write_model" "build/$preset/chat.zem"
  bash tests/consumer/wheel.sh "build/$preset"/packages/zem-*.whl "build/$preset/chat.zem"
fi
ls -l "build/$preset/packages"
