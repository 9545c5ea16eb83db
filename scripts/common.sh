# Functions that the scripts share. Source it; it is not a program.
# shellcheck shell=bash

# The top of the source tree.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root

# The system's own tools come first: the libraries are the system's as well, and another compiler or
# pkg-config would look for them elsewhere. /usr/sbin is added because an ordinary user's PATH lacks
# it.
export PATH="/usr/bin:/usr/sbin:/bin:/sbin:$PATH"

# Ends the script: says why on standard error.
die() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# Words put before every program that runs what was built, for example setarch with an option.
launcher=()

# ThreadSanitizer and AddressSanitizer need fixed address ranges, which a kernel with strong address
# randomisation may use for other things ("unexpected memory mapping"). Programs built with them run
# without randomisation if that is permitted.
keep_addresses() {
  if setarch --addr-no-randomize true 2>/dev/null; then
    launcher=(setarch --addr-no-randomize)
  fi
}

# Without this ccache keeps nothing that was compiled with a precompiled header.
export CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS:-pch_defines,time_macros}

# tests_at_a_time PRESET: most tests wait, for a timer or for an answer, so more of them run than there are
# cores. A sanitizer takes several times the processor time. QNM_PLACES in CMakeLists.txt says the same
# to the tests that load a core.
tests_at_a_time() {
  case $1 in
    asan | tsan) echo $((($(nproc) * 3 + 1) / 2)) ;;
    *) echo $(($(nproc) * 3)) ;;
  esac
}

# Configures a preset and builds it: all of it, or only the targets named after it.
build_preset() {
  local preset=$1
  shift
  (
    cd "$root" || exit
    cmake --preset "$preset"
    "${launcher[@]}" cmake --build --preset "$preset" \
      --parallel "${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}" ${1:+--target "$@"}
  )
}

# copy_sources FOLDER: copies what a fresh clone would have, with changes that are not yet committed.
# The tree may belong to another user than root.
copy_sources() {
  local git=(git -c "safe.directory=$root" -C "$root")
  mkdir -p "$1"
  if [[ -e $root/.git ]] && "${git[@]}" rev-parse 2>/dev/null; then
    "${git[@]}" ls-files -z --cached --others --exclude-standard |
      tar -C "$root" --null --files-from=- --ignore-failed-read -c
  else
    tar -C "$root" --exclude=./build -c .
  fi | tar -C "$1" --no-same-owner -x
}
