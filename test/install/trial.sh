#!/usr/bin/env bash
# Uses the installed packages in a Debian of its own, where scripts/try-packages.sh has put them and
# has this run, in /trial: first with an installation directory of its own, then as the installed
# README says, from the configuration in place on. Its commands are taken out of it.
set -euo pipefail
# shellcheck source=test/install/hosts.sh
. "$(dirname "${BASH_SOURCE[0]}")/hosts.sh" /trial "lib/$(cc -print-multiarch)"

readonly documents=/usr/share/doc/qnm
# As the documents call them, so that their commands can be run as they stand.
ports=(eth1 eth2)

readonly names=(libqnm1 libqnm-dev qnm-tools python3-qnm)

say() {
  echo "ok: $*"
}

# Every command explains itself, and every manual page can be read.
check_help() {
  local file name
  while read -r file; do
    quietly "$file" --help
    [[ -s $work/said ]] || fail "$file --help says nothing"
    say "${file##*/} --help"
  done < <(dpkg --listfiles "${names[@]}" | grep '^/usr/bin/.')
  while read -r file; do
    name=${file##*/}
    name=${name%.gz}
    quietly man "${name##*.}" "${name%.*}"
    [[ -s $work/said ]] || fail "man ${name##*.} ${name%.*} shows nothing"
    say "man ${name##*.} ${name%.*}"
  done < <(dpkg --listfiles "${names[@]}" | grep '^/usr/share/man/.*\.gz$')
}

# What apt has left is whole, and the linker knows the library without being told where it is.
check_system() {
  local name
  for name in "${names[@]}"; do
    quietly dpkg --verify "$name"
    [[ ! -s $work/said ]] || fail "$name is not as packed: $(<"$work/said")"
  done
  quietly ldconfig --print-cache
  grep -q 'libqnm\.so\.1 ' "$work/said" || fail "the linker does not find the library"
  say "libqnm.so.1 is found"
}

# The operator's commands, as the documents have them, but for the card.
check_commands() {
  local words
  for words in "show ${cards[0]}" 'stats -v' "reg write ${cards[0]} 0x1000 0xCAFE --verify" \
    "reg read ${cards[0]} 0x1000" "eeprom read ${cards[0]} 0x0"; do
    # shellcheck disable=SC2086 # it is several words
    quietly qnmctl --dir "$work/installation" $words
    [[ -s $work/said ]] || fail "qnmctl $words says nothing"
    say "qnmctl $words"
  done
}

# A script in Python sees the cards, and the module was compiled when it was installed.
check_python() {
  compgen -G '/usr/lib/python3/dist-packages/qnm/__pycache__/*.pyc' >/dev/null ||
    fail "the Python module is not compiled"
  # Beyond the limit of a slow machine; the test hangs otherwise where no card is seen.
  quietly timeout 120 python3 - "$work/installation" "${cards[@]}" <<'END'
import sys
import qnm

missing = {int(card, 0) for card in sys.argv[2:]}
with qnm.Manager(sys.argv[1]) as manager:
    for event in manager.events():
        if event.type is qnm.EventType.NEWDEVINFO:
            missing.discard(event.card_id)
        if not missing:
            break
END
  say "the Python module sees the cards"
}

# Runs a program until it has named the cards; then it has to end in order.
#   usage: use_program END COMMAND [ARGUMENT...]     END is TERM, or a line that it reads
use_program() {
  local end=$1 output=$work/output pid input card
  shift
  rm -f "$output" "$work/input" # what the program before has said must not be taken for its own
  mkfifo "$work/input"
  exec {input}<>"$work/input"
  "$@" <&"$input" >"$output" 2>&1 &
  pid=$!
  background+=("$pid")
  for card in "${cards[@]}"; do
    await_text "$output" "$card" "$pid"
  done
  if [[ $end == TERM ]]; then
    kill -TERM "$pid"
  else
    echo "$end" >&"$input"
  fi
  wait "$pid" || fail "$* ends with status $?: $(<"$output")"
  exec {input}>&-
  say "$*"
}

# What the README has compiled, compiled as it says, and what it has "compiled like the above".
follow_examples() {
  local command
  local -a flags
  cp -r "$documents/docs" .
  cp docs/examples/* .
  while read -r command; do
    quietly eval "$command"
    say "$command"
  done < <(grep '^cc ' "$documents/README.md")
  read -ra flags < <(pkg-config --cflags --libs qnm)
  quietly cc -std=c99 watch_loop.c "${flags[@]}" -lpthread -o watch_loop
  quietly c++ -std=c++20 event_loop.cpp "${flags[@]}" -lpthread -o event_loop

  use_program '' ./first /opt/tarvo/qnm
  use_program '' ./host /opt/tarvo/qnm
  use_program TERM ./watch_loop /opt/tarvo/qnm
  use_program TERM ./event_loop /opt/tarvo/qnm
  use_program TERM python3 ./watch.py /opt/tarvo/qnm
  quietly pydoc3 qnm
  grep -q 'class Manager' "$work/said" || fail "pydoc3 does not describe the module"
  say "pydoc3 qnm"
}

# Runs one of the operator's commands, with an end where it has none by itself.
#   usage: follow_command WORD...
follow_command() {
  case " $* " in
  *' watch '*) use_program quit "$@" ;;
  *' top '*)
    TERM=xterm use_program q script -qec "stty rows 24 cols 100; $*" /dev/null
    ;;
  *)
    case " $* " in
    *' capture '*) set -- "$@" --count 20 ;;
    *' report '*) set -- "$@" --for 2 ;;
    esac
    quietly "$@"
    [[ -s $work/said ]] || fail "$* says nothing"
    cp "$work/said" "$work/last"
    say "$*"
    ;;
  esac
}

# What the README lists to operate cards, word for word but for the card and the file.
follow_commands() {
  local line
  local -a commands words
  # shellcheck disable=SC2016 # it is the fence of the commands
  mapfile -t commands < <(sed -n '/^## Operate it/,/^## [^O]/p' "$documents/README.md" |
    sed -nE '/^```/,/^```/s/^(sudo )?(qnmctl .*)/\2/p' |
    sed -E "s/ {2,}.*//; s/\<ID\>/${cards[0]}/; s/\<FILE\>/capture.pcapng/")
  ((${#commands[@]} >= 10)) || fail "the README lists ${#commands[@]} commands"
  for line in "${commands[@]}"; do
    read -ra words <<<"$line"
    follow_command "${words[@]}"
  done
  [[ $(stat --format %s card.bin) == 2048 ]] || fail "the EEPROM is not whole"
  quietly tar --list --file qnm-report-*.tar.gz
  grep -q '\.pcapng$' "$work/said" || fail "the report has no capture: $(<"$work/said")"

  follow_command qnmctl decode capture.pcapng
  (($(wc -l <"$work/last") == 20)) || fail "not 20 frames: $(<"$work/last")"
  # Of the package, the dissector is there for root as well.
  follow_command tshark -n -r capture.pcapng -Y quillnet
  grep -q 'Quillnet' "$work/last" || fail "tshark has no dissector: $(<"$work/last")"
  follow_command qnmctl --dir /opt/tarvo/qnm list -o json
  python3 -m json.tool "$work/last" >/dev/null || fail "this is no JSON: $(<"$work/last")"
  follow_command qnmctl completion bash
  expect_same "$work/last" /usr/share/bash-completion/completions/qnmctl
  # shellcheck disable=SC1091 # it is what is tried
  (. "$work/last" && complete -p qnmctl >/dev/null) || fail "bash does not complete it"
}

# With the configuration in its place, as the README begins.
follow_readme() {
  name_ports /opt/tarvo/qnm/conf/qnm.conf
  mkdir "$work/user"
  cd "$work/user"
  follow_examples
  follow_commands
  cd /
  rm -r /var/log/qnm # by the logs it is the operator's
}

check_removal() {
  local left
  quietly apt-get purge -q -y "${names[@]}"
  # /var/cache/man has what man keeps for itself of the pages that it has shown.
  left=$(find / -xdev \( -path /trial -o -path /tmp -o -path /var/cache/man \) -prune -o \
    -name '*qnm*' -print)
  [[ -z $left && ! -e /opt/tarvo ]] || fail "left behind: $left"
  say "all is removed"
}

main() {
  ip link set lo up
  check_system
  check_help
  use_installation ""
  say "host programs in C and C++, by pkg-config and CMake, and qnmctl see the cards"
  check_commands
  check_python
  follow_readme
  check_removal
  echo "All was as a new user expects it."
}

main
