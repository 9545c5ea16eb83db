#!/usr/bin/env bash
# Every command against simulated cards: what it tells in JSON keeps to the schema, and a document
# ends with the exit status. The commands that can be lines are told in lines, too, by one watch. To
# be run in a network namespace of its own.
#
#   usage: check_output.sh QNMCTL CARDSIM SCENARIO SCHEMA
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
program=$1
cardsim=$2
scenario=$3
schema=$4

readonly server=0x020000001000 device=0x020000003000 multiroot=0x020000005000

# shellcheck source=src/tools/qnmctl/tests/rig.sh
. "$here/rig.sh"

qnmctl() {
  "$program" --ports qnm0,qnm1 --set devinfo_flag_check_interval=10 "$@"
}

# tell STATUS NAME COMMAND...: runs it; it has to end with this exit status, and to say so.
tell() {
  local wanted=$1 name=$2 status=0
  shift 2
  qnmctl "$@" -o json >"$work/$name.json" 2>"$work/$name.errors" </dev/null || status=$?
  ((status == wanted)) || fail "$*: exit status $status; $(<"$work/$name.errors")"
  [[ $(tail -n 1 "$work/$name.json") == *"\"status\":$wanted}" ]] ||
    fail "$*: the document does not end with its status"
}

# meanwhile COMMAND...: beside those that follow, until all_told.
meanwhile() {
  "$@" &
  beside+=("$!")
}

all_told() {
  local one
  for one in "${beside[@]}"; do
    wait "$one" || exit 1 # it has said why
  done
  beside=()
}

# Cards can be missed by somebody who only waits for a second.
offer_cards() {
  local tries
  for ((tries = 0; tries < 60; tries++)); do
    "$program" complete -- --ports qnm0,qnm1 show '' >"$work/offered"
    ! grep --quiet "^$server" "$work/offered" || break
  done
  has "$work/offered" "$server	QNSV card of group 16"
}

# told TEXT: by the watch.
told() {
  grep --quiet --fixed-strings -- "$1" "$work/lines.jsonl"
}

beside=()
mkfifo "$work/lines"
start_cards "$cardsim" "$scenario"

head -c 128 /dev/zero >"$work/page"
head -c 16 /dev/zero >"$work/image"

# Those that only listen go beside the others; of those that access cards there is one at a time.
meanwhile tell 0 watch watch --count 8 --kind qnio
meanwhile tell 0 list list --for 2
meanwhile tell 0 show show "$server"
meanwhile tell 0 topology topology --for 2
meanwhile tell 0 stats stats --for 0.1
meanwhile tell 0 report report "$work/report.tar.gz" --for 0.1
meanwhile tell 13 unheard show 0x99 --for 0.1
tell 0 reg-read reg read "$server" "$device" 0x1000
tell 0 reg-write reg write "$server" 0x1008 7 --verify
tell 0 reg-modify reg modify "$server" 0x1008 1 0x0F
tell 0 reg-dump reg dump "$device" 0x2000 0x2010
tell 0 eeprom-read eeprom read "$server" 0
tell 0 eeprom-write eeprom write "$server" 0x100 1
tell 0 eeprom-dump eeprom dump "$server" 0 16
tell 0 eeprom-restore eeprom restore "$device" "$work/image" --yes
tell 2 refused eeprom restore "$device" "$work/image"
tell 0 eeprom-unlock eeprom unlock "$server"
all_told
tell 0 vlan vlan "$server" 16
meanwhile offer_cards
tell 0 mms mms "$multiroot" 1 "$work/page"
tell 0 reset reset "$device" 1
tell 0 capture capture "$work/capture" --count 4
tell 0 decode decode "$work/capture"
tell 0 completion completion bash
all_told
tell 0 doctor doctor

has "$work/watch.json" '"event":"NEWDEVINFO","kind":"QNIO"'
has "$work/list.json" "$server"
has "$work/show.json" '"record":"card","kind":"QNSV"'
has "$work/topology.json" '"agreed":true'
has "$work/stats.json" 'qnm status dump'
has "$work/reg-write.json" '"verified":true'
has "$work/reg-dump.json" '"words":[1,2,3,5]'
has "$work/capture.json" '"interface":"qnm0"'
has "$work/decode.json" '"record":"frame"'
has "$work/report.json" '"record":"archive"'
has "$work/doctor.json" '"check":"link","severity":"ok"'
has "$work/unheard.json" '"result":"QNM_API_ENOENT"'

qnmctl watch -o jsonl <"$work/lines" >"$work/lines.jsonl" &
watch=$!
pids+=("$watch")
exec 8>"$work/lines"
await told "\"event\":\"NEWDEVINFO\",\"kind\":\"QNSV\",\"id\":\"$server\""
await told "\"event\":\"NEWDEVINFO\",\"kind\":\"QNIO\",\"id\":\"$device\""
cat >&8 <<END
list
show $device
topology
stats
monitor stop $device
monitor restart $device
reg read $server 0x1000
reg dump $server 0x1000 0x1010
eeprom dump $server 0 8
loglevel error
show 0x99
frob
help
quit
END
wait "$watch" || fail "the watch ended with exit status $?"
for record in card qnsv unbound stats monitor result dump loglevel error help; do
  has "$work/lines.jsonl" "\"record\":\"$record\""
done

python3 "$here/check_schema.py" "$schema" "$work"/*.json "$work"/*.jsonl
