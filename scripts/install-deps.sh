#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demonstration need.
# Where nothing is missing it changes nothing and needs no privilege.
#
#   usage: install-deps.sh [OPTION...]
#
#   --with-analysis   also what scripts/analyse.sh needs
#   --with-bench      also what the benchmarks need
#   --with-coverage   also what scripts/coverage.sh needs
#   --with-fuzz       also what the fuzzers need
#   --with-trial      also what scripts/try-packages.sh needs
#
#   QNM_SKIP_DEPS=1   trust that everything is there, for systems that name their packages otherwise
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# What is needed, and what for. "a|b" is met by either; the first is the one that gets installed.
needed=(
  g++ cmake ninja-build 'pkg-config|pkgconf' # the build
  libpcap-dev liblog4cxx-dev                 # the library
  libcli11-dev nlohmann-json3-dev            # qnmctl
  libncurses-dev                             # ... and its full screen
  libarchive-dev                             # the archives of qnmctl report
  libtomlplusplus-dev                        # qnm-cardsim
  libgtest-dev libgmock-dev binutils         # the tests; nm lists what the library exports
  iproute2 util-linux                        # network namespaces: ip, unshare
  libcap2-bin                                # file capabilities: setcap
  tshark                                     # the tests of the dissector for Wireshark
  abigail-tools                              # the library's ABI: abidw, abidiff
  dpkg-dev file lintian                      # the Debian packages
  python3                                    # the Python module
  doxygen                                    # the manual pages of the library
  mandoc man-db zsh python3-jsonschema       # what the tests check pages and qnmctl's output with
  python3-pyte                               # ... and its full screen
)
commands=(g++ cmake ninja pkg-config nm ip unshare setcap tshark abidw abidiff python3)
readonly cmake_minimum=3.25

is_installed() {
  [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# Prints the packages that are not there, one a line.
list_missing() {
  local choice package
  for choice in "${needed[@]}"; do
    for package in ${choice//|/ }; do
      is_installed "$package" && continue 2
    done
    echo "${choice%%|*}"
  done
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

# The packages alone do not say what a PATH or an older installation under /usr/local makes of them.
check_commands() {
  local command version
  for command in "${commands[@]}"; do
    command -v "$command" >/dev/null ||
      die "'$command' is not found in PATH ($PATH), although its package is installed."
  done
  version=$(cmake --version | sed -n '1s/[^0-9]*\([0-9.]*\).*/\1/p')
  printf '%s\n' "$cmake_minimum" "$version" | sort --check=quiet --version-sort ||
    die "$(command -v cmake) is version $version, but at least $cmake_minimum is needed."
}

# Adds what an option asks for.
add_option() {
  case $1 in
    --with-analysis)
      needed+=(clang clang-tidy cppcheck lua-check mypy)
      commands+=(clang++ clang-tidy run-clang-tidy cppcheck luacheck mypy)
      ;;
    --with-bench)
      needed+=(libbenchmark-dev gnuplot-nox) # timing, plotting
      commands+=(gnuplot)
      ;;
    --with-coverage)
      needed+=(gcovr)
      commands+=(gcov gcovr)
      ;;
    --with-fuzz)
      needed+=(clang 'libclang-rt-dev|libclang-rt-14-dev') # libFuzzer, the sanitizers
      commands+=(clang clang++)
      ;;
    --with-trial)
      needed+=(mmdebstrap)
      commands+=(mmdebstrap)
      ;;
    *)
      die "unknown option '$1'"
      ;;
  esac
}

main() {
  local missing option
  for option in "$@"; do
    add_option "$option"
  done
  if [[ ${QNM_SKIP_DEPS:-0} != 1 ]]; then
    mapfile -t missing < <(list_missing)
    if ((${#missing[@]} > 0)); then
      install_packages "${missing[@]}"
    fi
  fi
  check_commands
}

main "$@"
