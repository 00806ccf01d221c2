#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a build into a folder, moves that, and uses it as other people would: the
# program, its manual page and completions, a project that finds the libraries with
# CMake, the same sources with pkg-config, and the plug-in from C.
#   tests/consumer/check.sh BUILD
set -euo pipefail
sources=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$(realpath "$1")

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
unset ZEM_PLUGIN
export ZEM_NO_VULKAN=1 OMP_WAIT_POLICY=passive LC_ALL=C.UTF-8

say() { printf 'check.sh: %s\n' "$*"; }
fail() {
  say "$*" >&2
  exit 1
}

# same A B: two files with the same bytes, and at least one of them.
same() {
  [[ -s $1 ]] || fail "$1 is empty"
  cmp "$1" "$2" || fail "$1 and $2 differ"
}

say "install, and move what was installed"
cmake --install "$build" --prefix "$folder/first" >"$folder/install.log"
mv "$folder/first" "$folder/moved"
prefix=$folder/moved
libraries=$(dirname "$(dirname "$(find "$prefix" -name zem.pc)")")
if grep -rlF "$build" "$prefix/include" "$libraries/cmake" "$libraries/pkgconfig"; then
  fail "these files name the build folder"
fi
cd "$folder"

say "the program finds its modules"
zem=$prefix/bin/zem
"$zem" --version >version.txt
grep -qF "$(realpath "$libraries")/zem/runtime_qwen35_vulkan.so" version.txt || fail "$(<version.txt)"
"$zem" make-demo demo.zem 2>/dev/null
"$zem" plugin run -m demo.zem -p "The river was" >run.txt 2>/dev/null
truncate -s -1 run.txt # the line feed that ends the tool's output
"$zem" compare demo.zem demo.zem -p "The river was" >compare.txt
ln -s "$zem" link
./link --version | cmp - version.txt || fail "a link to the program finds other modules"

say "the manual page"
page=$prefix/share/man/man1/zem.1
mandoc -T lint -W warning "$page" >lint.txt || fail "$(<lint.txt)"
mandoc -T utf8 "$page" | sed 's/.\x08//g' >page.txt
# commands COMMAND ...: the subcommands that the help lists: its lines of a name and a text.
commands() { "$zem" "$@" --help | sed -n 's/^  \([a-z][a-z-]*\)   *[A-Z].*/\1/p'; }
# in_page COMMAND ...: the manual page has the command, its options and its subcommands.
in_page() {
  local option command
  grep -q "^ *zem $* \[OPTIONS\]" page.txt || fail "no $* in the manual page"
  for option in $("$zem" "$@" --help | grep -o -- '^  -[-a-z,]*' | tr ',' ' '); do
    grep -qE -- "^ +(.*, )?$option( |,|$)" page.txt || fail "no $option of $* in the manual page"
  done
  [[ $1 != plugin || $# -gt 1 ]] || for command in $(commands "$@"); do in_page "$@" "$command"; done
}
for command in $(commands); do in_page "$command"; done

say "completions"
bash "$sources/completions.sh" "$prefix/share"

say "a project that finds it with CMake"
mkdir project
cp "$sources"/{CMakeLists.txt,libraries.cpp,host.c} project
(cd "$prefix/include/zem" && find . -name '*.h' | sort | sed 's|^\./\(.*\)|#include "\1"|') \
  >project/installed_headers.h
cmake -S project -B with-cmake -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" >cmake.log
cmake --build with-cmake >>cmake.log || fail "$(<cmake.log)"
with-cmake/libraries demo.zem "The river was" >libraries.txt
same run.txt libraries.txt
with-cmake/host demo.zem "The river was" >host.txt 2>/dev/null
same run.txt host.txt

say "the same with pkg-config"
export PKG_CONFIG_PATH=$libraries/pkgconfig
mkdir with-pkg-config
# Unquoted: flags are words.
c++ -std=c++20 -O2 project/libraries.cpp $(pkg-config --cflags --libs zem) -o with-pkg-config/libraries
cc -std=c11 -D_DEFAULT_SOURCE -DPLUGIN="\"$(pkg-config --variable=plugin zem)\"" project/host.c \
  $(pkg-config --cflags zem) -ldl -o with-pkg-config/host
with-pkg-config/libraries demo.zem "The river was" >libraries.txt
same run.txt libraries.txt
with-pkg-config/host demo.zem "The river was" >host.txt 2>/dev/null
same run.txt host.txt

say "libzem, from C and C++"
"$build/tests/libzem_write_model" chat.zem
for language in c cpp; do
  program=engine_$language
  cmake -S "$sources/../../examples/$program" -B "$program" -DCMAKE_PREFIX_PATH="$prefix" >cmake.log
  cmake --build "$program" >>cmake.log || fail "$(<cmake.log)"
  "$program/$program" chat.zem "The river was" >"$program.txt" 2>"$program.err" ||
    fail "$program: $(<"$program.err")"
done
[[ -s engine_cpp.txt ]] || fail "engine_cpp wrote nothing"
grep -q "tokens in" engine_c.err || fail "engine_c: $(<engine_c.err)"
cc -std=c11 "$sources/../../examples/engine_c/main.c" $(pkg-config --cflags --libs libzem) -o engine_c/linked
LD_LIBRARY_PATH=$libraries engine_c/linked chat.zem "The river was" >/dev/null 2>engine_c.err ||
  fail "engine_c: $(<engine_c.err)"
say "all of it works"
