#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What the shells offer after the beginning of a command line.
#   tests/consumer/completions.sh SHARE      SHARE: share/ of an installation
set -euo pipefail
share=$(realpath "$1")
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
touch "model one.zem" other.zem
mkdir home

fail() {
  printf 'completions.sh: %s\n' "$*" >&2
  exit 1
}

# expect SHELL LINE OFFER ...: exactly these offers, in any order.
expect() {
  local shell=$1 line=$2
  shift 2
  local got want
  got=$("offers_$shell" "$line" | sort)
  want=$(if (($#)); then printf '%s\n' "$@" | sort; fi)
  [[ $got == "$want" ]] || fail "$shell offers after '$line': $(printf '%q ' "$got") instead of $(printf '%q ' "$want")"
}

# The word that is completed is the one at the end, which may be empty.
offers_bash() {
  bash --norc -c '
    source "$1"
    read -ra COMP_WORDS <<<"$2"
    [[ $2 == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _zem
    ((${#COMPREPLY[@]} == 0)) || printf "%s\n" "${COMPREPLY[@]}"
  ' bash "$share/bash-completion/completions/zem" "$1"
}

offers_fish() {
  HOME=$folder/home fish --no-config -c '
    source $argv[1]
    complete -C $argv[2]
  ' "$share/fish/vendor_completions.d/zem.fish" "$1" | cut -f 1
}

offers_zsh() {
  HOME=$folder/home TERM=dumb timeout 60 zsh -f "$here/offers.zsh" "$share/zsh/site-functions" "$1"
}

shells=(bash fish)
if zsh -fc 'zmodload zsh/zpty && zpty terminal true' 2>/dev/null; then
  shells+=(zsh)
else
  echo "completions.sh: SKIPPED zsh: no pseudo-terminals here"
fi
for shell in "${shells[@]}"; do
  expect "$shell" "zem mak" make-demo
  expect "$shell" "zem plugin pro" probe
  expect "$shell" "zem make-demo --si" --size
  expect "$shell" "zem plugin run --no" --no-gpu
  expect "$shell" "zem convert --no" --no-verify
  expect "$shell" "zem info oth" other.zem
done
expect bash "zem plugin run -m " "home" "model one.zem" "other.zem"
expect bash "zem plugin run -p "
expect bash "zem --v" --version
expect bash "zem c" chat compare convert
expect bash "zem plugin " bench chat probe run
expect bash "zem devices --" --help --json --verbose
