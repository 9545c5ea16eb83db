#!/usr/bin/env bash
# Configures with directories of one's own, each relative, and installs below a relative prefix: all of
# it lies below that prefix, and says so. Nothing has to be compiled for that.
set -euo pipefail
# shellcheck source=test/install/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

main() {
  local name said
  need cmake ninja pkg-config
  cd "$work"
  quietly cmake -G Ninja -S "$source" -B build -DBUILD_TESTING=OFF \
    -DCMAKE_INSTALL_LIBDIR=lib64 -DQNM_INSTALL_CONFDIR=etc/qnm
  quietly cmake --install build/packaging --prefix stage
  for name in qnm.conf qnm_log4c.properties; do
    expect_same "stage/etc/qnm/$name" "$source/conf/$name"
    expect_same "stage/share/qnm/conf/$name" "$source/conf/$name"
  done
  said=$(PKG_CONFIG_LIBDIR=stage/lib64/pkgconfig pkg-config --cflags --libs qnm)
  [[ $said =~ ^"-I$work/stage/include -L$work/stage/lib64 -lqnm"\ ?$ ]] ||
    fail "pkg-config says: $said"
  echo "passed"
}

main
