# shellcheck shell=bash
# Completion of qnmctl for bash: it asks the command what can come next.
# "source <(qnmctl completion bash)" switches it on in a running shell.

_qnmctl() {
  local current=${COMP_WORDS[COMP_CWORD]} line
  # bash makes a word of its own of the "=" in --output=json
  [[ $current != '=' ]] || current=
  COMPREPLY=()
  while IFS= read -r line; do
    case $line in
      :files)
        compopt -o filenames 2>/dev/null || true
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$current")
        ;;
      :directories)
        compopt -o filenames 2>/dev/null || true
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -d -- "$current")
        ;;
      *) COMPREPLY+=("${line%%$'\t'*}") ;;
    esac
  done < <("${COMP_WORDS[0]}" complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}

complete -F _qnmctl qnmctl
