# The stage that the demonstration plays on: two cables, simulated cards at the far ends, the
# operator's command at the near ends, and the checks of what it reports. To be sourced, within a
# network namespace of its own. Not a program.
#
#     port 0   qnm0 ======== qsim0
#   qnmctl                        qnm-cardsim
#     port 1   qnm1 ======== qsim1
#
# Both programs take commands on standard input. What qnmctl says is read line by line and shown as
# it comes; a check waits for a line, never for a time.
# shellcheck shell=bash

# Seconds that a check waits at most. A normal machine needs less than 5.
readonly limit=60

: "${bin:?has to name the directory of the programs}"

work=        # directory for the pipes
sim_pid=
ctl_pid=
answer=      # of qnm-cardsim, to the last command
ctl_out=     # descriptor of what qnmctl says
half_line=   # of qnmctl, whose end has not come yet
checks=0     # passed so far
repeated=    # command that the next check gives again and again, until it is content
forbidden=   # what must not be seen before the next check has passed, and its name
forbidden_name=

if [[ -t 1 ]]; then
  readonly bold=$'\e[1m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
else
  readonly bold='' green='' red='' plain=''
fi
if [[ $(locale charmap 2>/dev/null) == UTF-8 ]]; then
  readonly tick='✓'
else
  readonly tick='+'
fi

# ---- What is shown -----------------------------------------------------------------------------

# act TITLE, then a line for each further argument: what is done and what is to be expected. Lines
# that still belong to the act before are shown first.
act() {
  show_rest
  printf '\n%s== %s%s\n' "$bold" "$1" "$plain"
  shift
  printf '   %s\n' "$@"
}

# Ends the demonstration: says what is missing, and prints the errors of the cards. Those of the
# operator's command are among its lines.
fail() {
  printf '%s   MISSING: %s%s\n' "$red" "$*" "$plain"
  local line
  if [[ -s $work/qnm-cardsim.err ]]; then
    echo '   qnm-cardsim said:'
    while IFS= read -r line; do
      printf '     %s\n' "$line"
    done < <(tail -n 20 "$work/qnm-cardsim.err")
  fi
  exit 1
} >&2

passed() {
  checks=$((checks + 1))
  printf '   %s%s seen: %s%s\n' "$green" "$tick" "$1" "$plain"
}

# ---- The programs ------------------------------------------------------------------------------

make_cable() {
  ip link add "$1" type veth peer name "$2"
  ip link set "$1" up
  ip link set "$2" up
}

# Ends a program that is not wanted any more, if need be by force.
stop() {
  local tries
  kill "$1" 2>/dev/null || return 0
  for ((tries = 0; tries < 50; tries++)); do
    kill -0 "$1" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL "$1"
}

clear_stage() {
  trap - EXIT
  local pid
  for pid in $ctl_pid $sim_pid; do stop "$pid"; done
  rm -rf "$work"
}

# Two pipes to a program, which have to be there before it starts.
make_pipes() {
  mkfifo "$work/$1.in" "$work/$1.out"
}

set_stage() {
  work=$(mktemp -d "${TMPDIR:-/tmp}/qnm-demo.XXXXXX")
  # Leaves nothing behind, even of a program that had to be killed.
  export TMPDIR=$work XDG_STATE_HOME=$work/state
  trap clear_stage EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM HUP
  trap : PIPE # a program that is gone shows as a failed write, which is reported
  make_cable qnm0 qsim0
  make_cable qnm1 qsim1
}

# start_sim ARGUMENT...
start_sim() {
  make_pipes qnm-cardsim
  "$bin/qnm-cardsim" "$@" \
    <"$work/qnm-cardsim.in" >"$work/qnm-cardsim.out" 2>"$work/qnm-cardsim.err" &
  sim_pid=$!
  exec {sim_in}>"$work/qnm-cardsim.in" {sim_out}<"$work/qnm-cardsim.out"
}

# start_ctl ARGUMENT...
start_ctl() {
  make_pipes qnmctl
  "$bin/qnmctl" "$@" <"$work/qnmctl.in" >"$work/qnmctl.out" 2>&1 &
  ctl_pid=$!
  exec {ctl_in}>"$work/qnmctl.in" {ctl_out}<"$work/qnmctl.out"
}

