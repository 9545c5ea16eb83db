#!/usr/bin/env bash
# The acts of the demonstration. demo.sh starts it, within a network namespace of its own.
#
#   usage: demo-acts.sh DIRECTORY      with qnm-cardsim and qnmctl in it
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
bin=$1
# shellcheck source=scripts/stage.sh
. "$root/scripts/stage.sh"

readonly scenario=$root/src/tools/cardsim/scenarios/demo.toml

# The cards of the scenario, by ID.
readonly sv_10g=0x020000001000 sv_40g=0x020000002000
readonly io_10g=0x020000003000 io_40g=0x020000004000
readonly io_multiroot=0x020000005000 io_tagchange=0x020000006000

# These print what a line looks like.
# event TYPE CARD WORDS
event() {
  echo " $1 +QN(SV|IO) $2  .*$3"
}

# A path of a card is connected. One that was heard before its card was reported as new stands in
# the list there.
comes_up() {
  echo " $1  .*(, connected( P[01]M[01])* $2|path $2 (disconnected|never heard) -> connected)"
}

# goes_down CARD PATH WHY
goes_down() {
  event CHANNELSTATECHANGE "$1" "path $2 connected -> disconnected.*\\($3"
}

goes_down_with_port1() {
  goes_down "$1" "$2" 'link down on port 1\)'
}

# row KIND CARD TYPE VLAN P0M0 P0M1 P1M0 P1M1 MODE RESOURCE [TROUBLE], of the table of cards
row() {
  echo "^$1 $2 +$3 +$4 +[0-9]+ +$5 +$6 +$7 +$8 +$9 +${10}${11:+ ${11}}\$"
}

raise_curtain() {
  act 'The stage' \
    'Two cables (veth pairs) in a private network namespace; nothing of this machine is touched.' \
    '' \
    '               port 0   qnm0 ======== qsim0' \
    '  operator (qnmctl)                        cards (qnm-cardsim)' \
    '               port 1   qnm1 ======== qsim1' \
    '' \
    'Cards announce themselves every half second over each of their paths. P0M1 means: by local' \
    'port 0, over path 1 of the card. 1G/10G cards have path 0 only, 40G cards have two. A path' \
    'counts as lost when nothing was heard over it for 2 seconds. QNSV cards sit in servers, QNIO' \
    'cards carry a device. These are the cards that are going to appear:'
  set_stage
  start_sim "$scenario" --ports qsim0,qsim1 --quiet
  sim list
  show_answer
}

learn_cards() {
  act 'Cards appear' \
    'The operator starts watching. Expected: every card is reported once as NEWDEVINFO, whichever' \
    'path is heard first. Each further path follows as UPDATEDEVINFO (something changed) and' \
    'CHANNELSTATECHANGE (a path came or went). The operator reads the card when he gets the' \
    'event; what he knew by then from an event before is not told again.'
  start_ctl --ports qnm0,qnm1 \
    --set devinfo_expire_time=2000 --set devinfo_check_interval=1000 watch --all
  expect \
    'sv-10g, a server card of 1G/10G' "$(event NEWDEVINFO "$sv_10g" '1/10G, VLAN ID 10')" \
    'sv-40g, a server card of 40G' "$(event NEWDEVINFO "$sv_40g" '40G, VLAN ID 20')" \
    'sv-40g over P0M0' "$(comes_up "$sv_40g" P0M0)" \
    'sv-40g over P0M1, its second path' "$(comes_up "$sv_40g" P0M1)" \
    'sv-40g over P1M0' "$(comes_up "$sv_40g" P1M0)" \
    'sv-40g over P1M1, its second path' "$(comes_up "$sv_40g" P1M1)" \
    'io-10g, an I/O card of 1G/10G' "$(event NEWDEVINFO "$io_10g" '1/10G, VLAN ID 10')" \
    'io-40g, an I/O card of 40G' "$(event NEWDEVINFO "$io_40g" '40G, VLAN ID 20')" \
    'io-multiroot, a multi-root card' "$(event NEWDEVINFO "$io_multiroot" '40G, .*resource ID 7')" \
    'io-tagchange, in VLAN-tag change mode' "$(event NEWDEVINFO "$io_tagchange" 'VLAN mode CHANGE')"
}

