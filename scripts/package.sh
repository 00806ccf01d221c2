#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds a package and says where it lies.
#   scripts/package.sh            a .deb for Debian 12 and what descends from it
#   scripts/package.sh windows    a .zip with what a Windows machine needs
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=${1:-release}
case $preset in
  release)
    bash scripts/bootstrap.sh
    targets=(zem libzem qwen35_vulkan_plugin kiv qwen35 qwen35gpu pages)
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
cmake --build --preset "$preset" --target "${targets[@]}"
rm -rf "build/$preset/packages"
(cd "build/$preset" && cpack --config CPackConfig.cmake)
rm -rf "build/$preset/packages/_CPack_Packages"
ls -l "build/$preset/packages"
