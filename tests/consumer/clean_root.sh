#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages into a new, minimal Debian 12 and uses them there. Needs
# root, debootstrap and Debian's archive; takes some minutes.
#   tests/consumer/clean_root.sh FOLDER    where scripts/package.sh left the packages
set -euo pipefail
folder=$(realpath "$1")

root=$(mktemp -d)
trap 'umount "$root/proc" 2>/dev/null || true; rm -rf "$root"' EXIT

debootstrap --variant=minbase bookworm "$root"
cp "$folder"/zem_*.deb "$root/zem.deb"
cp "$folder"/libzem-dev_*.deb "$root/libzem-dev.deb"
cp /etc/resolv.conf "$root/etc/resolv.conf"
mount -t proc proc "$root/proc"

in_root() { chroot "$root" env LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive bash -euc "$1"; }

in_root 'apt-get update -qq && apt-get install -y -qq --no-install-recommends /zem.deb'
in_root 'cd /tmp && zem --version && zem make-demo demo.zem && zem info demo.zem >/dev/null &&
  zem run -m demo.zem -p "The river was" -n 8 &&
  zem plugin run -m demo.zem -p "The river was" && zem compare demo.zem demo.zem -p "The river"'
in_root 'test -s /usr/share/man/man1/zem.1'

# A compiler is enough to build against the libraries.
in_root 'apt-get install -y -qq --no-install-recommends /libzem-dev.deb g++ pkg-config libc6-dev >/dev/null &&
  cd /tmp &&
  g++ -std=c++20 -O2 /usr/share/doc/zem/examples/library/continue_text.cpp \
    $(pkg-config --cflags --libs zem) -o continue_text &&
  ./continue_text demo.zem "The river was" 8'
in_root 'test -s /usr/share/doc/zem/copyright && test -s /usr/share/doc/libzem-dev/copyright &&
  apt-get purge -y -qq zem libzem-dev >/dev/null && ! ls /usr/lib/*/zem /usr/bin/zem /usr/include/zem 2>/dev/null'
echo "clean_root.sh: installed, used and removed"
