# bash completion for quorctl. The commands and each command's options are
# read from quorctl's own help, so they never fall behind the tool.

_quorctl_commands() {
  "$1" --help 2>/dev/null | sed -n '/^commands:/,/^$/s/^  \([a-z][a-z-]*\).*/\1/p'
}

# The options on the usage lines of `quorctl COMMAND --help`.
_quorctl_options() {
  "$1" "$2" --help 2>/dev/null | awk 'NR == 1 || /^ / { print; next } { exit }' |
    grep -o -- '--[a-z][a-z-]*' | sort -u
}

_quorctl_files() {
  compopt -o filenames 2>/dev/null
  mapfile -t COMPREPLY < <(compgen -f -- "$1")
}

_quorctl() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  local tool=${COMP_WORDS[0]} command="" i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      --server | --timeout | --user) ((i++)) ;;
      -*) ;;
      *) command=${COMP_WORDS[i]}; break ;;
    esac
  done

  case $prev in
    --server | --timeout | --user | --select | --command | --object | --type | --format | --date-format | --language)
      return ;;
    --file | --save | --table | --calendar | --list | --out)
      _quorctl_files "$cur"; return ;;
  esac

  local globals="--server --timeout --user --json --help"
  if [[ -z $command ]]; then
    if [[ $cur == -* ]]; then
      mapfile -t COMPREPLY < <(compgen -W "$globals" -- "$cur")
    else
      mapfile -t COMPREPLY < <(compgen -W "$(_quorctl_commands "$tool")" -- "$cur")
    fi
  elif [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$globals $(_quorctl_options "$tool" "$command")" -- "$cur")
  else
    case $command in
      refresh | check-config | decode | raw | table-to-csv | csv-to-table | calendar) _quorctl_files "$cur" ;;
    esac
  fi
}
complete -F _quorctl quorctl
