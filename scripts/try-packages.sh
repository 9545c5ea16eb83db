#!/usr/bin/env bash
# Tries the Debian packages as a new user would: in a minimal Debian of its own, where nothing of this
# machine is, apt installs them with what they depend on; then what the installed README says is done:
# host programs are built and run, and the tools and their manual pages used.
#
#   usage: try-packages.sh [DEB...]     as root
#
#   DEB   packages to try; if there are none, scripts/package.sh makes them
#
# It downloads a Debian (some 300 MB) from where this machine has its own, so it is no part of the
# tests. Exit status 77: not possible here; the last line says why.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source=scripts/debian.sh
. "$root/scripts/debian.sh"

# What whoever follows the documents has installed beside the packages.
readonly wished=(ca-certificates cmake g++ iproute2 man-db ninja-build pkg-config python3)

# The packages are there as files, and what uses them.
copy_trial() {
  local trial=$work/debian/trial
  mkdir -p "$trial/packages" "$trial/test"
  cp "$@" "$trial/packages"
  cp -r "$root/test/install" "$trial/test"
  # The documents that are followed are those of the packages.
  ln -s /usr/share/doc/qnm/docs "$trial/docs"
}

install_packages() {
  in_debian "$work/debian" -- sh -c 'apt-get update -q &&
    apt-get install -q -y --no-install-recommends /trial/packages/*.deb' ||
    die "apt does not install the packages."
}

main() {
  local packages=("$@")
  prepare_debian
  if ((${#packages[@]} == 0)); then
    "$root/scripts/package.sh"
    packages=("$root"/build/packages/*.deb)
  fi
  make_debian "$(own_release)" "$work/debian" "$(IFS=,; echo "${wished[*]}")"
  copy_trial "${packages[@]}"
  install_packages
  in_debian "$work/debian" --net -- /trial/test/install/trial.sh
}

main "$@"
