# shellcheck shell=bash
# What the checks of logs share: an installation at two cables without cards, whose three logs are files
# of its own, and the command on it. To be sourced by a script whose first argument is the command's
# program, in a network namespace of its own.

# shellcheck source=src/tools/qnmctl/tests/rig.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../tests/rig.sh"

program=$1
installed=$work/installed
# shellcheck disable=SC2034 # whoever sources this uses it
log=$installed/logs/qnm.log

# qnmctl STATUS ARGUMENT...: it has to end with this exit status.
qnmctl() {
  local wanted=$1 status=0
  shift
  "$program" --dir "$installed" "$@" >"$work/told" 2>"$work/errors" </dev/null || status=$?
  ((status == wanted)) || fail "$*: exit status $status: $(<"$work/errors")"
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

# leads_nowhere WHAT REASON: neither a manager nor a report beside it gets to what the log's name stands
# for, and the report says why.
leads_nowhere() {
  local listing status=0
  "$program" --dir "$installed" list --for 0.1 >"$work/listed" 2>&1 </dev/null &
  listing=$!
  pids+=("$listing")
  report nowhere
  wait "$listing" || status=$?
  ((status == 5)) || fail "$1: list: exit status $status: $(<"$work/listed")"
  ! grep --quiet --recursive "a secret" "$work/nowhere" || fail "$1: the report has the secret"
  ! [[ -e $work/nowhere/logs/qnm.log ]] || fail "$1: the report has the log"
  has "$work/nowhere/problems.txt" "logs: $2"
  has "$work/nowhere/manifest.json" "$2"
  has "$work/told" "$2"
  nothing_left
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
