#!/usr/bin/env bash
# Installs what is missing, builds, and makes the Debian packages libqnm1, libqnm-dev, qnm-tools and
# python3-qnm, which lintian then reads.
#
#   usage: package.sh
#
# The packages are in build/packages; the last lines name them.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly packages=$root/build/packages

# The output of cpack is shown only if it fails; it complains about scripts that are missing on purpose.
make_packages() {
  local said
  rm -rf "$packages"
  if ! said=$(cpack --config "$root/build/package/CPackConfig.cmake" -B "$packages" 2>&1); then
    die "cpack made no packages:"$'\n'"$said"
  fi
  rm -rf "$packages/_CPack_Packages"
}

main() {
  "$root/scripts/install-deps.sh" build package
  build_preset package
  make_packages
  lintian --allow-root --fail-on error "$packages"/*.deb
  printf '%s\n' "$packages"/*.deb
}

main "$@"
