#!/usr/bin/env bash
# Tries the library and its tools for arm64, on a machine that is none: in a fresh Debian with the
# packages of both architectures everything is built by Debian's cross compiler, and the tests run by
# the user-mode emulation of qemu; then once more with UndefinedBehaviorSanitizer looking at the
# addresses that numbers are read from. Machines that the library cannot work on are seen to be refused.
# Ends with a table of all that, and of the tests that such an emulation cannot run, each with its reason.
#
#   usage: try-arm64.sh [RELEASE]     as root; RELEASE is bookworm or trixie, else that of this machine
#
#   CMAKE_BUILD_PARALLEL_LEVEL, CTEST_PARALLEL_LEVEL   how much to do at once; default: all cores
#
# It downloads a Debian (some 600 MB) from where this machine has its own and takes half an hour on two
# cores, so it is no part of the tests. Exit status 77: not possible here; the last line says why.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source=scripts/debian.sh
. "$root/scripts/debian.sh"

# For the machine that builds, then the libraries of the other. qemu-user of the same release runs what
# was built, and takes the libraries from where they are installed.
readonly wished=(
  ca-certificates cmake ninja-build pkg-config file iproute2
  libcap2-bin mandoc man-db python3-jsonschema uidmap zsh
  g++ g++-aarch64-linux-gnu qemu-user
  libcli11-dev nlohmann-json3-dev
  libpcap-dev:arm64 liblog4cxx-dev:arm64 libncurses-dev:arm64 libarchive-dev:arm64
  libtomlplusplus-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64 libubsan1:arm64
)

# In a user namespace the kernel has programs of other machines run as the namespace says (Linux 6.7), and
# this machine's own list of them is left alone. Without that qemu could not run programs that run others.
check_kernel() {
  unshare --user --map-root-user --mount --pid --fork --mount-proc \
    mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc 2>/dev/null ||
    skip "this kernel has no binfmt_misc for a user namespace alone (Linux 6.7 with CONFIG_BINFMT_MISC)"
}

main() {
  (($# == 0)) || is_release "$1" ||
    die "usage: try-arm64.sh [RELEASE]; the release is one of: ${releases[*]}"
  [[ $(dpkg --print-architecture 2>/dev/null) == amd64 ]] ||
    skip "the cross compiler is that for amd64; on arm64 itself scripts/test.sh does all this and more"
  check_kernel
  prepare_debian
  make_debian "${1:-$(own_release)}" "$work/debian" "$(IFS=,; echo "${wished[*]}")" \
    --architectures=amd64,arm64
  copy_sources "$work/debian/source"
  touch "$work/debian/made-for-a-trial"
  in_debian "$work/debian" --net -- env \
    "CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}" \
    "CTEST_PARALLEL_LEVEL=${CTEST_PARALLEL_LEVEL:-$(nproc)}" \
    /source/scripts/arm64-trial.sh
}

main "$@"
