#!/usr/bin/env bash
# Captures what simulated cards and a manager send, and reads it by tshark and by the command itself.
# To be run in a network namespace of its own.
#
#   usage: check_capture.sh QNMCTL CARDSIM SCENARIO SCHEMA
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
program=$1
cardsim=$2
scenario=$3
schema=$4

readonly server=0x020000001000

# shellcheck source=src/tools/qnmctl/tests/rig.sh
. "$here/../../tests/rig.sh"

qnmctl() {
  "$program" --ports qnm0,qnm1 --set devinfo_flag_check_interval=10 "$@"
}

# fields FILE FILTER FIELD...: by tshark, without dissectors of somebody's own.
fields() {
  local file=$1 filter=$2 field
  local -a wanted=()
  shift 2
  for field in "$@"; do wanted+=(-e "$field"); done
  HOME=$work tshark -r "$file" -Y "$filter" -T fields "${wanted[@]}" 2>/dev/null
}

start_cards "$cardsim" "$scenario"

# Announcements, a request with its answer, and a frame of another kind; then it is interrupted.
capture=$work/capture.pcapng
"$program" --ports qnm0,qnm1 capture "$capture" -o json >"$work/capture.json" 2>"$work/errors" &
capturing=$!
pids+=("$capturing")
await test -s "$capture"
qnmctl reg read "$server" 0x1000 >/dev/null
other=ff:ff:ff:ff:ff:ff
ip neigh add 192.0.2.2 lladdr $other dev qsim0
ip addr add 192.0.2.1/24 dev qsim0
ping -c 1 -W 1 192.0.2.2 >/dev/null 2>&1 || true
answered() {
  "$program" decode "$capture" 2>/dev/null | grep ', answers frame ' >/dev/null
}
foreign() {
  "$program" decode "$capture" --dropped 2>/dev/null | grep 'type=0x' >/dev/null
}
await answered
await foreign
kill -INT "$capturing"
wait "$capturing" || fail "the capture ended with exit status $?: $(<"$work/errors")"

# What the summary, tshark and decode count.
count=$(fields "$capture" frame frame.number | wc -l)
told=$(python3 -c '
import json, sys
told = json.load(open(sys.argv[1]))["records"][0]
print(sum(port["frames"] for port in told["ports"]), sum(port["dropped"] for port in told["ports"]),
      sum(reason["frames"] for reason in told["reasons"]))' "$work/capture.json")
read -r frames dropped reasons <<<"$told"
((count > 0 && frames == count && dropped == reasons)) || fail "$count frames, told: $told"
[[ $(fields "$capture" frame frame.interface_name | sort -u | paste -sd ' ') == "qnm0 qnm1" ]] ||
  fail "interfaces: $(fields "$capture" frame frame.interface_name | sort -u)"
fields "$capture" frame.comment frame.comment >"$work/comments"
((dropped > 0 && $(wc -l <"$work/comments") == dropped)) ||
  fail "$dropped frames dropped, with comments: $(<"$work/comments")"
has "$work/comments" "Ether type is mismatch."
# What this host has sent is outbound, the rest inbound.
own=$(ip -brief link show qnm0 | awk '{print $3}')
ways=$(fields "$capture" "eth.src==$own" frame.packet_flags_direction | sort -u)
[[ $ways == 0x00000002 || $ways == 2 ]] || fail "sent frames have the direction $ways"
ways=$(fields "$capture" "eth.src==02:00:00:00:10:00" frame.packet_flags_direction | sort -u)
[[ $ways == 0x00000001 || $ways == 1 ]] || fail "announcements have the direction $ways"

"$program" decode "$capture" -o jsonl >"$work/frames.jsonl"
(($(wc -l <"$work/frames.jsonl") == count)) || fail "decode does not tell $count frames"
has "$work/frames.jsonl" '"interface":"qnm1"'
has "$work/frames.jsonl" '"address":4096'
fields "$capture" frame frame.comment >"$work/by-tshark"
python3 - "$work/frames.jsonl" "$work/by-tshark" <<'END'
import json, sys
told = [json.loads(line) for line in open(sys.argv[1])]
wanted = [line.rstrip("\n") for line in open(sys.argv[2])]
texts = [(one["dropped"] or {}).get("text", "") for one in told]
if texts != wanted:
    sys.exit("the reasons of decode are not the comments of the file")
END
"$program" decode "$capture" --card "$server" --message completion --count 1 -v >"$work/one"
has "$work/one" "Completion tag"
has "$work/one" "register value"
"$program" decode "$capture" | sed 's/ qnm[01] / /' >"$work/by-name"
"$program" decode - <"$capture" >"$work/by-input"
cmp "$work/by-name" "$work/by-input" || fail "standard input is read differently"

# A file that is cut is read up to there.
head -c "$(($(stat -c %s "$capture") - 150))" "$capture" >"$work/cut.pcapng"
status=0
"$program" decode "$work/cut.pcapng" >"$work/cut" 2>"$work/errors" || status=$?
((status == 1 && $(wc -l <"$work/cut") > 0)) || fail "a file that is cut: exit status $status"
has "$work/errors" "truncated"

# Limits, standard output, and places that cannot be written.
qnmctl capture - --count 3 2>/dev/null | "$program" decode - >"$work/three"
(($(wc -l <"$work/three") == 3)) || fail "not three frames: $(<"$work/three")"
qnmctl capture "$work/timed" --for 0.1 >/dev/null
for place in "$work" /nowhere/capture; do
  status=0
  qnmctl capture "$place" 2>"$work/errors" || status=$?
  ((status == 1)) || fail "$place: exit status $status"
  has "$work/errors" "cannot write $place"
done
status=0
"$program" --ports nowhere0 capture "$capture" 2>"$work/errors" || status=$?
((status == 1 && $(stat -c %s "$capture") > 1000)) || fail "an older file was not kept"

# A disk that gets full keeps whole frames.
mkdir "$work/small"
mount -t tmpfs -o size=8k none "$work/small"
status=0
qnmctl capture "$work/small/full" 2>"$work/errors" || status=$?
((status == 1)) || fail "a full disk: exit status $status"
has "$work/errors" "No space left on device"
"$program" decode "$work/small/full" >"$work/full" || fail "a full disk leaves half a frame"
(($(wc -l <"$work/full") > 5)) || fail "a full disk leaves nothing: $(<"$work/full")"
cat /dev/zero >"$work/small/rest" 2>"$work/errors" || true
status=0
qnmctl capture "$work/small/none" 2>"$work/errors" || status=$?
((status == 1)) || fail "a disk without any room: exit status $status"
has "$work/errors" "The file is empty"

python3 "$here/../../tests/check_schema.py" "$schema" "$work/capture.json" "$work/frames.jsonl"
