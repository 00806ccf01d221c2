#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails for a program or module that was built without one of the protections of a
# release, and names it.
#   tests/hardening/check.sh FILE ...
set -euo pipefail
export LC_ALL=C

failures=0
lack() {
  echo "hardening: $file: $*" >&2
  failures=$((failures + 1))
}

# has FILE PATTERN: the pattern occurs. All of the input is read, for a command that
# is cut off would count as failed.
has() { grep -cE -- "$2" <<<"$1" >/dev/null; }

for file in "$@"; do
  header=$(readelf -hW "$file")
  segments=$(readelf -lW "$file")
  dynamic=$(readelf -dW "$file")
  symbols=$(readelf --dyn-syms -W "$file")
  has "$header" 'Type: +DYN' || lack "it is loaded at a fixed address"
  [[ $file == *.so* ]] || has "$dynamic" 'FLAGS_1.* PIE' || lack "it is no position-independent program"
  has "$segments" 'GNU_RELRO' || lack "its relocations stay writable (no RELRO)"
  has "$dynamic" 'BIND_NOW|FLAGS_1.* NOW' || lack "its functions are bound lazily"
  has "$segments" 'GNU_STACK.* RW ' || lack "its stack can be executed"
  ! has "$segments" 'LOAD.* RWE ' || lack "a segment can be written and executed"
  has "$symbols" '__stack_chk_fail' || lack "no stack protector"
  has "$symbols" '__(memcpy|memmove|memset|fprintf|snprintf|vsnprintf|strncpy|strcpy|read)_chk' ||
    lack "no checked functions of the C library (_FORTIFY_SOURCE)"
  ! has "$dynamic" 'RPATH|RUNPATH' || lack "it looks for libraries in a folder of the build"
done
((failures == 0))
echo "hardening: $# files have every protection"