change_cards() {
  act 'Cards change' \
    'io-10g moves from VLAN 10 to 11, a fault shows on its link 0, and it raises an error. sv-10g' \
    'loses the I/O card behind its down port 0.' \
    'Expected: what was, what is now and why, and beside UPDATEDEVINFO the event that belongs to' \
    'each.'
  sim set io-10g vlan_id 11
  sim set io-10g link0_fault true
  sim set io-10g int_vector 4
  sim set sv-10g down_port.0.connected false
  sim notify io-10g
  sim notify sv-10g
  expect \
    'the new VLAN of io-10g' "$(event UPDATEDEVINFO "$io_10g" 'VLAN ID 10 -> 11')" \
    'its error' "$(event MAJORMINORERROR "$io_10g" 'interrupt vector 0x00 -> 0x04')" \
    'its link fault' "$(event PATHSTATECHANGE "$io_10g" 'link 0 fault cleared -> raised')" \
    'the connection that sv-10g has lost' \
    "$(event CONNECTIONCHANGE "$sv_10g" 'down port 0 QNIO card connected -> disconnected')"
}

lose_path() {
  act 'A path falls silent' \
    'sv-40g stops announcing itself over its path 1 to port 0, and only there.' \
    'Expected: after 2 to 3 seconds of silence that path, P0M1, counts as disconnected.'
  sim silence sv-40g 0 1
  expect 'the path is given up' "$(goes_down "$sv_40g" P0M1 'expired after [0-9]+ ms\)')"

  act '... and is heard again' 'Expected: the path is back with the next announcement.'
  sim wake sv-40g 0 1
  expect 'the path is back' "$(comes_up "$sv_40g" P0M1)"
}

# What port 1 hears: card, name and path in turn.
readonly heard_by_port1=(
  "$sv_10g" sv-10g P1M0
  "$sv_40g" sv-40g P1M0
  "$sv_40g" sv-40g P1M1
  "$io_10g" io-10g P1M0
  "$io_multiroot" io-multiroot P1M0
  "$io_multiroot" io-multiroot P1M1
  "$io_tagchange" io-tagchange P1M0
)

