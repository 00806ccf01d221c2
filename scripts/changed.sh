# SPDX-License-Identifier: Apache-2.0
# Sourced by scripts that check what changed.
#   changed_files BASE PATTERN ...   the kept files that changed since the commit BASE; where it
#                                    is empty, since the last commit that is a day older than
#                                    the newest; all of them where it is --all
changed_files() {
  local base=${1:-$(git rev-list -1 --before="$(($(git log -1 --format=%ct) - 86400))" HEAD)}
  shift
  if [[ $base == --all || -z $base ]]; then
    git ls-files "$@"
  else
    git diff --name-only -M100% --diff-filter=AMT "$base" -- "$@"
  fi
}
