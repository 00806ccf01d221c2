#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Does the check of libzem's interface find what breaks programs, and let pass what does not?
#   tests/libzem/abi/check_test.sh CHECK      CHECK: libzem/abi/abi.sh
set -euo pipefail
check=$1
source=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/library.c

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

fail() {
  echo "check_test.sh: $*" >&2
  cat report.txt >&2
  exit 1
}

# build [CHANGE]: library.so, with the change.
build() {
  rm -f library.so
  cc -std=c11 -g -fPIC -shared -fvisibility=hidden ${1:+-D$1} "$source" -o library.so ||
    fail "${1:-the library} does not compile"
}

# verdict [CHANGE]: the check's exit status, with what it printed in report.txt.
verdict() {
  local status=0
  build "$@" || exit 1
  "$check" check library.so first.abi >report.txt 2>&1 || status=$?
  echo "$status"
}

build
"$check" describe library.so first.abi
[[ $(verdict) == 0 && ! -s report.txt ]] || fail "the same library is refused, or spoken of"

for change in A_FUNCTION_GOES A_SIGNATURE_CHANGES A_CALLBACK_CHANGES A_FIELD_IS_INSERTED FIELDS_SWAP \
  A_FIELD_CHANGES_ITS_TYPE A_FIELD_GOES A_FIELD_IS_APPENDED A_RECORD_WITHOUT_SIZE_GROWS A_VALUE_CHANGES \
  A_VALUE_GOES; do
  [[ $(verdict $change) == 1 ]] || fail "$change is taken"
  grep -q "programs .* break" report.txt || fail "$change: no reason is given"
done

for change in A_FUNCTION_IS_ADDED A_VALUE_IS_ADDED; do
  [[ $(verdict $change) == 0 ]] || fail "$change is refused"
  grep -q "renew the description" report.txt || fail "$change: nothing is said of the description"
done

strip --strip-debug library.so
! "$check" check library.so first.abi >report.txt 2>&1 || fail "a library without types is taken"