# expect_port1 WORD LINE: the same of each of them, where LINE prints what the line looks like.
expect_port1() {
  local -a wanted=()
  local i
  for ((i = 0; i < ${#heard_by_port1[@]}; i += 3)); do
    wanted+=("${heard_by_port1[i + 1]} $1 ${heard_by_port1[i + 2]}"
      "$("$2" "${heard_by_port1[i]}" "${heard_by_port1[i + 2]}")")
  done
  expect "${wanted[@]}"
}

lose_port() {
  act "Port 1's link goes down" \
    'The far end of the cable of port 1 is taken down.' \
    'Expected: at once, without waiting for any time to run out, every card that is heard by' \
    'port 1 loses its paths there. What port 0 hears stays; io-40g is heard by port 0 only.'
  cable qsim1 down
  expect_port1 loses goes_down_with_port1

  act '... and comes back' 'Expected: the same paths return with the next announcements.'
  cable qsim1 up
  expect_port1 regains comes_up
}

stop_monitoring() {
  act 'Monitoring of a card is stopped' \
    'The operator stops the monitoring of io-multiroot. Then somebody presses the UID switch of' \
    'io-multiroot, and after that the one of io-10g.' \
    'Expected: only the second is reported.'
  ctl monitor stop "$io_multiroot"
  expect 'the order is accepted' "^monitor stop $io_multiroot: QNM_API_SUCCESS"
  sim set io-multiroot uid_switch true
  sim notify io-multiroot
  sim set io-10g uid_switch true
  sim notify io-10g
  forbid 'nothing of io-multiroot before it' "$io_multiroot  .*UID switch"
  expect 'the switch of io-10g' "$(event UPDATEDEVINFO "$io_10g" 'UID switch off -> on \(announced\)')"

  act '... and restarted' \
    'Expected: the next announcement of io-multiroot brings it back, with all that has changed.' \
    'Its paths count anew, each from its own announcement on.'
  ctl monitor restart "$io_multiroot"
  expect \
    'the order is accepted' "^monitor restart $io_multiroot: QNM_API_SUCCESS" \
    'io-multiroot is back' "$(event UPDATEDEVINFO "$io_multiroot" 'UID switch off -> on.*\(restarted\)')"
}

show_table() {
  act 'The table of cards' \
    'Expected: all six, connected (C) over every path that they announce themselves on.'
  ask list \
    'sv-10g' "$(row QNSV "$sv_10g" 1/10G 10 C - C - NORMAL -)" \
    'sv-40g, over four paths' "$(row QNSV "$sv_40g" 40G 20 C C C C NORMAL -)" \
    'io-10g, in its new VLAN, with what is wrong' \
    "$(row QNIO "$io_10g" 1/10G 11 C - C - NORMAL 0 'link 0 fault, vector 0x04')" \
    'io-40g, by port 0 only' "$(row QNIO "$io_40g" 40G 20 C C - - NORMAL 0)" \
    'io-multiroot, with its resource ID' "$(row QNIO "$io_multiroot" 40G 30 C C C C NORMAL 7)" \
    'io-tagchange, in its VLAN mode' "$(row QNIO "$io_tagchange" 1/10G 40 C - C - CHANGE 0)" \
    'two server cards, four I/O cards' '^2 QNSV, 4 QNIO$'
}

show_topology() {
  act 'Which card stands behind which' \
    'Both sides report it. sv-10g lost the I/O card behind its down port 0, but io-10g still says' \
    'that it is bound to sv-10g. Expected: that is marked; what both sides report is not.'
  ask topology \
    'io-40g behind sv-40g' "port 15 QNIO $io_40g  40G, VLAN ID 20\$" \
    'io-10g, which sv-10g does not report' "no port QNIO $io_10g .*! the QNSV card reports it" \
    'a card without a server card' "QNIO $io_tagchange  1/10G, VLAN ID 40\$"
}

# On a busy machine an answer may come later than an access waits for it.
access_registers() {
  act 'Registers' \
    'The operator reads a register of sv-10g; writes one and has it read back until it holds; and' \
    'dumps a range of io-10g. Cards answer reads; what is written they do not acknowledge.' \
    'Expected: the values of the scenario, and the one that was written, as the card has it now.'
  ask "reg read $sv_10g 0x1000" \
    'the value of the register' "^$sv_10g register 0x00001000: 0x20261121"
  ask "reg write $sv_10g 0x1008 0xCAFE --verify" \
    'the verified write' "^$sv_10g register 0x00001008: 0x0000cafe verified"
  sim reg sv-10g 0x1008
  expect_answer 'the written value in the card' '=0x0000cafe$'
  ask "reg dump $io_10g 0x2000 0x2010" \
    'four registers' '^0x00002000  00000001 00000002 00000003 00000005 '
}

access_eeprom() {
  act 'An EEPROM' \
    'The first 64 bytes of the EEPROM of sv-40g, word by word, each under the lock that the card' \
    'keeps. Expected: the text that the scenario put there.'
  ask "eeprom dump $sv_40g 0 0x40" \
    'the text' '^0x00000000 .* \|SERVER CARD 40G\.\|' \
    'the end of the range' '^0x00000030 '
}

set_vlan() {
  act 'A VLAN ID is set' \
    'The operator moves io-10g to VLAN 99 and waits until the card announces it.' \
    'Expected: the confirmation, and the event that every watcher gets.'
  ask "vlan $io_10g 99 --verify" \
    'the confirmation by the card' "^$io_10g VLAN ID 99 announced by the card" \
    'the event' "$(event UPDATEDEVINFO "$io_10g" 'VLAN ID 11 -> 99')"
}

show_status() {
  act 'The status dump' \
    'What the library writes into its statistics log at every stats_interval, here on demand:' \
    'state, ports, cards, memory, what was received, results of calls, configuration.' \
    'Expected: the link of port 1 was down once; two server cards, four I/O cards.'
  ask stats \
    'the head of the dump' '^\*\*\* .* qnm status dump \(v0\)' \
    'one link-down' 'Total down: 1$' \
    'two server cards' 'qnsv total: 2$' \
    'four I/O cards' 'qnio total: 4$' \
    'announcements of 40G cards' 'QNM_STATS_R_DEV40 +: [1-9]' \
    'nothing on the black list' '^    no entry\.' \
    'the configuration, to its end' '^    ether_type +: 0x88b6'
}

raise_curtain
learn_cards
change_cards
lose_path
lose_port
stop_monitoring
show_table
show_topology
access_registers
access_eeprom
set_vlan
show_status
act 'The end' 'Both programs are told to quit. Expected: each ends by itself, with exit status 0.'
end_programs
printf '\n%sAll %d things expected were seen, in %d seconds.%s\n' \
  "$bold" "$checks" "$SECONDS" "$plain"
