# SPDX-License-Identifier: Apache-2.0
# Sourced by scripts that have several steps: each says how long it took.
#   step NAME COMMAND ...   runs it, and ends the script when it fails
#   steps_table             the seconds of every step so far
times=()
step() {
  local name=$1 begin=$SECONDS
  shift
  printf '\n== %s\n' "$name"
  "$@"
  times+=("$(printf '%6d s  %s' $((SECONDS - begin)) "$name")")
}

steps_table() {
  printf '\n== seconds by step\n'
  printf '%s\n' "${times[@]}" "$(printf '%6d s  in all' "$SECONDS")"
}
