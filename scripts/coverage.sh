#!/usr/bin/env bash
# Runs all tests and tells how much of the library they run: the lines and branches of each unit,
# and which are left out. Fails below 98 % of lines or 90 % of branches. The same in full, line by
# line, as pages in build/coverage/report.
#
#   usage: coverage.sh
#
# The branches that the compiler makes for exceptions are left out of the count.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly build=$root/build/coverage
readonly lines_least=98
readonly branches_least=90

# Otherwise the counts of an earlier run would be added.
forget_earlier_runs() {
  find "$build" -name '*.gcda' -delete
}

run_tests() {
  (
    cd "$root" || exit
    ctest --preset coverage --no-tests=error \
      --parallel "${CTEST_PARALLEL_LEVEL:-$(tests_at_a_time coverage)}"
  )
}

report() {
  local counts=$build/counts.json
  local -a shown=(--root "$root" --add-tracefile "$counts" --exclude-throw-branches)
  gcovr --root "$root" --filter "$root/src/libs/qnm/src/main/" --exclude-throw-branches \
    --json "$counts" "$build"
  mkdir -p "$build/report"
  gcovr "${shown[@]}" --html-details "$build/report/index.html"
  gcovr "${shown[@]}" --branches
  gcovr "${shown[@]}" --fail-under-line "$lines_least" --fail-under-branch "$branches_least"
}

main() {
  "$root/scripts/install-deps.sh" build test coverage
  build_preset coverage
  forget_earlier_runs
  run_tests
  report
}

main "$@"
