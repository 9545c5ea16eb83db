#!/usr/bin/env bash
# Builds and runs all tests in a fresh Debian of a release, where nothing of this machine is but the
# source tree as it stands.
#
#   usage: try-release.sh RELEASE [PRESET...]     as root
#
#   RELEASE   bookworm or trixie
#   PRESET    as of scripts/test.sh, which runs inside; release is the default
#
#   CMAKE_BUILD_PARALLEL_LEVEL, CTEST_PARALLEL_LEVEL   how much to do at once; default: all cores
#
# It downloads a Debian with all that the tests need (some 500 MB) from where this machine has its
# own, and takes 3 GB for as long as it runs. Exit status 77: not possible here; the last line says
# why.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source=scripts/debian.sh
. "$root/scripts/debian.sh"

# A place that no file names by chance: a test looks for it in what is packed.
readonly place=/build/libqnm

main() {
  if (($# == 0)) || ! is_release "$1"; then
    die "usage: try-release.sh RELEASE [PRESET...]; the release is one of: ${releases[*]}"
  fi
  prepare_debian
  make_debian "$1" "$work/debian" ca-certificates
  copy_sources "$work/debian$place"
  in_debian "$work/debian" -- env \
    "CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}" \
    "CTEST_PARALLEL_LEVEL=${CTEST_PARALLEL_LEVEL:-$(nproc)}" \
    "$place/scripts/test.sh" "${@:2}"
}

main "$@"
