#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the two commands of the README, scripts/demo.sh and scripts/test.sh, on a clone of this
# repository in a new, minimal Debian 12, and says how long each took. Then the packages of
# scripts/package.sh are installed, used and removed in another. Needs root, debootstrap and
# Debian's archive.
#   tests/consumer/fresh_debian.sh [demo|test|packages ...]    all three by default
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
source scripts/steps.sh

what=("$@")
((${#what[@]} > 0)) || what=(demo test packages)

root=$(mktemp -d)
trap 'umount "$root/proc" "$root/dev/pts" "$root/dev/shm" 2>/dev/null || true; rm -rf "$root"' EXIT

in_root() { chroot "$root" env -i PATH="$PATH" HOME=/root LC_ALL=C.UTF-8 bash -euc "$1"; }

make_root() {
  debootstrap --variant=minbase bookworm "$root"
  cp /etc/resolv.conf "$root/etc/resolv.conf"
  cp /etc/apt/apt.conf.d/*prox* "$root/etc/apt/apt.conf.d/" 2>/dev/null || true
  mkdir -p "$root/dev/pts" "$root/dev/shm"
  mount -t proc proc "$root/proc"
  mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
  mount -t tmpfs tmpfs "$root/dev/shm"
  ln -sf pts/ptmx "$root/dev/ptmx"
  git clone -q --no-hardlinks . "$root/root/zem"
}

for name in "${what[@]}"; do
  case $name in
    demo | test)
      [[ -d $root/root/zem ]] || step "a new Debian" make_root
      step "scripts/$name.sh" in_root "cd /root/zem && bash scripts/$name.sh </dev/null"
      ;;
    packages)
      bash scripts/package.sh
      step "packages" bash tests/consumer/clean_root.sh build/release/packages
      ;;
    *)
      echo "usage: tests/consumer/fresh_debian.sh [demo|test|packages ...]" >&2
      exit 2
      ;;
  esac
done
steps_table
