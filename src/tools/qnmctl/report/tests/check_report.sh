#!/usr/bin/env bash
# The archive that qnmctl report makes of simulated cards: unpacked by tar, every member looked at,
# once as it is and once masked. To be run in a network namespace of its own.
#
#   usage: check_report.sh QNMCTL CARDSIM SCENARIO
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
program=$1
cardsim=$2
scenario=$3

readonly server=0x020000001000 device=0x020000003000

# shellcheck source=src/tools/qnmctl/tests/rig.sh
. "$here/../../tests/rig.sh"

# report STATUS FILE OPTION...: runs it; it has to end with this exit status.
report() {
  local wanted=$1 status=0
  shift
  "$program" --dir "$work/installed" report "$@" >"$work/told" 2>"$work/errors" || status=$?
  ((status == wanted)) || fail "report $*: exit status $status: $(<"$work/errors")"
}

# lacks FILE TEXT
lacks() {
  ! grep --fixed-strings -- "$2" "$1" || fail "$1 has $2"
}

# unpack FILE DIR: its one folder becomes DIR.
unpack() {
  mkdir "$2"
  tar --extract --file "$1" --directory "$2" --strip-components 1
}

start_cards "$cardsim" "$scenario"

# An installation whose logs name cards in ways of their own.
mkdir -p "$work/installed/conf" "$work/installed/logs"
echo "ether_port=qnm0,qnm1" >"$work/installed/conf/qnm.conf"
for log in logfile:qnm-020000001000 syslogfile:qnm_syslog statslogfile:qnm_stats; do
  cat <<END
log4j.logger.${log%:*}=ALL, ${log%:*}
log4j.appender.${log%:*}=org.apache.log4j.FileAppender
log4j.appender.${log%:*}.File=$work/installed/logs/${log#*:}.log
log4j.appender.${log%:*}.layout=org.apache.log4j.PatternLayout
END
done >"$work/installed/conf/qnm_log4c.properties"
cat >"$work/installed/logs/qnm-020000001000.log" <<END
id=0x020000001000 0x20000001000 0X020000003000 2199023259648 020000003000
02:00:00:00:10:00 02-00-00-00-10-00 0200.0000.1000 00 11 02 00 00 00 10 00 22
END
echo "a notice" >"$work/installed/logs/qnm_syslog.log" # and the third one is not there
cp -r "$work/installed" "$work/before"

# A slow machine hears the cards late.
for ((seconds = 1; seconds <= 64; seconds *= 2)); do
  report 0 "$work/clear.tar.gz" --for "$seconds" --force
  rm -rf "$work/clear"
  unpack "$work/clear.tar.gz" "$work/clear"
  ! grep --quiet "$device" "$work/clear/cards.json" || break
done

[[ $(stat --format %a "$work/clear.tar.gz") == 600 ]] || fail "others can read the archive"
[[ $(cd "$work/clear" && find . -type f | sort | tr '\n' ' ') == "./capture.pcapng ./cards.json \
./cards.txt ./conf/qnm.conf ./conf/qnm_log4c.properties ./doctor.txt ./events.txt ./logs/qnm-020000001000.log \
./logs/qnm_syslog.log ./logs/report.log ./manifest.json ./ports.json ./problems.txt \
./statistics.txt ./topology.txt ./versions.json " ]] ||
  fail "other members: $(find "$work/clear")"
diff -r "$work/before" "$work/installed" || fail "the installation has changed"
diff -r "$work/installed/conf" "$work/clear/conf"
cmp "$work/installed/logs/qnm-020000001000.log" "$work/clear/logs/qnm-020000001000.log"
has "$work/clear/problems.txt" "logs: there is no file $work/installed/logs/qnm_stats.log"
has "$work/clear/doctor.txt" "is an Ethernet interface, and up"
lacks "$work/clear/doctor.txt" "not all processes could be looked into"
has "$work/clear/cards.txt" "$server"
has "$work/clear/topology.txt" "$server"
has "$work/clear/events.txt" "NEWDEVINFO"
has "$work/clear/statistics.txt" "qnm status dump"
has "$work/told" "statistics.txt"
has "$work/told" "there is no file $work/installed/logs/qnm_stats.log"
has "$work/told" "$work/clear.tar.gz: "

report 0 "$work/masked.tar.gz" --for "$seconds" --mask-ids
unpack "$work/masked.tar.gz" "$work/masked"
python3 "$here/check_report.py" "$work/clear" "$work/masked"

# A file that is there stays.
before=$(cksum "$work/masked.tar.gz")
report 1 "$work/masked.tar.gz"
has "$work/errors" "$work/masked.tar.gz is there already"
[[ $(cksum "$work/masked.tar.gz") == "$before" ]] || fail "the old archive has changed"
report 1 "$work/nowhere/report.tar.gz"
has "$work/errors" "cannot write $work/nowhere/report.tar.gz: No such file or directory"

# A signal ends it, and nothing is left behind.
mkdir "$work/ended"
"$program" --dir "$work/installed" report "$work/ended/report.tar.gz" --for 600 2>"$work/errors" &
pid=$!
for ((tries = 0; tries < 600; tries++)); do
  [[ -z $(ls "$work/ended") ]] || break
  sleep 0.1
done
kill "$pid"
status=0
wait "$pid" || status=$?
((status == 1)) || fail "ended by a signal: exit status $status"
has "$work/errors" "ended by a signal"
[[ -z $(ls "$work/ended") ]] || fail "it has left $(ls "$work/ended")"

# Without the privilege there is what needs none, under the usual name.
(
  cd "$work/ended"
  setpriv --bounding-set -net_raw --inh-caps -net_raw \
    "$program" --dir "$work/installed" report --for 0.1
) >"$work/told" || fail "without privilege: exit status $?"
names=("$work/ended"/qnm-report-????????-??????.tar.gz)
unpack "${names[0]}" "$work/unprivileged"
for part in cards statistics events; do
  has "$work/unprivileged/problems.txt" "$part: no privilege for raw sockets"
done
has "$work/unprivileged/problems.txt" "capture: "
has "$work/unprivileged/ports.json" '"interface": "qnm1"'
cmp "$work/installed/conf/qnm.conf" "$work/unprivileged/conf/qnm.conf"
