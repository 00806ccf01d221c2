#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The interface of libzem as its compiled form has it, and what a later version may change of it.
#   libzem/abi/abi.sh check LIBRARY [DESCRIPTION]      is LIBRARY what the description says?
#   libzem/abi/abi.sh describe LIBRARY [DESCRIPTION]   writes the description
# LIBRARY has debug information. DESCRIPTION is libzem.abi beside this script. A check passes for a
# library with further functions or further values of an enumeration, and says so.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

usage() {
  echo "usage: libzem/abi/abi.sh check|describe LIBRARY [DESCRIPTION]" >&2
  exit 2
}
(($# == 2 || $# == 3)) || usage
library=$2
description=${3:-$here/libzem.abi}
renew="When that is meant,
raise ZEM_API_VERSION and renew the description: cmake --build build/release --target libzem_abi"

if [[ $(readelf -SW "$library") != *.debug_info* ]]; then
  echo "abi.sh: $library has no debug information, which tells the types" >&2
  exit 1
fi

# No folders and no lines of sources, so that every checkout gives the same bytes.
describe() {
  abidw --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --no-architecture \
    --drop-undefined-syms --exported-interfaces-only --type-id-style hash --out-file "$1" "$library"
  sed -i "s| path='.*/| path='|" "$1"
}

# Fails where something differs. 4 and 8 are abidiff's bits for that; anything else is its failure.
compare() {
  local status=0
  abidiff --no-show-locs "$@" "$description" "$found" || status=$?
  ((status & 3 || status > 15)) || return "$status"
  echo "abi.sh: abidiff failed with $status" >&2
  exit 1
}

check() {
  found=$(mktemp --suffix=.abi)
  trap 'rm -f "$found"' EXIT
  describe "$found"
  if ! compare --no-added-syms >&2; then
    cat >&2 <<END
abi.sh: programs that were built with an earlier header break (see above). Of such changes one is
allowed: a field at the end of a record that begins with its struct_size. $renew
END
    exit 1
  fi
  compare --harmless || echo "abi.sh: the interface has grown (see above). $renew"
}

case $1 in
  check) check ;;
  describe) describe "$description" ;;
  *) usage ;;
esac
