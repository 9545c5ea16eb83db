# What the tests of the installation share; to be sourced. Not a program of its own.
# shellcheck shell=bash
#
# usage of each test: TEST BUILD_DIR LIBDIR     in a network namespace of its own; LIBDIR is relative
#
# Exit status 77: not possible here; the last line says why.
export PATH="/usr/bin:/usr/sbin:/bin:/sbin:$PATH"

# shellcheck disable=SC2034 # for those who source this
readonly build=$1 libdir=$2
source=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
# shellcheck disable=SC2034
readonly source
# Of what is installed under these names elsewhere, nothing may help.
unset DESTDIR CMAKE_PREFIX_PATH PKG_CONFIG_PATH LD_LIBRARY_PATH

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# need PROGRAM...
need() {
  local program
  for program in "$@"; do
    if ! command -v "$program" >/dev/null; then
      echo "SKIPPED: there is no $program here"
      exit 77
    fi
  done
}

# The lists of files in the build belong to whoever has installed it.
keep_lists() {
  mkdir "$work/lists"
  find "$build" -maxdepth 1 -name 'install_manifest*.txt' -exec cp -p {} "$work/lists" \;
}

restore_lists() {
  rm -f "$build"/install_manifest*.txt
  find "$work/lists" -type f -exec cp -p {} "$build" \;
}

work=$(mktemp -d "${TMPDIR:-/tmp}/qnm-install.XXXXXX")
readonly work
export XDG_STATE_HOME=$work/state # where qnmctl has its logs
background=()
cleanup() {
  local pid
  for pid in "${background[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" || true
  done
  restore_lists
  rm -rf "$work"
}
keep_lists
trap cleanup EXIT

# quietly COMMAND...: what it says is shown only when it fails.
quietly() {
  "$@" >"$work/said" 2>&1 || fail "$* says: $(<"$work/said")"
}

# expect_same FILE FILE
expect_same() {
  cmp "$1" "$2" || fail "$1 is not as $2"
}
