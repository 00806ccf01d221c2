#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages into a new, minimal Debian 12, uses them there, and removes them.
# Needs root, debootstrap and Debian's archive; takes some minutes.
#   tests/consumer/clean_root.sh FOLDER    where scripts/package.sh left the packages
set -euo pipefail
folder=$(realpath "$1")

root=$(mktemp -d)
trap 'umount "$root/proc" 2>/dev/null || true; rm -rf "$root"' EXIT

say() { printf 'clean_root.sh: %s\n' "$*"; }
in_root() { chroot "$root" env LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive bash -euc "$1"; }
# Only what the packages need comes with them.
install_in_root() {
  in_root "cd /packages && apt-get install -y -qq --no-install-recommends $* >/dev/null"
}
# The files of the system, but for those that apt and dpkg keep for themselves.
files_in_root() {
  in_root 'find / -xdev -not -path "/proc/*" -not -path "/var/*" -not -path "/tmp/*" \
    -not -path "/packages/*" -not -path "/etc/ld.so.cache" | sort'
}

debootstrap --variant=minbase bookworm "$root"
mkdir "$root/packages"
cp "$folder"/*.deb "$root/packages"
cp "$folder/../chat.zem" "$root/packages" # for libzem, whose chats need a tokenizer
cp /etc/resolv.conf "$root/etc/resolv.conf"
cp /etc/apt/apt.conf.d/*prox* "$root/etc/apt/apt.conf.d/" 2>/dev/null || true
mount -t proc proc "$root/proc"
in_root 'apt-get update -qq'
# What the packages need stays when they go, and would look like something left behind.
install_in_root libedit2 libgomp1 libstdc++6 python3 g++ cmake make pkg-config libc6-dev
files_in_root >"$root/packages/before.txt"

say "the tool"
install_in_root ./zem_*.deb
in_root 'cd /tmp
  zem --version
  zem make-demo demo.zem
  zem info demo.zem >/dev/null
  zem run -m demo.zem -p "The river was" -n 8
  zem plugin run -m demo.zem -p "The river was"
  zem compare demo.zem demo.zem -p "The river"
  test -s /usr/share/man/man1/zem.1.gz
  test -s /usr/share/zsh/vendor-completions/_zem'

say "Python, with the library alone"
in_root 'apt-get purge -y -qq zem >/dev/null'
install_in_root ./libzem1_*.deb ./python3-zem_*.deb
in_root 'cd /tmp && python3 -c "
import zem
with zem.Model(\"/packages/chat.zem\", threads=1) as model:
    print(model.chat([{\"role\": \"user\", \"content\": \"Hi\"}], max_tokens=8, seed=1).usage)"'

say "programs in C, with CMake and pkg-config, and one that links the static libraries"
install_in_root ./libzem-dev_*.deb
in_root 'cd /tmp
  examples=/usr/share/doc/libzem-dev/examples
  cc -std=c11 $examples/engine_c/main.c $(pkg-config --cflags --libs libzem) -o engine_c
  cmake -S $examples/engine_cpp -B engine_cpp >/dev/null
  cmake --build engine_cpp >/dev/null
  ./engine_c /packages/chat.zem "Hello" >/dev/null
  engine_cpp/engine_cpp /packages/chat.zem "The river" >/dev/null
  g++ -std=c++20 -O2 $examples/library/continue_text.cpp $(pkg-config --cflags --libs zem) -o continue_text
  ./continue_text demo.zem "The river was" 8'
# A Debian package of such a program depends on the library by its list of symbols.
in_root 'grep -q "zem_engine_open@ZEM_1" /var/lib/dpkg/info/libzem1:amd64.symbols'

say "all of them together, and nothing of them afterwards"
install_in_root ./*.deb
in_root 'for package in zem libzem1 libzem-dev python3-zem; do
    test -s /usr/share/doc/$package/copyright
    test -s /usr/share/doc/$package/changelog.gz
  done
  apt-get purge -y -qq zem libzem1 libzem-dev python3-zem >/dev/null'
files_in_root >"$root/packages/after.txt"
diff "$root/packages/before.txt" "$root/packages/after.txt"
say "installed, used and removed"
