#!/usr/bin/env bash
# Uses the installed packages in a Debian of its own, where scripts/try-packages.sh has put them and
# has this run, in /trial.
set -euo pipefail
# shellcheck source=test/install/hosts.sh
. "$(dirname "${BASH_SOURCE[0]}")/hosts.sh" / "lib/$(cc -print-multiarch)"

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
  ldconfig --print-cache | grep -q 'libqnm\.so\.1 ' || fail "the linker does not find the library"
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

check_removal() {
  local left
  quietly apt-get purge -q -y "${names[@]}"
  left=$(find / -xdev -path /trial -prune -o -path /tmp -prune -o -name '*qnm*' -print)
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
  check_removal
  echo "All was as a new user expects it."
}

main
