#!/usr/bin/env bash
# Tries the builds that users make, each in a scratch folder with warnings as errors: types and flags,
# parts switched off, within another project, and from places that are not as usual. Those that make
# the programs play the demonstration with them. Ends with a table, and non-zero when a build failed.
#
#   usage: try-builds.sh [ROW...]     all rows, which takes an hour on two cores, or those named
#          try-builds.sh --list
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# A row of the table: its name, what is tried, and how.
rows=(
  'default|cmake -S . -B build, tests and all|try_default'
  'release|Release, -O3|try_flags -DCMAKE_BUILD_TYPE=Release'
  'debug|Debug, -O0|try_flags -DCMAKE_BUILD_TYPE=Debug'
  'minsizerel|MinSizeRel, -Os|try_flags -DCMAKE_BUILD_TYPE=MinSizeRel'
  'own-flags|no build type, CXXFLAGS=-O3|try_flags -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS=-O3'
  'native|-O2 -march=native|try_flags -DCMAKE_BUILD_TYPE=None -DCMAKE_CXX_FLAGS=-O2\ -march=native'
  'lto|link-time optimisation|try_flags -DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON'
  'no-plt|-fno-plt|try_flags -DCMAKE_CXX_FLAGS=-fno-plt'
  'assertions|-D_GLIBCXX_ASSERTIONS|try_flags -DCMAKE_CXX_FLAGS=-D_GLIBCXX_ASSERTIONS'
  'clang|clang++|try_flags -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++'
  'multi-config|Ninja Multi-Config, two types, Debug first|try_multi_config'
  'make|make instead of ninja|try_flags -DCMAKE_BUILD_TYPE=Debug -G Unix\ Makefiles'
  'library|the library alone|try_library'
  'sanitizer|the library, clang++ -fsanitize=address|try_sanitizer'
  'no-tools|without tools, with the tests of the library|try_without_tools'
  'no-python|without the Python module|try_without_python'
  'no-docs|without the manual pages of the library|try_without_docs'
  'subdirectory|add_subdirectory() in another project|try_within subdirectory'
  'fetchcontent|FetchContent in another project|try_within fetchcontent'
  'blanks|a path with blanks, tests and all|try_blanks'
  'read-only|a source tree that cannot be written|try_read_only'
  'tarball|an exported tarball without git|try_tarball'
)

# What the parts look for, as CMake notes it.
readonly of_tools='^(CLI11_DIR|nlohmann_json_DIR|TOMLPLUSPLUS_|NCURSESW_|LIBARCHIVE_)'
readonly of_tests='^(GTest_DIR|BUILD_TESTING:BOOL=ON)'
readonly of_docs='^QNM_DOXYGEN'
readonly of_python='Python3_EXECUTABLE'

jobs=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
readonly jobs

# Words to put before build commands.
before=()

# configure SOURCE BUILD [OPTION...]
configure() {
  echo "cmake -S $1 -B $2 ${*:3}"
  "${before[@]}" cmake -G Ninja -DQNM_WERROR=ON "${@:3}" -S "$1" -B "$2"
}

# build FOLDER [OPTION...]
build() {
  "${before[@]}" cmake --build "$1" --parallel "$jobs" "${@:2}"
}

# play BUILD [TYPE]: the programs do their work, and the library of this build is what they run with.
play() {
  "$root/scripts/in-netns.sh" "$root/scripts/demo-acts.sh" "$1/bin${2:+/$2}"
}

# install_into FOLDER BUILD: as a packager does; what was installed is listed.
install_into() {
  DESTDIR=$1 "${before[@]}" cmake --install "$2" --prefix /usr
  (cd "$1" && find . -type f | sort)
}

run_tests() {
  ctest --test-dir "$1" --parallel "$(tests_at_a_time default)" --no-tests=error --output-on-failure
}

# expect_none PATTERN BUILD: CMake looked for nothing that matches the pattern.
expect_none() {
  ! grep -E "$1" "$2/CMakeCache.txt" || fail "the lines above should not be in CMakeCache.txt"
}

expect_file() {
  [[ -e $1 ]] || fail "$1 is missing"
}

expect_no_file() {
  [[ ! -e $1 ]] || fail "$1 should not be there"
}

fail() {
  echo "FAILED: $*"
  exit 1
}

# ---- The rows, each in the folder of its own ---------------------------------------------------------

