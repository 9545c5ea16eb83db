# Builds host programs against an installed library and runs them among simulated cards; to be
# sourced, and brings common.sh. Not a program of its own.
# shellcheck shell=bash

# shellcheck source=test/install/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# The manager's ends of the cables.
ports=(qnm0 qnm1)

# The cards of the scenario that every host has to report.
readonly cards=(0x020000001000 0x020000002000)

# The host that the documents show, and one in C++, by both ways.
#   usage: build_hosts ROOT     where the library is installed in ROOT/usr
build_hosts() {
  local root=$1 way=$work/pkg-config
  local -a flags
  mkdir -p "$way" "$work/consumer"
  cp "$source"/test/install/consumer/* "$source/docs/examples/host.c" "$work/consumer"

  read -ra flags < <(PKG_CONFIG_SYSROOT_DIR=$root PKG_CONFIG_LIBDIR=$root/usr/$libdir/pkgconfig \
    pkg-config --cflags --libs 'qnm >= 1')
  quietly cc -std=c99 "$work/consumer/host.c" "${flags[@]}" -o "$way/host-c"
  quietly c++ -std=c++20 "$work/consumer/host.cpp" "${flags[@]}" -o "$way/host-cpp"

  quietly cmake -G Ninja -S "$work/consumer" -B "$work/cmake" "-DCMAKE_PREFIX_PATH=$root/usr"
  grep -qE "qnm [0-9.]+ is in $root/usr/$libdir/cmake/qnm$" "$work/said" ||
    fail "CMake found another library: $(<"$work/said")"
  quietly cmake --build "$work/cmake"
}

# Two cables, and at their far ends the installed simulator with the installed scenario.
start_cards() {
  local root=$1 port
  for port in 0 1; do
    ip link add "${ports[port]}" type veth peer name "qsim$port"
    ip link set "${ports[port]}" up
    ip link set "qsim$port" up
  done
  mkfifo "$work/orders"
  exec {orders}<>"$work/orders"
  "$root/usr/bin/qnm-cardsim" "$root/usr/share/qnm/scenarios/demo.toml" --ports qsim0,qsim1 \
    --quiet <&"$orders" >"$work/cards" 2>&1 &
  background+=($!)
}

# name_ports FILE: names them in a qnm.conf as installed, the way that the documents do.
name_ports() {
  sed -i "s/^#ether_port = .*/ether_port = ${ports[0]},${ports[1]}/" "$1"
  grep -q "^ether_port = ${ports[0]},${ports[1]}\$" "$1" || fail "the sample names no ports"
}

# An installation directory with the configuration as installed, but for ports and place of the log.
configure() {
  local root=$1
  mkdir -p "$work/log"
  cp -r "$root/opt/tarvo/qnm" "$work/installation"
  name_ports "$work/installation/conf/qnm.conf"
  sed -i "s#/var/log/qnm#$work/log#" "$work/installation/conf/qnm_log4c.properties"
}

# await_text FILE REGEX PID: until the output of a program that runs has it.
await_text() {
  local tries
  for ((tries = 0; tries < 600; tries++)); do
    grep -qs -e "$2" "$1" && return
    kill -0 "$3" 2>/dev/null || break
    sleep 0.1
  done
  grep -qs -e "$2" "$1" || fail "no '$2' is in $1: $(<"$1")"
}

# run_host HOST ROOT: it reports the cards by the installed library, and ends when told.
run_host() {
  local host=$1 root=$2 pid card input
  mkfifo "$host.input"
  exec {input}<>"$host.input"
  "$host" "$work/installation" <&"$input" >"$host.output" 2>&1 &
  pid=$!
  background+=("$pid")
  for card in "${cards[@]}"; do
    await_text "$host.output" "^NEWDEVINFO $card\$" "$pid"
  done
  grep -q " $root/usr/$libdir/libqnm\.so\.1\.[0-9.]*$" "/proc/$pid/maps" ||
    fail "$host runs with another library: $(grep libqnm "/proc/$pid/maps")"
  echo >&"$input"
  wait "$pid" || fail "$host ends with status $?: $(<"$host.output")"
  exec {input}>&-
}

# Everything that an installation is for.
#   usage: use_installation ROOT     ROOT is empty for the system itself
use_installation() {
  local root=$1 way language listed
  if [[ -n $root ]]; then
    export LD_LIBRARY_PATH=$root/usr/$libdir
  fi
  build_hosts "$root"
  configure "$root"
  start_cards "$root"
  for way in pkg-config cmake; do
    for language in c cpp; do
      run_host "$work/$way/host-$language" "$root"
    done
  done
  listed=$("$root/usr/bin/qnmctl" --dir "$work/installation" list --for 1 2>&1) || fail "$listed"
  grep -q '2 QNSV, 4 QNIO' <<<"$listed" || fail "the installed command lists: $listed"
}
