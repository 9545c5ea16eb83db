#!/usr/bin/env bash
# Completion as the shells do it: the script is switched on, and a word is completed.
#
#   usage: check_completion.sh PROGRAM bash|zsh
set -euo pipefail
program=$1
shell=$2

fail() {
  echo "$*" >&2
  exit 1
}

# complete_in_bash WORD...: prints what bash would offer in place of the last word.
complete_in_bash() {
  bash --norc -c '
    set -euo pipefail
    source <("$1" completion bash)
    shift
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    _qnmctl
    ((${#COMPREPLY[@]} == 0)) || printf "%s\n" "${COMPREPLY[@]}"
  ' bash "$program" "$@"
}

# A command of the name of a directory is completed as a command: with a blank behind it.
check_in_a_terminal() {
  local work
  work=$(mktemp -d)
  mkdir "$work/report"
  # It completes, but otherwise only says what it was given.
  cat >"$work/qnmctl" <<END
#!/bin/sh
case \$1 in
  complete | completion) exec "$program" "\$@" ;;
  *) printf '<%s>' "\$@" >said ;;
esac
END
  chmod +x "$work/qnmctl"
  # shellcheck disable=SC2016  # the inner shell's
  printf '%s\n' 'PATH=$PWD:$PATH; source <(qnmctl completion bash)' $'qnmctl rep\tx' 'exit' \
    >"$work/typed"
  (cd "$work" && script -qec 'bash --norc -i' /dev/null <typed >/dev/null)
  [[ $(<"$work/said") == '<report><x>' ]] || fail "in a terminal: $(<"$work/said")"
  rm -r "$work"
}

# complete_in_zsh WORD...: likewise, with what zsh would show beside each. _describe, which only
# works on a line that is being edited, prints what it is given.
complete_in_zsh() {
  zsh -f -c '
    setopt err_exit
    compdef() { compdef_was_told="$*"; }
    _describe() { print -rl -- "${(@P)2}"; }
    _files() { print -r -- "files $*"; }
    source <("$1" completion zsh)
    [[ $compdef_was_told == "_qnmctl qnmctl" ]]
    shift
    words=("$@")
    CURRENT=$#
    _qnmctl
  ' zsh "$program" "$@"
}

expect() {
  local wanted=$1 got
  shift
  got=$("$@") || fail "failed: $*"
  [[ $got == "$wanted" ]] || fail "$*: expected '$wanted', got '$got'"
}

case $shell in
  bash)
    expect 'watch' complete_in_bash "$program" wa
    expect $'read\nwrite\nmodify\ndump' complete_in_bash "$program" reg ''
    expect $'json\njsonl' complete_in_bash "$program" list -o j
    expect '--group' complete_in_bash "$program" --ports lo watch --gro
    cd /
    expect 'etc' complete_in_bash "$program" --dir et
    check_in_a_terminal
    ;;
  zsh)
    expect 'watch:Prints events as they occur, with the reason' complete_in_zsh "$program" wa
    expect $'json:\njsonl:' complete_in_zsh "$program" list -o j
    expect 'files -/' complete_in_zsh "$program" --dir et
    expect 'files ' complete_in_zsh "$program" eeprom restore 0x1 ''
    ;;
  *) fail "unknown shell '$shell'" ;;
esac