# Warnings become errors only after the default has been checked.
try_default() {
  unset CMAKE_GENERATOR CMAKE_BUILD_TYPE
  cmake -S "$root" -B build
  grep -q '^CMAKE_BUILD_TYPE:STRING=RelWithDebInfo$' build/CMakeCache.txt ||
    fail "RelWithDebInfo is not the default"
  expect_file build/compile_commands.json
  ! grep -e -Werror build/compile_commands.json || fail "warnings are errors"
  cmake -S "$root" -B build -DQNM_WERROR=ON
  build build
  play build
}

# try_flags [OPTION...]
try_flags() {
  configure "$root" build -DBUILD_TESTING=OFF "$@"
  build build
  play build
}

# The types are the user's choice here, and so is the first of them.
try_multi_config() {
  configure "$root" build -G 'Ninja Multi-Config' -DCMAKE_CONFIGURATION_TYPES='Release;Debug' \
    -DCMAKE_DEFAULT_BUILD_TYPE=Debug -DBUILD_TESTING=OFF
  build build
  play build Debug
}

configure_library() {
  configure "$root" build -DBUILD_TESTING=OFF -DQNM_BUILD_TOOLS=OFF -DQNM_BUILD_PYTHON=OFF \
    -DQNM_BUILD_DOCS=OFF "$@"
}

# The sanitizer's run time is in the program; the library is linked without it.
try_sanitizer() {
  configure_library -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_CXX_FLAGS=-fsanitize=address
  build build
}

try_library() {
  configure_library
  expect_none "$of_tools|$of_tests|$of_docs|$of_python" build
  build build
  install_into "$PWD/installed" build
  expect_no_file installed/usr/bin
  expect_no_file installed/usr/share/man
  use_library "$PWD/installed"
}

