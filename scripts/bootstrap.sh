#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that building, testing and checking need. Safe to
# repeat: does nothing when everything is there.
#   scripts/bootstrap.sh            for Linux
#   scripts/bootstrap.sh windows    and for building and testing Windows programs here
#   scripts/bootstrap.sh clang      and for the fuzzers and the sanitizers
#   scripts/bootstrap.sh deploy     and for the tests of deploy/: these packages start services
#   scripts/bootstrap.sh packages   and for Debian packages and the Python wheel
set -euo pipefail

packages=(
  # build
  ca-certificates cmake g++ git ninja-build pkg-config
  glslc libboost1.81-dev libcli11-dev libedit-dev libgomp1 libvulkan-dev libvulkan-volk-dev nlohmann-json3-dev
  # tests and benchmarks
  binutils fish libbenchmark-dev libgmock-dev libgtest-dev libspirv-cross-c-shared-dev mandoc
  mesa-vulkan-drivers python3 python3-jinja2 python3-pytest spirv-tools valgrind vulkan-validationlayers zsh
  # checks
  abigail-tools clang-format-14 clang-tidy-14 doxygen
)

if [[ ${1:-} == windows ]]; then
  packages+=(g++-mingw-w64-x86-64-posix googletest wine wine64)
fi

if [[ ${1:-} == packages ]]; then
  packages+=(dpkg-dev lintian python3-pip python3-setuptools python3-venv python3-wheel)
fi

# Clang brings libFuzzer, and compiles and runs under the address sanitizer in less time
# than GCC. And the thread sanitizer knows of synchronisation what it sees: programs
# that are compiled with it, and of an OpenMP runtime what that tells it.
# GCC's tells nothing, and every barrier would look like a race; Clang's does, through
# the library libarcher.
if [[ ${1:-} == clang ]]; then
  packages+=(clang-14 libclang-rt-14-dev libomp-14-dev llvm-14)
fi

# Debian starts HAProxy, with a configuration that answers nowhere, and Prometheus, on port 9090.
if [[ ${1:-} == deploy ]]; then
  packages+=(haproxy prometheus)
fi

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ $status == "install ok installed" ]] || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
  exit 0
fi

as_root=()
if ((EUID != 0)); then
  if ! command -v sudo >/dev/null; then
    echo "bootstrap.sh: these packages are missing; install them as root:" >&2
    echo "  apt-get install ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi

echo "bootstrap.sh: installing ${missing[*]}" >&2
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
