#!/usr/bin/env bash
# Runs the command and a host program on simulated cards as an ordinary user whose only capability
# is CAP_NET_RAW, with all others out of reach; then looks whether they learn the cards and whether
# the command reaches into them.
#
#   usage: least_privilege.sh WAY QNMCTL CARDSIM LIBRARY HOST      in a network namespace of its own
#
#   ambient   the capability is handed down by whoever starts the programs
#   file      the files of the programs have it
#   none      nobody has it: the command must say so, and HOST, the host program, see its start fail
#
# Exit status 77: not possible here; the last line says why.
set -euo pipefail
export PATH="/usr/bin:/usr/sbin:/bin:/sbin:$PATH"

readonly way=$1 cardsim=$3
readonly user=65534
readonly net_raw=0000000000002000 # bit 13
readonly no_caps=0000000000000000
readonly card=0x020000001000
readonly cards_in_scenario=6
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
readonly scenario=$root/src/tools/cardsim/scenarios/demo.toml

skip() {
  echo "SKIPPED: $*"
  exit 77
}

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

work=$(mktemp -d "${TMPDIR:-/tmp}/qnm-privileges.XXXXXX")
cards=
cleanup() {
  if [[ -n $cards ]]; then
    kill "$cards" || cat "$work/answers" >&2
    wait "$cards" || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# The programs lie where the user can reach them, wherever the build tree is.
install_copies() {
  chmod 755 "$work"
  install -m 755 "$1" "$work/qnmctl"
  install -m 644 "$2" "$work/libqnm.so.1"
  install -m 755 "$3" "$work/host"
  install -d -o "$user" -m 700 "$work/tmp"
  ctl=("$work/qnmctl" --ports "qnm0,qnm1")
}

# The user, without capabilities that could be had by any means but those that are left.
choose_user() {
  local -a base=(setpriv "--reuid=$user" "--regid=$user" --clear-groups)
  case $way in
    ambient)
      as_user=("${base[@]}" --no-new-privs '--bounding-set=-all,+net_raw'
        '--inh-caps=-all,+net_raw' '--ambient-caps=-all,+net_raw')
      ;;
    file)
      as_user=("${base[@]}" '--bounding-set=-all,+net_raw' --inh-caps=-all --ambient-caps=-all)
      ;;
    none)
      as_user=("${base[@]}" --no-new-privs --bounding-set=-all --inh-caps=-all --ambient-caps=-all)
      ;;
    *) fail "no such way: $way" ;;
  esac
  as_user+=(env "TMPDIR=$work/tmp" "LD_LIBRARY_PATH=$work")
  local told
  told=$("${as_user[@]}" true 2>&1) || skip "cannot become an ordinary user here: $told"
}

give_to_file() {
  local told
  told=$(setcap cap_net_raw+ep "$work/qnmctl" cap_net_raw+ep "$work/host" 2>&1) ||
    skip "$work takes no file capability: $told"
  # Such a program does not look at LD_LIBRARY_PATH, but where it was built to.
  "${as_user[@]}" "$work/qnmctl" --version >"$work/version" 2>&1 ||
    skip "a program with a file capability does not run here: $(<"$work/version")"
}

start_cards() {
  local port
  for port in 0 1; do
    ip link add "qnm$port" type veth peer name "qsim$port"
    ip link set "qnm$port" up
    ip link set "qsim$port" up
  done
  mkfifo "$work/commands" "$work/orders"
  exec {commands}<>"$work/commands" {orders}<>"$work/orders"
  "$cardsim" "$scenario" --ports qsim0,qsim1 --quiet <&"$commands" >"$work/answers" 2>&1 &
  cards=$!
}

# Runs the command as the user. What it prints is left in $answer.
ask() {
  answer=$("${as_user[@]}" "${ctl[@]}" "$@" 2>&1)
}

# expect REGEX, in the last answer
expect() {
  [[ $answer =~ $1 ]] || fail "nothing like '$1' in: $answer"
}

