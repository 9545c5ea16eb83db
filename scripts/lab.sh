#!/usr/bin/env bash
# Opens a shell in a private network namespace with simulated cards: two cables, the cards of a scenario
# at the far ends, and qnmctl in PATH at the near ends, with the ports set. It needs no card and no root,
# and leaves your network alone. All of it ends with the shell.
#
#   usage: lab.sh [-s SCENARIO] [BUILD] [-- COMMAND [ARGUMENT...]]
#
#   BUILD      the folder of a build, default: build/release, else build/demo
#   SCENARIO   the cards, default: src/tools/cardsim/scenarios/demo.toml
#   COMMAND    runs in place of the shell, and its exit status is that of this script
#
# In there "cards COMMAND..." tells the simulated cards what to do ("cards help" lists it).
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

scenario=$root/src/tools/cardsim/scenarios/demo.toml
bin=

# What the greeting offers to try: a command, and what it shows.
readonly offers=(
  "qnmctl list" "the cards that are heard, and by which paths"
  "qnmctl show 0x020000001000" "every field of one card"
  "qnmctl reg read 0x020000001000 0x1000" "a register of it"
  "qnmctl topology" "which cards belong together"
  "qnmctl watch --for 10" "what changes, for ten seconds"
)

usage() {
  sed -n '2,/^set /{/^#/s/^# \{0,1\}//p}' "${BASH_SOURCE[0]}"
}

# Sets bin to the folder of the programs.
find_programs() {
  local folder
  for folder in "$@"; do
    if [[ -x $folder/bin/qnmctl && -x $folder/bin/qnm-cardsim ]]; then
      bin=$(cd "$folder/bin" && pwd)
      return
    fi
  done
  die "there are no programs in $1
Build them first: cmake --preset release && cmake --build --preset release"
}

greet() {
  local at
  echo "Simulated cards are behind qnm0 and qnm1, in a network of their own. Try:"
  for ((at = 0; at < ${#offers[@]}; at += 2)); do
    printf '  %-40s %s\n' "${offers[at]}" "${offers[at + 1]}"
  done
  echo '"cards help" lists what the cards can be told; "exit" ends all of it.'
}

# The command "cards", and the user's own shell settings with what the lab adds.
write_settings() {
  mkdir "$work/bin"
  cat >"$work/bin/cards" <<'END'
#!/bin/sh
echo "$*" >"$QNM_LAB/qnm-cardsim.in" && read -r answer <"$QNM_LAB/qnm-cardsim.out" && echo "$answer"
END
  chmod +x "$work/bin/cards"
  cat >"$work/bashrc" <<'END'
[[ -r ~/.bashrc ]] && . ~/.bashrc
PATH=$QNM_LAB_PATH:$PATH
PS1='(lab) \w\$ '
END
}

# Whatever was started in the lab has the name of its folder in the environment.
clear_lab() {
  local file process
  while IFS= read -r file; do
    process=${file#/proc/}
    stop "${process%/environ}"
  done < <(grep -lzxF -- "QNM_LAB=$work" /proc/[0-9]*/environ 2>/dev/null)
  clear_stage
}

# Prints the commands of the greeting, one a line; a test runs them all.
list_offers() {
  local at
  for ((at = 0; at < ${#offers[@]}; at += 2)); do
    echo "${offers[at]}"
  done
}

# Within the namespace.
run_inside() {
  # shellcheck source=scripts/stage.sh
  . "$root/scripts/stage.sh"
  set_stage
  trap clear_lab EXIT
  start_sim "$scenario"
  sim list >/dev/null # the cards are there, or the reason why not is shown
  export QNM_LAB=$work QNM_LAB_PATH=$work/bin:$bin QNMCTL_PORTS=qnm0,qnm1
  QNM_LAB_OFFERS=$(list_offers)
  export QNM_LAB_OFFERS
  write_settings
  if (($# > 0)); then
    PATH=$QNM_LAB_PATH:$PATH "$@"
    return
  fi
  greet
  bash --rcfile "$work/bashrc" -i
}

main() {
  if [[ ${QNM_LAB_INSIDE:-} ]]; then
    unset QNM_LAB_INSIDE
    bin=$1 scenario=$2
    shift 2
    run_inside "$@"
    return
  fi
  local -a builds=("$root/build/release" "$root/build/demo")
  while (($# > 0)); do
    case $1 in
      -h | --help) usage && exit ;;
      -s) (($# > 1)) || die "-s needs a scenario" && scenario=$2 && shift 2 ;;
      --) shift && break ;;
      -*) usage >&2 && exit 2 ;;
      *) builds=("$1") && shift ;;
    esac
  done
  find_programs "${builds[@]}"
  [[ -r $scenario ]] || die "cannot read $scenario"
  scenario=$(realpath -- "$scenario")
  QNM_LAB_INSIDE=1 exec "$root/scripts/in-netns.sh" "${BASH_SOURCE[0]}" "$bin" "$scenario" "$@"
}

main "$@"
