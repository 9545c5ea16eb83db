# shellcheck shell=bash
# What the checks that run qnmctl beside simulated cards share: a directory for their files, two
# cables with cards at the far ends (qsim0 and qsim1) that follow the orders written to descriptor 9,
# and the waits. To be sourced in a network namespace of its own.

work=$(mktemp -d)
export XDG_STATE_HOME=$work/state # where the command has its logs
mkdir "$XDG_STATE_HOME"
pids=()
clear_up() {
  ((${#pids[@]} == 0)) || kill "${pids[@]}" 2>/dev/null || true
  if mountpoint --quiet "$work/small"; then umount "$work/small"; fi
  rm -rf "$work"
}
trap clear_up EXIT

fail() {
  echo "$*" >&2
  exit 1
}

# has FILE TEXT
has() {
  grep --quiet --fixed-strings -- "$2" "$1" || fail "$1 has no $2: $(head -c 2000 "$1")"
}

# await COMMAND...: until it succeeds, which only a failure keeps it from for a minute.
await() {
  local tries
  for ((tries = 0; tries < 600; tries++)); do
    ! "$@" || return 0
    sleep 0.1
  done
  fail "in vain: $*"
}

# start_cards CARDSIM SCENARIO
start_cards() {
  local port
  for port in 0 1; do
    ip link add "qnm$port" type veth peer name "qsim$port"
    ip link set "qnm$port" up
    ip link set "qsim$port" up
  done
  mkfifo "$work/orders"
  "$1" "$2" --ports qsim0,qsim1 --quiet <"$work/orders" >/dev/null &
  pids+=("$!")
  exec 9>"$work/orders" # it ends with its standard input
}
