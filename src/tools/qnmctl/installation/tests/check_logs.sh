#!/usr/bin/env bash
# The command beside a host program on the same installation: the host's logs stay as they are, and
# what their owner puts in their place leads nowhere. To be run in a network namespace of its own.
#
#   usage: check_logs.sh QNMCTL HOST
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
program=$1
host=$2

readonly other=65534 # a user that owns nothing else here

# shellcheck source=src/tools/qnmctl/tests/rig.sh
. "$here/../../tests/rig.sh"

installed=$work/installed
log=$installed/logs/qnm.log

# qnmctl STATUS ARGUMENT...: it has to end with this exit status.
qnmctl() {
  local wanted=$1 status=0
  shift
  "$program" --dir "$installed" "$@" >"$work/told" 2>"$work/errors" </dev/null || status=$?
  ((status == wanted)) || fail "$*: exit status $status: $(<"$work/errors")"
}

# All that can be told of the logs: kinds, numbers, owners, rights, sizes, times and contents.
logs() {
  (cd "$installed/logs" && stat --format '%n %F %i %u %g %a %s %y' -- * && cksum -- *)
}

# report NAME: unpacked into a folder of that name.
report() {
  qnmctl 0 report "$work/$1.tar.gz" --for 0.1 --force
  rm -rf "${work:?}/$1"
  mkdir "$work/$1"
  tar --extract --file "$work/$1.tar.gz" --directory "$work/$1" --strip-components 1
}

nothing_left() {
  [[ -z $(find "$XDG_STATE_HOME" -mindepth 2) ]] || fail "left: $(find "$XDG_STATE_HOME")"
}

for port in 0 1; do
  ip link add "qnm$port" type veth peer name "qsim$port"
  ip link set "qnm$port" up
  ip link set "qsim$port" up
done

mkdir -p "$installed/conf" "$installed/logs"
echo "ether_port=qnm0,qnm1" >"$installed/conf/qnm.conf"
for name in logfile:qnm syslogfile:qnm_syslog statslogfile:qnm_stats; do
  cat <<END
log4j.logger.${name%:*}=ALL, ${name%:*}
log4j.additivity.${name%:*}=false
log4j.appender.${name%:*}=org.apache.log4j.RollingFileAppender
log4j.appender.${name%:*}.File=$installed/logs/${name#*:}.log
log4j.appender.${name%:*}.MaxFileSize=10KB
log4j.appender.${name%:*}.MaxBackupIndex=1
log4j.appender.${name%:*}.layout=org.apache.log4j.PatternLayout
log4j.appender.${name%:*}.layout.ConversionPattern=%d{ISO8601} %-5p %m%n
END
done >"$installed/conf/qnm_log4c.properties"

# ---- A host program's logs ------------------------------------------------------------------------

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

# ---- What stands in their place ---------------------------------------------------------------------

# leads_nowhere: neither a manager nor a report gets to what the log's name stands for.
leads_nowhere() {
  qnmctl 5 list --for 0.1
  report nowhere
  ! grep --quiet --recursive "a secret" "$work/nowhere" || fail "$1: the report has the secret"
  ! [[ -e $work/nowhere/logs/qnm.log ]] || fail "$1: the report has the log"
  has "$work/nowhere/problems.txt" "logs: $2"
  has "$work/nowhere/manifest.json" "$2"
  has "$work/told" "$2"
  nothing_left
}

rm -f "$installed/logs/"*
echo "a secret" >"$work/secret"
before=$(stat --format '%i %s %y' "$work/secret")
ln -s "$work/secret" "$log"
leads_nowhere "a link" "$log is a symbolic link, which is not followed"
[[ $(stat --format '%i %s %y' "$work/secret") == "$before" ]] || fail "the secret has changed"
rm "$log"
mkfifo "$log"
leads_nowhere "a FIFO" "$log is a FIFO, not a regular file"
rm "$log"
mkdir "$log"
leads_nowhere "a folder" "$log is a directory, not a regular file"
rmdir "$log"
python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])' "$log"
leads_nowhere "a socket" "$log is a socket, not a regular file"
rm "$log"
if mknod "$log" c 1 5 2>/dev/null; then # zeros without end
  leads_nowhere "a device" "$log is a device, not a regular file"
  rm "$log"
