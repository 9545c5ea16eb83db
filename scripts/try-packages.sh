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

# What whoever follows the documents has installed beside the packages.
readonly wished=(ca-certificates cmake g++ iproute2 man-db ninja-build pkg-config python3)

skip() {
  echo "SKIPPED: $*"
  exit 77
}

# Removes the trial's directory, and never through a mount that a kill left in it.
cleanup() {
  rm -rf --one-file-system "$work"
}

# Where this machine has its Debian from, as lines for sources.list.
list_sources() {
  # shellcheck disable=SC2016 # apt replaces them
  apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
    'Identifier: Packages' 'Origin: Debian' | sort -u
}

# Beside the wished packages, those to try are there as files, and what uses them.
make_debian() {
  local suite=$1 packages=("${@:2}")
  mkdir -p "$work/trial/packages" "$work/trial/test"
  cp "${packages[@]}" "$work/trial/packages"
  cp -r "$root/test/install" "$work/trial/test"
  # The documents that are followed are those of the packages.
  ln -s /usr/share/doc/qnm/docs "$work/trial/docs"
  list_sources | unshare --mount mmdebstrap --mode=root --variant=apt --quiet \
    --include="$(IFS=,; echo "${wished[*]}")" \
    --aptopt='Acquire::Languages "none"' --dpkgopt=force-unsafe-io \
    --customize-hook="copy-in '$work/trial' /" \
    "$suite" "$work/debian" - || die "no Debian could be made; the lines above tell why."
}

# Runs a command in the Debian with processes, terminals and mounts of its own, as unshare's options
# say more.
#   usage: in_debian [OPTION...] -- COMMAND [ARGUMENT...]
in_debian() {
  local options=()
  while [[ $1 != -- ]]; do
    options+=("$1")
    shift
  done
  # shellcheck disable=SC2016 # for the shell inside
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 TERM=dumb \
    DEBIAN_FRONTEND=noninteractive \
    unshare --mount --pid --fork --kill-child "${options[@]}" sh -ec '
      mount -t proc proc "$0/proc"
      mount -t sysfs sysfs "$0/sys"
      mount -t devpts devpts "$0/dev/pts"
      exec chroot "$0" "$@"' "$work/debian" "${@:2}"
}

# What they depend on comes from where this machine has its Debian from, by its network.
install_packages() {
  cp --remove-destination /etc/resolv.conf "$work/debian/etc/resolv.conf"
  in_debian -- sh -c 'apt-get update -q &&
    apt-get install -q -y --no-install-recommends /trial/packages/*.deb' ||
    die "apt does not install the packages."
}

main() {
  local suite packages=("$@")
  [[ $(id -u) -eq 0 ]] || skip "making a Debian of its own needs root"
  [[ -e /etc/debian_version ]] || skip "this is not Debian, so there is nothing to make it from"
  "$root/scripts/install-deps.sh" --with-trial
  if ((${#packages[@]} == 0)); then
    "$root/scripts/package.sh"
    packages=("$root"/build/packages/*.deb)
  fi
  # shellcheck source=/dev/null
  suite=$(. /etc/os-release && echo "$VERSION_CODENAME")

  work=$(mktemp -d "${TMPDIR:-/tmp}/qnm-trial.XXXXXX")
  chmod 755 "$work"
  trap cleanup EXIT
  make_debian "$suite" "${packages[@]}"
  install_packages
  in_debian --net -- /trial/test/install/trial.sh
}

main "$@"