# use_library ROOT: a program finds it by pkg-config, and is compiled and linked.
use_library() {
  local -a flags
  local pc
  pc=$(find "$1" -name qnm.pc)
  read -ra flags < <(PKG_CONFIG_SYSROOT_DIR=$1 PKG_CONFIG_LIBDIR=${pc%/*} \
    pkg-config --cflags --libs qnm)
  cc -std=c99 "$root/docs/examples/first.c" "${flags[@]}" -lpthread -o first
}

try_without_tools() {
  configure "$root" build -DQNM_BUILD_TOOLS=OFF
  expect_none "$of_tools" build
  build build
  run_tests build
}

try_without_python() {
  configure "$root" build -DCMAKE_BUILD_TYPE=Debug -DBUILD_TESTING=OFF -DQNM_BUILD_PYTHON=OFF
  build build
  play build
  install_into "$PWD/installed" build
  [[ -z $(find installed -name '*.py' -path '*-packages*') ]] || fail "the module is installed"
  expect_file installed/usr/share/man/man3/qnm_init_manager.3
}

try_without_docs() {
  configure "$root" build -DBUILD_TESTING=OFF -DQNM_BUILD_TOOLS=OFF -DQNM_BUILD_DOCS=OFF
  expect_none "$of_docs" build
  build build
  install_into "$PWD/installed" build
  expect_no_file installed/usr/share/man
  expect_file installed/usr/lib/python3/dist-packages/qnm/__init__.py
}

# try_within WAY: another project takes the library into its own build, and nothing else of it.
try_within() {
  mkdir host
  cp "$root/docs/examples/first.c" host
  case $1 in
    subdirectory)
      copy_sources libqnm
      # shellcheck disable=SC2016 # for CMake
      local way='add_subdirectory(../libqnm libqnm)'
      ;;
    fetchcontent)
      local way="include(FetchContent)
FetchContent_Declare(qnm SOURCE_DIR \"$root\")
FetchContent_MakeAvailable(qnm)"
      ;;
  esac
  cat >host/CMakeLists.txt <<END
cmake_minimum_required(VERSION 3.25)
project(host VERSION 7.0 LANGUAGES C CXX)
include(CTest)
$way
add_executable(first first.c)
target_link_libraries(first PRIVATE qnm::qnm pthread)
install(TARGETS first)
END
  configure host build -DCMAKE_BUILD_TYPE=Debug -DQNM_BUILD_TOOLS=ON -DQNM_BUILD_PYTHON=ON
  expect_none "$of_tools|$of_docs|$of_python|^GTest_DIR" build
  grep -q '^BUILD_TESTING:BOOL=ON' build/CMakeCache.txt || fail "the tests of the other are off"
  build build
  [[ -n $(find build -name libqnm.so.1) ]] || fail "there is no library"
  [[ -z $(find build \( -name 'qnmctl*' -o -name 'qnm-*' -o -name 'libqnm.a' \) -type f -size +8k) ]] ||
    fail "more than the library was built"
  install_into "$PWD/installed" build
  [[ $(cd installed && find . -type f) == ./usr/bin/first ]] || fail "more than its own is installed"
}

try_blanks() {
  local place="$PWD/a place with  blanks"
  copy_sources "$place"
  configure "$place" "$place/the build" -DCMAKE_BUILD_TYPE=Debug
  build "$place/the build"
  play "$place/the build"
  run_tests "$place/the build"
  install_into "$PWD/installed here" "$place/the build"
}

# Root can write everywhere except on a read-only mount.
try_read_only() {
  copy_sources source
  if [[ $(id -u) -eq 0 ]]; then
    # shellcheck disable=SC2016 # for the shell inside
    before=(unshare --mount sh -ec
      'mount --bind source source; mount -o remount,bind,ro source; exec "$@"' sh)
  else
    chmod -R a-w source
  fi
  ! "${before[@]}" touch source/written || fail "the source tree can be written"
  configure "$PWD/source" build -DCMAKE_BUILD_TYPE=Debug -DBUILD_TESTING=OFF
  build build
  play build
  install_into "$PWD/installed" build
}

try_tarball() {
  copy_sources libqnm
  tar -czf libqnm.tar.gz libqnm
  mkdir unpacked
  tar -C unpacked -xzf libqnm.tar.gz
  configure "$PWD/unpacked/libqnm" "$PWD/unpacked/libqnm/build" -DCMAKE_BUILD_TYPE=Debug \
    -DBUILD_TESTING=OFF
  build unpacked/libqnm/build
  play "$PWD/unpacked/libqnm/build"
}

# ---- The table -------------------------------------------------------------------------------------

list_rows() {
  local row name text
  for row in "${rows[@]}"; do
    IFS='|' read -r name text _ <<<"$row"
    printf '%-13s %s\n' "$name" "$text"
  done
}

# Prints the row of a name.
find_row() {
  local row
  for row in "${rows[@]}"; do
    if [[ ${row%%|*} == "$1" ]]; then
      echo "$row"
      return
    fi
  done
  die "there is no row '$1'; --list names them."
}

# Tries a row, and adds a line to the table.
try_row() {
  local name text how log start=$SECONDS said='ok'
  IFS='|' read -r name text how <<<"$1"
  log=$scratch/$name.log
  printf '%s: %s\n' "$name" "$text"
  mkdir "$scratch/$name"
  # In the background, as the shell would not end it at a failure within a condition; and as a group
  # of its own, so that all of it can be ended.
  set -m
  (cd "$scratch/$name" && eval "$how") </dev/null >"$log" 2>&1 &
  busy=$!
  set +m
  if ! wait "$busy"; then
    said='FAILED'
    failed+=("$name")
    tail -n 40 "$log"
  fi
  busy=
  table+=("$(printf '| %-13s | %-44s | %5d s | %-6s |' "$name" "$text" $((SECONDS - start)) "$said")")
  remove_scratch "$name"
}

# remove_scratch [ROW]: also what cannot be written.
remove_scratch() {
  chmod -R u+w "$scratch/${1-}"
  rm -rf "${scratch:?}/${1-}"
}

clear_up() {
  if [[ -n $busy ]]; then
    kill -KILL -- "-$busy" 2>/dev/null || true
    wait "$busy" 2>/dev/null || true
  fi
  remove_scratch
}

main() {
  local name row
  local -a chosen=()
  if [[ ${1-} == --list ]]; then
    list_rows
    return
  fi
  for name in "$@"; do
    row=$(find_row "$name")
    chosen+=("$row")
  done
  (($# > 0)) || chosen=("${rows[@]}")
  "$root/scripts/install-deps.sh" build demo test analysis fuzz

  scratch=$(mktemp -d "${TMPDIR:-/tmp}/qnm-builds.XXXXXX")
  busy=
  trap clear_up EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM HUP
  table=()
  failed=()
  for row in "${chosen[@]}"; do
    try_row "$row"
  done
  printf '\n'
  printf '%s\n' "${table[@]}"
  ((${#failed[@]} == 0)) || die "these failed: ${failed[*]}"
}

main "$@"