fi

# The configuration likewise.
mv "$installed/conf/qnm.conf" "$work/secret.conf"
ln -s "$work/secret.conf" "$installed/conf/qnm.conf"
qnmctl 5 list --for 0.1
report linked
has "$work/linked/problems.txt" "qnm.conf is a symbolic link, which is not followed"
! [[ -e $work/linked/conf/qnm.conf ]] || fail "the report has what qnm.conf stands for"
qnmctl 0 doctor
has "$work/told" "is a symbolic link, which is not followed here"
rm "$installed/conf/qnm.conf"
mkfifo "$installed/conf/qnm.conf"
qnmctl 3 doctor
has "$work/told" "is no regular file"
report fifo
has "$work/fifo/problems.txt" "qnm.conf is a FIFO, not a regular file"
rm "$installed/conf/qnm.conf"
mv "$work/secret.conf" "$installed/conf/qnm.conf"

# The end of a long log, and of the one before it.
head -c 300000 /dev/zero | tr '\0' x | fold --width 99 >"$log"
cp "$log" "$log.1"
report long
size=$(stat --format %s "$log")
for name in qnm.log qnm.log.1; do
  taken=$(stat --format %s "$work/long/logs/$name")
  ((taken <= 262144 && taken > 262000)) || fail "$name: $taken bytes"
  tail -c "$taken" "$installed/logs/$name" | cmp - "$work/long/logs/$name"
  has "$work/long/problems.txt" \
    "logs: $installed/logs/$name has $size bytes; the archive has the last $taken of them"
done
rm "$log" "$log.1"

# Whoever can change the properties file could name any file there.
properties=$installed/conf/qnm_log4c.properties
if chown "$other:$other" "$properties" 2>/dev/null; then
  echo "a secret" >"$log"
  leads_nowhere "another's properties" \
    "$log belongs to another user than $properties, which others can change"
  echo "his own line" >"$log"
  chown "$other:$other" "$log"
  report his
  has "$work/his/logs/qnm.log" "his own line"
  chown 0:0 "$properties"
  rm "$log"
  chown "$other:$other" "$installed/logs"
  ln "$work/secret" "$log"
  leads_nowhere "a hard link" "$log has other names, too, and others can change its folder"
  chown 0:0 "$installed/logs"
  rm "$log"
  # His links lead nowhere, in the place of a folder as well; root's own do.
  mkdir "$work/elsewhere"
  mv "$installed/logs" "$work/logs"
  ln -s "$work/elsewhere" "$installed/logs"
  echo "a secret" >"$work/elsewhere/qnm.log"
  cp "$work/elsewhere/qnm.log" "$work/elsewhere/qnm.log.1"
  chown --no-dereference "$other:$other" "$installed/logs"
  leads_nowhere "a linked folder" "$log lies behind a symbolic link of another user, $installed/logs"
  chown --no-dereference 0:0 "$installed/logs"
  report behind
  has "$work/behind/logs/qnm.log" "a secret"
  rm "$installed/logs"
  mv "$work/logs" "$installed/logs"
  # And in the place of the configuration, whose wrong lines would be quoted.
  for name in qnm.conf qnm_log4c.properties; do
    mv "$installed/conf/$name" "$work/$name"
    ln -s "$work/secret" "$installed/conf/$name"
    chown --no-dereference "$other:$other" "$installed/conf/$name"
    report quoted
    ! grep --quiet --recursive "a secret" "$work/quoted" || fail "$name: the report has the secret"
    has "$work/quoted/problems.txt" "$installed/conf/$name is a symbolic link"
    qnmctl 1 list
    has "$work/errors" "$installed/conf/$name is a symbolic link of another user, which is not followed"
    rm "$installed/conf/$name"
    mv "$work/$name" "$installed/conf/$name"
  done
else
  echo "cannot give files away here, so that was not tried"
fi

# ---- The folder of a run ----------------------------------------------------------------------------

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