field() {
  sed -n "s/^$1:[[:space:]]*//p" "$work/status"
}

# The command itself, while it runs, has this capability and none other in any set.
check_credentials() {
  local watcher=0 tries
  "${as_user[@]}" "${ctl[@]}" watch --all <&"$orders" >"$work/watch" 2>&1 &
  watcher=$!
  for ((tries = 0; tries < 600; tries++)); do
    grep -qs NEWDEVINFO "$work/watch" && break
    sleep 0.1
  done
  cp "/proc/$watcher/status" "$work/status"
  kill "$watcher"
  wait "$watcher" || true
  grep -q NEWDEVINFO "$work/watch" || fail "no card is reported: $(<"$work/watch")"
  [[ $(field Uid) == "$user"*"$user"*"$user"*"$user" ]] || fail "the user is $(field Uid)"
  local set
  for set in CapPrm CapEff CapBnd; do
    [[ $(field "$set") == "$net_raw" ]] || fail "$set is $(field "$set")"
  done
  if [[ $way == file ]]; then
    for set in CapInh CapAmb; do
      [[ $(field "$set") == "$no_caps" ]] || fail "$set is $(field "$set")"
    done
  fi
}

# What the host program reads; its log is $work/tmp/qnm.log.
install_settings() {
  mkdir "$work/conf"
  echo 'ether_port = qnm0,qnm1' >"$work/conf/qnm.conf"
  sed "s#/var/log/qnm#$work/tmp#" "$root/conf/qnm_log4c.properties" \
    >"$work/conf/qnm_log4c.properties"
}

# The host program is told of each card once, and ends well when it is asked to.
check_host() {
  local tries count=0 status=0 host
  install_settings
  "${as_user[@]}" "$work/host" "$work" <&"$orders" >"$work/events" 2>&1 &
  host=$!
  for ((tries = 0; tries < 600 && count < cards_in_scenario; tries++)); do
    sleep 0.1
    count=$(grep -c '^NEWDEVINFO 0x' "$work/events") || true
  done
  echo >&"$orders"
  wait "$host" || status=$?
  ((status == 0)) || fail "the host program ended with $status: $(<"$work/events")"
  count=$(grep '^NEWDEVINFO 0x' "$work/events" | sort -u | wc -l) || true
  ((count == cards_in_scenario)) || fail "not all cards are reported: $(<"$work/events")"
  ! grep -q 'the manager ended' "$work/events" || fail "$(<"$work/events")"
}

check_work() {
  check_credentials
  check_host
  ask list --for 1 || fail "$answer"
  expect '2 QNSV, 4 QNIO'
  ask reg read "$card" 0x1000 || fail "$answer"
  expect '0x20261121'
  ask reg write "$card" 0x1008 0xCAFE --verify || fail "$answer"
  expect verified
  ask eeprom dump "$card" 0x0 0x10 || fail "$answer"
}

check_refusal() {
  local status=0
  ask list || status=$?
  ((status == 1)) || fail "the exit status is $status"
  expect 'no privilege for raw sockets \(capability CAP_NET_RAW\)'
  expect 'Start the container or service with the capability NET_RAW' # setcap would not help here
  [[ -z $(ls -A "$work/tmp") ]] || fail "something is left in $work/tmp"

  install_settings
  status=0
  answer=$("${as_user[@]}" "$work/host" "$work" </dev/null 2>&1) || status=$?
  ((status == 1)) || fail "the host program ended with $status: $answer"
  expect 'the manager ended: protocol or internal error'
  answer=$(<"$work/tmp/qnm.log")
  expect "ERROR .*qnm0: You don't have permission"
}

main() {
  choose_user
  install_copies "$2" "$4" "$5"
  if [[ $way == file ]]; then
    give_to_file
  fi
  start_cards
  if [[ $way == none ]]; then
    check_refusal
  else
    check_work
  fi
  echo "passed: $way"
}

main "$@"
