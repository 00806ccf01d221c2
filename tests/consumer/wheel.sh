#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Python wheel into an environment of its own, without a network, and uses it there:
# what it contains, a chat, and what is left when it was removed.
#   tests/consumer/wheel.sh WHEEL MODEL [PYTHON]
set -euo pipefail
wheel=$(realpath "$1")
model=$(realpath "$2")
python=${3:-/usr/bin/python3}

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
unset ZEM_LIBRARY PYTHONPATH PYTHONDONTWRITEBYTECODE

say() { printf 'wheel.sh: %s\n' "$*"; }
fail() {
  say "$*" >&2
  exit 1
}

[[ $wheel == *-py3-none-linux_x86_64.whl ]] || fail "$wheel: another name than the platform's"
"$python" -m zipfile -e "$wheel" contents
others=$(cd contents && find . -type f ! -path './zem/*.py' ! -path './zem-*.dist-info/*')
[[ $(sort <<<"$others") == $'./zem/libzem.so.1\n./zem/py.typed' ]] || fail "it contains $others"
# docs/libzem.md promises that these are enough, and in which versions.
readelf -dW contents/zem/libzem.so.1 | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | sort >needed.txt
grep -vxE 'lib(c|m|gcc_s|gomp|stdc\+\+)\.so\.[0-9]+|ld-linux-x86-64\.so\.2' needed.txt &&
  fail "the library needs others than those"
newest() { readelf -VW contents/zem/libzem.so.1 | grep -oP "Name: $1_\\K[0-9.]+" | sort -V | tail -1; }
printf '%s\n' "$(newest GLIBC)" 2.34 | sort -VC || fail "it needs the C library $(newest GLIBC)"
printf '%s\n' "$(newest GLIBCXX)" 3.4.30 | sort -VC || fail "it needs libstdc++ with $(newest GLIBCXX)"

"$python" -m venv environment
environment/bin/python -m pip install --quiet --no-index "$wheel"
environment/bin/python - "$model" <<'END'
import sys
import zem

assert zem.__file__.startswith(sys.prefix), zem.__file__
assert zem.__version__ == zem.library_version(), (zem.__version__, zem.library_version())
with zem.Model(sys.argv[1], threads=1) as model:
    reply = model.chat([{"role": "user", "content": "Hi"}], max_tokens=8, seed=1,
                       logit_bias={"256": -100, "258": -100})
assert reply.content or reply.reasoning, reply
assert reply.usage.generated_tokens == 8, reply.usage
END
environment/bin/python -m pip uninstall --quiet --yes zem
left=$(find environment -iname '*zem*')
[[ -z $left ]] || fail "after its removal there is $left"
say "$("$python" --version): installed, used and removed"