# Gives the simulated cards a command, and waits until it is done. The answer is left in $answer.
sim() {
  printf '   %s> %s%s\n' "$bold" "cards: $*" "$plain"
  { echo "$*" >&"$sim_in"; } 2>/dev/null || fail "qnm-cardsim has ended"
  read -r -t "$limit" -u "$sim_out" answer || fail "an answer of qnm-cardsim to '$*'"
  [[ $answer == ok* ]] || fail "qnm-cardsim doing '$*'; it said: $answer"
}

# Shows the last answer of the cards, an item a line.
show_answer() {
  printf '     %s\n' "${answer//; /$'\n'     }"
}

# Gives the operator's command a command. What it answers is left to the next check.
ctl() {
  printf '   %s> %s%s\n' "$bold" "operator: $*" "$plain"
  { echo "$*" >&"$ctl_in"; } 2>/dev/null || fail "qnmctl has ended"
}

# Pulls the cable of a port out of the far end, or puts it back in.
cable() {
  printf '   %s> %s%s\n' "$bold" "ip link set $1 $2" "$plain"
  ip link set "$1" "$2"
}

# ---- The checks --------------------------------------------------------------------------------

# What must not be reported before the next check has passed.
forbid() {
  forbidden_name=$1
  forbidden=$2
}

# read_line SECONDS: takes the next line of the operator's command into $line and shows it. Fails
# with a status above 128 when none came in time; half a line is kept until its end comes.
read_line() {
  local got status=0
  IFS= read -r -t "$1" -u "$ctl_out" got || status=$?
  half_line+=$got
  ((status == 0)) || return "$status"
  line=$half_line
  half_line=
  printf '     %s\n' "$line"
}

# Reads a line by $deadline at the latest.
next_line() {
  local left status wait=$limit
  if [[ -n $repeated ]]; then
    wait=2
  fi
  while left=$((deadline - SECONDS)) && ((left > 0)); do
    status=0
    read_line $((left < wait ? left : wait)) || status=$?
    if ((status <= 128)); then
      return "$status" # a line, or the end of the program
    fi
    if [[ -n $repeated ]]; then
      ctl "$repeated"
    fi
  done
  return 1
}

# Shows what still comes without delay, for two seconds at most.
show_rest() {
  local line until=$((SECONDS + 2))
  while [[ -n $ctl_out ]] && ((SECONDS < until)) && read_line 0.3; do :; done
}

# expect WHAT REGEX [WHAT REGEX]...
# Shows the lines of the operator's command until each REGEX has matched one, in whatever order.
expect() {
  local -a names=() patterns=() open
  while (($# > 0)); do
    names+=("$1")
    patterns+=("$2")
    shift 2
  done
  open=("${!names[@]}")
  local deadline=$((SECONDS + limit)) line i
  while ((${#open[@]} > 0)); do
    if ! next_line; then
      for i in "${open[@]}"; do echo "   no line like: ${patterns[i]}"; done >&2
      fail "${names[${open[0]}]}"
    fi
    if [[ -n $forbidden && $line =~ $forbidden ]]; then
      fail "$forbidden_name"
    fi
    for i in "${!open[@]}"; do
      if [[ $line =~ ${patterns[${open[i]}]} ]]; then
        unset "open[$i]"
      fi
    done
    open=("${open[@]}")
  done
  for i in "${names[@]}"; do passed "$i"; done
  if [[ -n $forbidden ]]; then
    passed "$forbidden_name"
    forbidden=
  fi
}

# ask COMMAND WHAT REGEX [WHAT REGEX]...
# Gives the operator's command a command, and again every two seconds until the answers have shown
# all that is expected.
ask() {
  repeated=$1
  shift
  ctl "$repeated"
  expect "$@"
  repeated=
}

# expect_answer WHAT REGEX: shows the last answer of the cards, which has to match.
expect_answer() {
  show_answer
  [[ $answer =~ $2 ]] || fail "$1"
  passed "$1"
}

# await_end PROGRAM PID OUTPUT: shows the last lines of a program, and has a look at how it ends.
await_end() {
  local line status=0
  while IFS= read -r -t "$limit" -u "$3" line || status=$?; ((status == 0)); do
    printf '     %s\n' "$line"
  done
  ((status <= 128)) || fail "the end of $1: it is still there after $limit seconds"
  wait "$2" || fail "a clean end of $1: its exit status is $?"
  passed "$1 ends cleanly"
}

end_programs() {
  ctl quit
  await_end qnmctl "$ctl_pid" "$ctl_out"
  ctl_pid=
  sim quit
  await_end qnm-cardsim "$sim_pid" "$sim_out"
  sim_pid=
}
