# SPDX-License-Identifier: Apache-2.0
# Prints what zsh offers after the beginning of a command line, one offer a line.
#   zsh -f offers.zsh SITE_FUNCTIONS LINE
# zsh completes on a terminal alone, so a second zsh gets one; there the function
# that takes in offers prints them.
zmodload zsh/zpty
zpty inner zsh -f -i

tell() { zpty -w inner "$1" }
tell 'PS1= PS2= RPS1=; unsetopt zle_bracketed_paste 2>/dev/null; stty -echo'
tell "fpath=(${(q)1} \$fpath); autoload -Uz compinit; compinit -u -D"
tell 'compadd() {
  if [[ ${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then
    builtin compadd "$@"
    return
  fi
  local -a offers
  builtin compadd -A offers "$@"
  (( $#offers )) && print -lr -- "offer:"$^offers
  return 1
}'
tell 'stop() { print end:offers; exit }; zle -N stop'
tell 'bindkey "^I" complete-word; bindkey "^X" stop; print begin:offers'
while zpty -r inner answer; do [[ $answer == *begin:offers* && $answer != *print* ]] && break; done
zpty -w -n inner "$2"$'\t'$'\x18'
while zpty -r inner answer; do
  answer=${answer//$'\r'/}
  [[ $answer == *end:offers* ]] && break
  [[ $answer == *offer:* ]] && print -r -- ${${answer%$'\n'}##*offer:}
done
exit 0
