#!/usr/bin/env bash
# Installs the Debian packages that the chosen groups need, and no others. If nothing is missing, it
# changes nothing and needs no privilege.
#
#   usage: install-deps.sh [GROUP...]             without any: build, demo and test
#          install-deps.sh --list [GROUP...]      prints the packages, and installs nothing
#
#   build      the library and the tools; the manual pages of the calls need docs as well
#   docs       what makes those pages
#   demo       scripts/demo.sh, beside build
#   test       scripts/test.sh, beside build
#   analysis   scripts/analyse.sh, beside build
#   bench      scripts/bench.sh, beside build
#   coverage   scripts/coverage.sh, beside build and test
#   fuzz       scripts/fuzz.sh, beside build and test
#   package    scripts/package.sh, beside build
#   trial      what makes a Debian of its own to try something in
#
#   QNM_SKIP_DEPS=1   trust that everything is there, for systems that name their packages otherwise
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# A row: groups; their packages; after the colon the commands that must then be in PATH. "a|b" is met
# by either package; the first one is installed.
readonly table=(
  'build              g++ cmake ninja-build pkg-config|pkgconf : g++ cmake ninja'
  'build              libpcap-dev liblog4cxx-dev :'                   # the library
  'build              libcli11-dev nlohmann-json3-dev :'              # qnmctl
  'build              libncurses-dev :'                               # ... and its full screen
  'build              libarchive-dev :'                               # the archives of qnmctl report
  'build              libtomlplusplus-dev :'                          # qnm-cardsim
  'build              python3 : python3'                              # the Python module
  'docs,test,package  doxygen : doxygen'
  'demo,test,bench    iproute2 util-linux : ip unshare'               # network namespaces
  'test               libgtest-dev libgmock-dev :'
  'test               binutils : nm'                                  # what the library exports
  'test               libcap2-bin mount : setcap mount'               # capabilities, full file systems
  'test               tshark : tshark'                                # the dissector for Wireshark
  'test               mandoc man-db : mandoc man'                     # the manual pages
  'test               zsh : zsh'                                      # completion
  'test               python3-jsonschema :'                           # the JSON of qnmctl
  'test               python3-pyte :'                                 # ... and its full screen
  'test,package       abigail-tools : abidw abidiff'                  # the library's ABI
  'test,package       dpkg-dev file lintian : dpkg-shlibdeps lintian' # the Debian packages
  'analysis           clang clang-tidy : clang++ clang-tidy run-clang-tidy'
  'analysis           cppcheck lua-check mypy : cppcheck luacheck mypy'
  'test,bench         libbenchmark-dev :'
  'coverage           gcovr : gcov gcovr'
  'fuzz               clang libclang-rt-dev|libclang-rt-14-dev : clang clang++' # and the sanitizers
  'trial              mmdebstrap : mmdebstrap'
)
readonly cmake_minimum=3.25

# What the chosen groups need.
needed=()
commands=()

# Whether the first word is among the others.
is_among() {
  local word
  for word in "${@:2}"; do
    [[ $1 == "$word" ]] && return 0
  done
  return 1
}

add_group() {
  local row groups rest words known=()
  for row in "${table[@]}"; do
    IFS=' ' read -r groups rest <<<"$row"
    IFS=, read -r -a words <<<"$groups"
    known+=("${words[@]}")
    is_among "$1" "${words[@]}" || continue
    read -r -a words <<<"${rest%:*}"
    needed+=("${words[@]}")
    read -r -a words <<<"${rest##*:}"
    commands+=("${words[@]}")
  done
  is_among "$1" "${known[@]}" ||
    die "unknown group '$1'; there are: $(printf '%s\n' "${known[@]}" | sort -u | paste -sd ' ')"
}

is_installed() {
  [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# Prints the packages that are not there, one a line. More than one group can have named one.
list_missing() {
  local choice package
  for choice in "${needed[@]}"; do
    for package in ${choice//|/ }; do
      is_installed "$package" && continue 2
    done
    echo "${choice%%|*}"
  done | sort -u
}

# Runs a command as root; the caller has made sure that there is a way.
as_root() {
  if [[ $(id -u) -eq 0 ]]; then
    "$@"
  else
    sudo "$@"
  fi
}

install_packages() {
  if ! command -v apt-get >/dev/null; then
    die "this system has no apt-get. Please install what these Debian packages hold:" \
      "$*. Then set QNM_SKIP_DEPS=1."
  fi
  if [[ $(id -u) -ne 0 ]] && ! command -v sudo >/dev/null; then
    die "packages are missing, and installing them needs root or sudo." \
      "Please have this run as root: apt-get install $*"
  fi
  echo "Installing $*"
  if ! as_root apt-get update -q || ! as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends -o DPkg::Lock::Timeout=300 "$@"; then
    die "not all packages could be installed; the lines above tell why." \
      "Please have this run as root: apt-get install $*"
  fi
}

# The packages may be there and a PATH or an older installation under /usr/local still hide them.
check_commands() {
  local command version
  for command in "${commands[@]}"; do
    command -v "$command" >/dev/null ||
      die "'$command' is not found in PATH ($PATH), although its package is installed."
  done
  is_among cmake "${commands[@]}" || return 0
  version=$(cmake --version | sed -n '1s/[^0-9]*\([0-9.]*\).*/\1/p')
  printf '%s\n' "$cmake_minimum" "$version" | sort --check=quiet --version-sort ||
    die "$(command -v cmake) is version $version, but at least $cmake_minimum is needed."
}

main() {
  local group missing list=no
  if [[ ${1-} == --list ]]; then
    list=yes
    shift
  fi
  if (($# == 0)); then
    set -- build demo test
  fi
  for group in "$@"; do
    add_group "$group"
  done
  if [[ $list == yes ]]; then
    printf '%s\n' "${needed[@]}" | sort -u
    return
  fi
  if [[ ${QNM_SKIP_DEPS:-0} != 1 ]]; then
    mapfile -t missing < <(list_missing)
    if ((${#missing[@]} > 0)); then
      install_packages "${missing[@]}"
    fi
  fi
  check_commands
}

main "$@"
