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
offers "include" pimctl show vrfs "'|'" inc

# A zsh on a terminal completes these lines; each is waited for until it stands there, all of them for two minutes at most.
if command -v zsh >/dev/null; then
  BIN=$bin FILES=$files timeout 120 zsh -f <<'END' || { echo "zsh does not complete a line"; wrong=$((wrong + 1)); }
zmodload zsh/zpty
zpty shell "PS1= TERM=dumb zsh -f -i"
zpty -w shell "PATH=$BIN:\$PATH fpath=($FILES \$fpath); unsetopt zle_bracketed_paste; autoload -U compinit; compinit -u -D; echo rea''dy"
zpty -r -m shell seen '*ready*' || exit 1
completes() {
  zpty -w -n shell "$1"$'\t'
  zpty -r -m shell seen "*$2*" || exit 1
  zpty -w -n shell $'\x15'
}
completes 'pimctl show mv' 'show mvpn '
completes 'pimctl --json --control /nowhere configure vrf red mdt de' 'mdt default '
completes "pimctl show vrfs '|' inc" 'include '
completes 'pimctl show mvpn ' 'internal  -- State of the module'
completes 'pimctl --contr' '--control '
completes 'pimhostd --conf' '--config '
END
fi
exit $((wrong > 0))
