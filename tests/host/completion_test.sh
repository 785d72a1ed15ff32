#!/bin/bash
# What a shell offers for pimctl and the daemons. usage: completion_test.sh BIN_DIR
set -u
bin=$(realpath "$1")
PATH=$bin:$PATH
files=$(dirname "$0")/../../packaging/completion
source "$files/mvpn.bash"
wrong=0

# offers EXPECTED WORD...: exactly these words for the last of the line; a trailing + allows more.
offers() {
  local expected=$1
  shift
  COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
  local function=_mvpn_daemon
  [ "$1" = pimctl ] && function=_mvpn_pimctl
  $function "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  [ "${COMPREPLY[*]}" = "$expected" ] && return
  echo "'$*' offers '${COMPREPLY[*]}' and not '$expected'"
  wrong=$((wrong + 1))
}

offers "mvpn" pimctl show mv
offers "mvpn" pimctl --control /nowhere --json show mv
offers "mdt bgp internal" pimctl show mvpn ""
offers "start stop rotate" pimctl capture ""
offers "default data" pimctl configure vrf red mdt d
offers "" pimctl show nothing ""
offers "--control" pimctl --contr
offers "--config" pimhostd --conf
offers "--config" mdt-reflector --conf
if command -v zsh >/dev/null; then zsh -n "$files/_mvpn" || wrong=$((wrong + 1)); fi
exit $((wrong > 0))
