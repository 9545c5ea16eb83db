#!/usr/bin/env bash
# Tries the Debian packages as a new user would: in a minimal Debian of its own, where nothing of this
# machine is, apt installs them with what they depend on; then what the installed README says is done:
# host programs are built and run, and the tools and their manual pages used. Ends with a summary.
#
#   usage: try-packages.sh [RELEASE] [DEB...]     as root
#
#   RELEASE   bookworm or trixie; by default what this machine has
#   DEB       packages to try; if there are none, scripts/package.sh makes them, in another such Debian
#
# It downloads Debian (some 300 MB, and as much to make packages) from where this machine has its own,
# so it is no part of the tests. Exit status 77: not possible here; the last line says why.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
# shellcheck source=scripts/debian.sh
. "$root/scripts/debian.sh"

# What whoever follows the documents has installed beside the packages.
readonly wished=(ca-certificates cmake g++ iproute2 man-db ninja-build pkg-config python3 tshark)

release=
packages=()

read_arguments() {
  local word
  if (($# > 0)) && is_release "$1"; then
    release=$1
    shift
  fi
  for word in "$@"; do
    [[ -f $word ]] ||
      die "'$word' is no file of a package, and no release that is known here: ${releases[*]}"
  done
  packages=("$@")
}

# Made where the release's libraries and its compiler are, and nothing in the user's tree changes.
make_packages() {
  local maker=$work/maker
  make_debian "$release" "$maker" ca-certificates
  copy_sources "$maker/source"
  in_debian "$maker" -- /source/scripts/package.sh
  packages=("$maker"/source/build/packages/*.deb)
}

# The packages are there as files, and what uses them.
copy_trial() {
  local trial=$work/debian/trial
  mkdir -p "$trial/packages" "$trial/test"
  cp "${packages[@]}" "$trial/packages"
  cp -r "$root/test/install" "$trial/test"
  # The documents that are followed are those of the packages.
  ln -s /usr/share/doc/qnm/docs "$trial/docs"
}

install_packages() {
  in_debian "$work/debian" -- sh -c 'apt-get update -q &&
    apt-get install -q -y --no-install-recommends /trial/packages/*.deb' ||
    die "apt does not install the packages."
}

# What they were tried with; the names of libraries differ from release to release.
print_system() {
  # shellcheck disable=SC2016 # for the shell inside
  in_debian "$work/debian" -- sh -ec '
    echo "Debian      $(cat /etc/debian_version), $0"
    for name in g++ cmake "libpcap0.8*" "liblog4cxx[0-9]*" tshark python3; do
      dpkg-query --show --showformat="\${db:Status-Status} \${Package} \${Version}\n" "$name" || true
    done | sed -n "s/^installed //p" | while read -r name version; do
      printf "%-19s %s\n" "$name" "$version"
    done' "$release"
}

# usage: count PATTERN     among what was seen
count() {
  grep --count --extended-regexp "$1" "$work/debian/trial/seen" || true
}

print_summary() {
  local package all commands pages
  echo
  cat "$work/system"
  for package in "${packages[@]}"; do
    printf '%-19s %s kB\n' "${package##*/}" "$(($(stat --format %s "$package") / 1000))"
  done
  all=$(count '^ok: ')
  commands=$(count '^ok: [^ ]+ --help$')
  pages=$(count '^ok: man ')
  echo "$commands commands told their usage, $pages manual pages were shown, and" \
    "$((all - commands - pages)) further steps were followed, in $1 seconds."
}

main() {
  local begun
  read_arguments "$@"
  prepare_debian
  : "${release:=$(own_release)}"
  ((${#packages[@]} > 0)) || make_packages
  make_debian "$release" "$work/debian" "$(IFS=,; echo "${wished[*]}")"
  copy_trial
  begun=$SECONDS
  install_packages
  print_system >"$work/system"
  in_debian "$work/debian" --net -- \
    bash -o pipefail -c '/trial/test/install/trial.sh | tee /trial/seen'
  print_summary "$((SECONDS - begun))"
}

main "$@"
