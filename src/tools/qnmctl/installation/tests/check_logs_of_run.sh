#!/usr/bin/env bash
# The folder in which a run of the command has its own logs: private, gone with the run unless it is asked
# for, and removed by the next run when this one was killed. To be run in a network namespace of its own.
#
#   usage: check_logs_of_run.sh QNMCTL
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
readonly other=65534 # a user that owns nothing else here

# shellcheck source=src/tools/qnmctl/installation/tests/logs_rig.sh
. "$here/logs_rig.sh"

# started: a watch in the background, of process $watch, with its folder in $folder.
started() {
  "$program" --dir "$installed" watch >/dev/null 2>"$work/errors" <"$work/input" &
  watch=$!
  pids+=("$watch")
  await compgen -G "$XDG_STATE_HOME/qnmctl/*/qnm.log" >/dev/null
  folder=$(dirname "$(compgen -G "$XDG_STATE_HOME/qnmctl/*/qnm.log")")
}

mkfifo "$work/input"
exec 7<>"$work/input"
for signal in INT TERM HUP; do
  started
  [[ $(stat --format %a "$folder") == 700 ]] || fail "others can look into $folder"
  kill "-$signal" "$watch"
  wait "$watch" || fail "$signal: exit status $?"
  nothing_left
done

# A start that fails, too; its reason stands in a log that is gone by then.
echo "frob=1" >>"$installed/conf/qnm.conf"
qnmctl 16 list
has "$work/errors" "qnm.conf:2: Unknown config parameter: frob"
nothing_left
sed --in-place /frob/d "$installed/conf/qnm.conf"

# One that was killed leaves its folder to the next run, which leaves those of others that run alone.
started
kill -KILL "$watch"
wait "$watch" 2>/dev/null || true
[[ -d $folder ]] || fail "$folder has gone by itself"
killed=$folder
qnmctl 5 list --for 0.1
! [[ -e $killed ]] || fail "$killed is still there"
started
qnmctl 5 list --for 0.1
[[ -e $folder/qnm.log ]] || fail "another run has removed $folder"
kill "$watch"
wait "$watch" || fail "exit status $?"
nothing_left

# One that is asked for stays.
qnmctl 5 --keep-logs list --for 0.1
kept=$(sed -n 's/^qnmctl: the logs are kept in //p' "$work/errors")
has "$kept/qnm.log" "INFO  qnm_init_manager: Initialization was completed"
cmp "$installed/conf/qnm.conf" "$kept/conf/qnm.conf"
qnmctl 5 list --for 0.1
[[ -e $kept/qnm.log ]] || fail "$kept has been removed"
rm -r "$kept"
qnmctl 5 --log "$work/my.log" list --for 0.1
has "$work/my.log" "Initialization was completed"
nothing_left

# What another user could have prepared is not taken.
if chown "$other:$other" "$XDG_STATE_HOME" 2>/dev/null; then
  started_in=$(stat --format '%y' "$XDG_STATE_HOME/qnmctl")
  qnmctl 5 list --for 0.1
  [[ $(stat --format '%y' "$XDG_STATE_HOME/qnmctl") == "$started_in" ]] ||
    fail "a folder was made where another user could have replaced it"
fi
