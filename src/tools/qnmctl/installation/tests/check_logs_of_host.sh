#!/usr/bin/env bash
# The command beside a host program on the same installation: the host's logs stay as they are. To be run
# in a network namespace of its own.
#
#   usage: check_logs_of_host.sh QNMCTL HOST
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
host=$2

# shellcheck source=src/tools/qnmctl/installation/tests/logs_rig.sh
. "$here/logs_rig.sh"

# All that can be told of the logs: kinds, numbers, owners, rights, sizes, times and contents.
logs() {
  (cd "$installed/logs" && stat --format '%n %F %i %u %g %a %s %y' -- * && cksum -- *)
}

# Almost full, so that little makes it roll.
for ((line = 0; line < 90; line++)); do
  printf '%099d\n' "$line"
done >"$log"
mkfifo "$work/keys"
"$host" "$installed" <"$work/keys" >/dev/null 2>&1 &
host_pid=$!
pids+=("$host_pid")
exec 8>"$work/keys"
await grep --quiet 'Initialization was completed' "$log"
kill -STOP "$host_pid" # it has written what it has; all that is new now is the command's
before=$(logs)
for ((run = 0; run < 3; run++)); do
  qnmctl 5 list --for 0.1
done
qnmctl 0 stats --for 0.1
has "$work/told" "qnm status dump"
report beside
has "$work/beside/logs/qnm.log" "Initialization was completed"
[[ $(logs) == "$before" ]] || fail "of the host's logs there were
$before
and there are
$(logs)"
readlink "/proc/$host_pid/fd/"* | grep --quiet --line-regexp --fixed-strings "$log" ||
  fail "the host program's log is another file now: $(ls -l "/proc/$host_pid/fd")"
nothing_left
kill -CONT "$host_pid"
echo >&8
wait "$host_pid" || fail "the host program ended with exit status $?"
