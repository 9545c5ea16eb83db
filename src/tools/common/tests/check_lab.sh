#!/usr/bin/env bash
# The lab: every command of its greeting works there, the cards obey, and nothing is left behind.
#
#   usage: check_lab.sh LAB BUILD
#
# Exit status 125 where no network namespace can be made.
set -euo pipefail

readonly lab=$1 build=$2
work=$(mktemp -d)
readonly work
trap 'rm -rf "$work"' EXIT
export TMPDIR=$work/tmp HOME=$work
mkdir "$TMPDIR"

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# in_lab COMMAND...: with a limit that only a failure reaches.
in_lab() {
  timeout 120 "$lab" "$build" -- "$@"
}

"$lab" -h | grep -q '^ *usage: lab.sh' || fail "no help"
status=0
in_lab true || status=$?
((status != 125)) || exit 125
((status == 0)) || fail "true ended with $status"

# All at once, as one of them watches for ten seconds.
# shellcheck disable=SC2016 # for the shell in the lab
in_lab bash -c 'tried=()
while read -r line; do
  # shellcheck disable=SC2086
  $line </dev/null >"$HOME/said.${#tried[@]}" 2>&1 &
  tried+=("$!")
done <<<"$QNM_LAB_OFFERS"
for one in "${tried[@]}"; do
  wait "$one" || exit
done
echo "${#tried[@]}" >"$HOME/done"' || fail "$(cat "$work"/said.*)"
(($(<"$work/done") == 5)) || fail "not all commands were tried: $(cat "$work"/said.*)"
grep -q '2 QNSV, 4 QNIO' "$work/said.0" || fail "list: $(cat "$work/said.0")"

# What is left running ends with the lab.
status=0
# shellcheck disable=SC2016 # for the shell in the lab
in_lab bash -c 'cards list; sleep 1000 & echo $! >"$HOME/left"; exit 3' >"$work/said" || status=$?
((status == 3)) || fail "a command that ends with 3 ended with $status"
grep -q '^ok.*sv-10g' "$work/said" || fail "the cards did not answer: $(cat "$work/said")"
# Where nothing reaps it, a dead one stays, without a command line.
! grep -qs sleep "/proc/$(<"$work/left")/cmdline" || fail "a process is left behind"

# The shell itself, which takes its commands from standard input here.
status=0
printf 'cards set sv-10g vlan_id 77\nqnmctl show 0x020000001000\nexit 7\n' |
  timeout 120 "$lab" "$build" >"$work/said" 2>&1 || status=$?
((status == 7)) || fail "the shell ended with $status: $(cat "$work/said")"
grep -q '^Simulated cards are behind' "$work/said" || fail "no greeting: $(cat "$work/said")"
grep -q 'vlan_id  *77' "$work/said" || fail "the card did not obey: $(cat "$work/said")"

status=0
"$lab" "$work" >"$work/said" 2>&1 || status=$?
((status == 1)) || fail "a folder without programs ends with $status"
grep -q 'cmake --build' "$work/said" || fail "it does not say how to build: $(cat "$work/said")"

[[ -z $(ls -A "$TMPDIR") ]] || fail "left behind: $(ls -A "$TMPDIR")"
