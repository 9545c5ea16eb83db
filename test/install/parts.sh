#!/usr/bin/env bash
# Configures where things are missing: all of them are named, with the option that does without, and
# whoever takes that option is not asked for them. Who only builds is not made to install what tests
# need. Nothing has to be compiled for that.
set -euo pipefail
# shellcheck source=test/install/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# Puts links to the modules of pkg-config that the library needs, and what those need, into a folder.
copy_modules() {
  local name
  local -a left=(libpcap liblog4cxx)
  mkdir "$work/modules"
  while ((${#left[@]} > 0)); do
    name=${left[0]}
    left=("${left[@]:1}")
    [[ ! -e $work/modules/$name.pc ]] || continue
    ln -s "$(pkg-config --variable=pcfiledir "$name")/$name.pc" "$work/modules"
    mapfile -t -O "${#left[@]}" left < <(
      pkg-config --print-requires --print-requires-private "$name" | sed 's/ .*//; /^$/d')
  done
}

# configure OPTION...: with the library's modules only, and without some packages.
configure() {
  rm -rf "$work/build"
  PKG_CONFIG_LIBDIR=$work/modules cmake -G Ninja -S "$source" -B "$work/build" \
    -DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON \
    -DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON "$@" >"$work/told" 2>&1
}

# expect_missing LINE: it is told of a part.
expect_missing() {
  grep -qxF "    $1" "$work/told" || fail "not told: $1; but: $(<"$work/told")"
}

check_all_is_named() {
  ! configure || fail "nothing is missed"
  expect_missing "for the tools: libcli11-dev libtomlplusplus-dev libncurses-dev libarchive-dev;\
 -DQNM_BUILD_TOOLS=OFF does without"
  expect_missing "for the Python module: python3 (3.11 or later); -DQNM_BUILD_PYTHON=OFF does without"
  expect_missing "for the tests: libgtest-dev libgmock-dev; -DBUILD_TESTING=OFF does without"
  grep -qE 'scripts/install-deps\.sh build( docs)? test$' "$work/told" ||
    fail "no way to install it is told: $(<"$work/told")"
  ! grep -q 'for the library' "$work/told" || fail "the library lacks: $(<"$work/told")"
}

check_library_alone() {
  configure -DBUILD_TESTING=OFF -DQNM_BUILD_TOOLS=OFF -DQNM_BUILD_PYTHON=OFF -DQNM_BUILD_DOCS=OFF ||
    fail "the library alone needs more: $(<"$work/told")"
}

# What is only for tests and packages is not needed to build, and not for the demonstration.
check_groups() {
  local needed
  needed=$("$source/scripts/install-deps.sh" --list build demo)
  grep -qx libpcap-dev <<<"$needed" || fail "to build, install-deps.sh has only: $needed"
  ! grep -E 'tshark|lintian|abigail|doxygen|mandoc|zsh|gtest|gmock|clang' <<<"$needed" ||
    fail "that is not needed to build"
}

main() {
  need cmake ninja pkg-config
  copy_modules
  check_all_is_named
  check_library_alone
  check_groups
  echo "passed"
}

main
