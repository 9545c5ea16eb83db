#!/usr/bin/env bash
# The part of scripts/try-arm64.sh that runs inside the Debian it makes: builds for arm64, runs what was
# built, and ends with a table. It changes that Debian, so do not run it in any other.
#
#   usage: arm64-trial.sh      as root
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

builds=/builds
jobs=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
readonly builds jobs
readonly mark=/made-for-a-trial # try-arm64.sh puts it there
readonly qemu=/usr/bin/qemu-aarch64
readonly toolchain=$root/cmake/toolchains/aarch64-linux-gnu.cmake
readonly scenario=$root/src/tools/cardsim/scenarios/demo.toml

# Tests that are not run, by patterns of their names, and why. Each of them was run once and failed for
# this reason. A row that matches no test fails here, and so does a port that can be opened after all.
readonly no_ports='qemu opens no port, neither for libpcap nor for simulated cards'
readonly no_ethtool='qemu has no answer to the questions of ethtool'
left_out=(
  "^e2e\.(access|by_bits|cards|clock|exclusion|faults|filter|flood|fork|links|seeds/faults|squatted|stop)|$no_ports"
  "^e2e\.host/(ends_without_a_stop|examples\.(ends_cleanly|reports))|$no_ports"
  "^e2e\.lifecycle\.([^t]|the_(first|host))|$no_ports"
  "^e2e\.ports(/|\.[^n])|$no_ports"
  "^qnmctl\.(Accessed|Cards|Locks|Restore)[./]|$no_ports"
  "^qnmctl\.(capture|list_on_a_terminal|logs_.*|report|schema_of_every_command|top_in_a_terminal)$|$no_ports"
  "^qnmctl\.Manager\.[^N]|$no_ports"
  "^(privileges\.|soak\.short$|tools\.(lab|surroundings|waits)$)|$no_ports"
  "^qnmctl\.DoctorProgram\.(FindsA(Working|MissingLink)|NamesTheKey|SurvivesFilesThatAreHuge|TellsRootThat)|$no_ethtool"
  "^qnmctl\.Interfaces\.HaveFeaturesByName$|$no_ethtool"
  "^test_port_lock\.passed_over\.is_a_process_without_the_capability$|the other process is named after qemu"
  "^wireshark\.half|tshark is not installed here; the dissector is a script, the same for every machine"
)

# What arm64 programs begin with, byte by byte, and which bits of it count; as binfmt_misc takes it.
readonly magic='\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00'
readonly mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'

table=()
failed=0

# Runs this script again in a user namespace with all users, because some tests become another user.
enter_namespace() {
  echo root:0:65536 | tee /etc/subuid >/etc/subgid
  exec unshare --user --map-users=0,0,65536 --map-groups=0,0,65536 --setuid 0 --setgid 0 --mount --net \
    "$0" --inside
}

# From here on the kernel runs such programs by qemu, in this namespace.
register_qemu() {
  mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
  printf '%s' ":aarch64:M::$magic:$mask:$qemu:F" >/proc/sys/fs/binfmt_misc/register
}

fail() {
  echo "FAILED: $*"
  exit 1
}

# try TEXT COMMAND...: does it and adds a line to the table, with what the command leaves in the file
# "said" for it.
try() {
  local text=$1 start=$SECONDS result=ok
  printf '\n== %s\n' "$text"
  : >"$builds/said"
  # In the background, as the shell would not end it at a failure within a condition.
  ("${@:2}") &
  if ! wait $!; then
    result=FAILED
    failed=1
  fi
  table+=("$(printf '| %-6s | %5d s | %s' "$result" $((SECONDS - start)) "$text")")
  while read -r line; do
    table+=("$(printf '| %6s | %7s |   %s' '' '' "$line")")
  done <"$builds/said"
}

say() {
  echo "$*" | tee -a "$builds/said"
}

# ---- What is tried ----------------------------------------------------------------------------------

# build NAME [OPTION...] -- [TARGET...]
build() {
  local name=$1 options=()
  shift
  while [[ $1 != -- ]]; do
    options+=("$1")
    shift
  done
  shift
  cmake -G Ninja -S "$root" -B "$builds/$name" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_CROSSCOMPILING_EMULATOR="$qemu" -DQNM_WERROR=ON -DQNM_BUILD_DOCS=OFF \
    -DQNM_BUILD_PYTHON=OFF "${options[@]}"
  cmake --build "$builds/$name" --parallel "$jobs" ${1:+--target "$@"}
}

