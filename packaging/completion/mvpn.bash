# Completion for bash: the words of commands come from pimctl itself, options from each program's help.

_mvpn_options() {
  COMPREPLY=($(compgen -W "$("$1" --help 2>/dev/null | grep -oE -- '--[a-z][a-z-]+' | sort -u)" -- "$2"))
}

# The words of a command on the line so far, without options and their values, and the control socket.
_mvpn_pimctl_words() {
  words=() control=()
  local i
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      --control) control=(--control "${COMP_WORDS[++i]//[\'\"\\]/}") ;;
      --timeout) ((i++)) ;;
      -*) ;;
      *) words+=("${COMP_WORDS[i]//[\'\"\\]/}") ;; # without what kept a | from the shell
    esac
  done
}

_mvpn_pimctl() {
  local IFS=$'\n' words control
  case $3 in
    --control) COMPREPLY=($(compgen -f -- "$2")); return ;;
    --timeout) return ;;
  esac
  if [[ $2 == -* ]]; then
    _mvpn_options "$1" "$2"
    return
  fi
  _mvpn_pimctl_words
  COMPREPLY=($(compgen -W "$("$1" "${control[@]}" --complete -- "${words[@]}" 2>/dev/null | cut -f 1)" -- "$2"))
}

_mvpn_daemon() {
  [[ $2 == -* ]] && _mvpn_options "$1" "$2"
}

complete -F _mvpn_pimctl pimctl
complete -o default -F _mvpn_daemon pimhostd mdt-reflector mvpn-forwarder mvpn-lab mvpn-traffic mvpn-contract-test
