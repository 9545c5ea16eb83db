#!/usr/bin/env bash
# Installs what is missing, builds and runs all tests.
#
#   usage: test.sh [PRESET...]     release (the default), debug, asan, tsan
#
#   CMAKE_BUILD_PARALLEL_LEVEL, CTEST_PARALLEL_LEVEL   how much to do at once; default: as many
#   compilers as cores, and several tests for each core, as most of them wait
#
# Ends with the summary of ctest, and non-zero at the first preset that fails.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# The build runs programs, too, because it asks each test program for its tests.
choose_launcher() {
  launcher=()
  case $1 in
    asan | tsan) keep_addresses ;;
  esac
}

test_preset() {
  local preset=$1
  choose_launcher "$preset"
  build_preset "$preset"
  (
    cd "$root" || exit
    "${launcher[@]}" ctest --preset "$preset" --no-tests=error \
      --parallel "${CTEST_PARALLEL_LEVEL:-$(tests_at_a_time "$preset")}"
  )
}

main() {
  local preset
  local -a presets=("$@")
  if ((${#presets[@]} == 0)); then
    presets=(release)
  fi
  "$root/scripts/install-deps.sh" build test
  for preset in "${presets[@]}"; do
    test_preset "$preset"
  done
}

main "$@"