build_all() {
  local file
  build plain --
  for file in lib/libqnm.so.1 bin/qnmctl bin/qnm-cardsim; do
    say "$file: $(file --brief --dereference "$builds/plain/$file" | cut -d, -f1,2)"
  done
  for file in cardsim/qnm-cardsim.1 qnmctl/qnmctl.1 qnmctl/installation/qnm.conf.5; do
    grep -q '^\.TH' "$builds/plain/src/tools/$file" || fail "$file is no manual page"
  done
}

# What a packager does on a machine that cannot run the programs.
build_without_qemu() {
  local file
  cmake -G Ninja -S "$root" -B "$builds/bare" -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_INSTALL_LIBDIR=lib/aarch64-linux-gnu \
    -DBUILD_TESTING=OFF -DQNM_BUILD_DOCS=OFF -DQNM_BUILD_PYTHON=OFF | tee "$builds/bare.log"
  [[ $(grep -c 'no manual page' "$builds/bare.log") -eq 3 ]] ||
    fail "not each of the three pages is said to be missing"
  cmake --build "$builds/bare" --parallel "$jobs"
  DESTDIR=$builds/installed cmake --install "$builds/bare" --prefix /usr
  for file in lib/aarch64-linux-gnu/libqnm.so.1 bin/qnmctl bin/qnm-cardsim include/qnm.h; do
    [[ -e $builds/installed/usr/$file ]] || fail "$file is not installed"
  done
  ! cmake -S "$root" -B "$builds/bare" -DBUILD_TESTING=ON >"$builds/bare.log" 2>&1 ||
    fail "tests are not refused"
  grep CMAKE_CROSSCOMPILING_EMULATOR "$builds/bare.log" || fail "that was not the refusal"
}

# refused WORDS [OPTION...]: configuring ends with these words, before anything is looked for. There is
# nothing to link with for such machines.
refused() {
  local words=$1
  rm -rf "$builds/refused"
  ! cmake -G Ninja -S "$root" -B "$builds/refused" \
    -DCMAKE_TRY_COMPILE_TARGET_TYPE=STATIC_LIBRARY "${@:2}" >"$builds/refused.log" 2>&1 ||
    fail "not refused"
  tr -s ' \n' ' ' <"$builds/refused.log" | { grep -o "libqnm cannot be built[^.]*\." || true; } |
    tee "$builds/refused.said"
  grep -q "$words" "$builds/refused.said" || {
    cat "$builds/refused.log"
    fail "not refused for this reason: $words"
  }
}

use_programs() {
  local bin=$builds/plain/bin version
  version=$("$bin/qnmctl" --version)
  say "$version"
  "$bin/qnmctl" --help | grep decode
  "$bin/qnm-cardsim" --check "$scenario" | tee -a "$builds/said"
  "$bin/qnmctl" decode -o jsonl "$root/test/fuzz/corpus/captures/seed-pcapng" >"$builds/decoded"
  [[ -s $builds/decoded ]] || fail "no frame was decoded"
  say "a capture decoded: $(wc -l <"$builds/decoded") records"
}

# expect_no_port COMMAND...: it says so, and ends by itself.
expect_no_port() {
  local status=0
  timeout 120 "$@" </dev/null >"$builds/port.log" 2>&1 || status=$?
  cat "$builds/port.log"
  ((status != 0 && status != 124)) ||
    fail "${1##*/} has a port: the list of tests that are left out is to be shortened"
  say "${1##*/}: $(grep -m 1 -o 'Failed to pcap.*' "$builds/port.log" ||
    head -n 1 "$builds/port.log")"
}

# Most tests are left out because qemu cannot open a port.
open_ports() {
  local bin=$builds/plain/bin
  ip link add eth1 type veth peer name card1
  ip link set eth1 up
  ip link set card1 up
  expect_no_port "$bin/qnm-cardsim" "$scenario" --ports card1,eth1
  expect_no_port "$bin/qnmctl" --ports eth1 list
}

# Every row that is left out, as one pattern.
join_left_out() {
  local row pattern=
  for row in "${left_out[@]}"; do
    pattern+=${pattern:+|}${row%|*}
  done
  echo "$pattern"
}

# figure NAME FILE: a number from the first line of what ctest has written.
figure() {
  sed -n "0,/<testsuite/d; s/^\t*$1=\"\([0-9]*\)\".*/\1/p; /<testcase/q" "$2"
}

# choose_tests BUILD PATTERN: the numbers of the tests of such names but of those that are left out. The
# patterns of ctest cannot have as many parentheses, and it then runs all tests.
choose_tests() {
  local number name left_out_names
  left_out_names=$(join_left_out)
  ctest --test-dir "$builds/$1" -N | sed -nE 's/^ *Test +#([0-9]+): /\1 /p' |
    while read -r number name; do
      if [[ $name =~ $2 && ! $name =~ $left_out_names ]]; then
        echo "$number"
      fi
    done | paste -sd,
}

# run_tests BUILD PATTERN: an emulated program takes ten times as long, and more.
run_tests() {
  local build=$builds/$1 report=$builds/$1.xml status=0 numbers
  numbers=$(choose_tests "$1" "$2")
  [[ -n $numbers ]] || fail "no test has such a name"
  rm -f "$report"
  QNM_MODEL_STEPS=20000 ctest --test-dir "$build" --parallel "${CTEST_PARALLEL_LEVEL:-$jobs}" \
    --timeout 1800 --no-tests=error --output-on-failure --output-junit "$report" -I ",0,,$numbers" ||
    status=$?
  say "$(figure tests "$report") run, $(figure failures "$report") failed," \
    "$(figure skipped "$report") skipped"
  sed -n 's/.*<testcase name="\([^"]*\)".* status="\(fail\|notrun\|disabled\)".*/\2: \1/p' "$report" |
    sed 's/^notrun/skipped/' | tee -a "$builds/said"
  return "$status"
}

count_left_out() {
  local row count
  for row in "${left_out[@]}"; do
    count=$(ctest --test-dir "$builds/plain" -N -R "${row%|*}" | sed -n 's/^Total Tests: //p')
    say "$count of ${row%|*}: ${row##*|}"
    [[ $count -gt 0 ]] || fail "no test has such a name"
  done
}

# A read of a number from an odd address is noticed on this machine, too.
see_careless_read() {
  cat >"$builds/careless.cpp" <<'END'
#include <cstdint>
#include <cstdio>
int main(int argc, char** argv) {
    alignas(4) unsigned char bytes[8] = {};
    (void)argv;
    std::printf("%u\n", *reinterpret_cast<const std::uint32_t*>(bytes + argc));
}
END
  aarch64-linux-gnu-g++ -O1 -fsanitize=alignment -fno-sanitize-recover=all "$builds/careless.cpp" \
    -o "$builds/careless"
  ! "$builds/careless" 2>"$builds/careless.log" || fail "it was not seen"
  grep -o 'load of misaligned address' "$builds/careless.log"
}

test_addresses() {
  see_careless_read
  build alignment -DQNM_SANITIZE=alignment -- src/libs/qnm/all cardsim-test qnmctl-frames-test fuzzers
  run_tests alignment '^(test_|cardsim\.|fuzz\.|qnmctl\.Frames)'
}

main() {
  [[ -e $mark ]] || die "this changes the system that it runs on; try-arm64.sh makes one for it."
  [[ ${1-} == --inside ]] || enter_namespace
  mkdir -p "$builds"
  register_qemu
  ip link set lo up
  # shellcheck source=/dev/null
  table+=("$(. /etc/os-release && echo "$PRETTY_NAME"), $(aarch64-linux-gnu-g++ -dumpfullversion), $(
    $qemu --version | head -n 1)")
  try 'everything is built for arm64' build_all
  try 'without qemu all but pages and tests is built and installed' build_without_qemu
  try 'programs run by qemu' use_programs
  try 'qemu opens no ports' open_ports
  try 'tests run by qemu' run_tests plain ''
  try 'tests that are left out' count_left_out
  try 'tests of frames, with UndefinedBehaviorSanitizer looking at addresses' test_addresses
  try 'refused: 32 bits (-m32)' refused 'an ABI of 32 bits' -DCMAKE_C{,XX}_FLAGS=-m32
  try 'refused: 32 bits (x32)' refused 'an ABI of 32 bits' -DCMAKE_C{,XX}_FLAGS=-mx32
  try 'refused: big-endian' refused 'a big-endian machine' \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_C{,XX}_FLAGS=-mbig-endian
  printf '\n'
  printf '%s\n' "${table[@]}"
  [[ $failed -eq 0 ]] || die "not all is as it should be"
}

main "$@"
