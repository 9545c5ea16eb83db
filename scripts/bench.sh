#!/usr/bin/env bash
# Measures the library on veth pairs in a private network namespace, beside the least that the same
# machine can do with the same frames. Prints a table with ratios and targets, and writes it into
# bench/results/ with a picture of the figures that the README shows. Installs what is missing and
# builds first.
#
#   usage: bench.sh [--quick] [OPTION...]
#
#   --quick                       some 2 minutes instead of 15: fewer samples, shorter stretches
#   --reads=N                     register reads per story
#   --benchmark_filter=PATTERN    only these stories, for example ^read/
#
# A missed target is a result and not a failure; a wrong value or a lost frame is a failure. Figures
# need a machine with nothing else to do.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly build=$root/build/benchmarks
readonly results=$root/bench/results

# A tree of its own: the benchmarks need packages that the library does not.
build_benchmarks() {
  (
    cd "$root" || exit
    cmake -G Ninja -B "$build" -DQNM_BUILD_BENCH=ON -DBUILD_TESTING=OFF -DQNM_BUILD_DOCS=OFF \
      -DQNM_BUILD_PYTHON=OFF
    cmake --build "$build" --target qnm-bench \
      --parallel "${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}"
  )
}

# Where the figures come from; the arguments are those of the run.
describe_run() {
  local how=
  if [[ " $* " == *' --quick '* ]]; then
    how="with \`--quick\` "
  fi
  echo "Measured ${how}on $(nproc) cores ($(sed -n 's/^model name\s*: //p' /proc/cpuinfo | head -1))," \
    "Linux $(uname -r), $(date --utc +%F)."
  echo
}

main() {
  "$root/scripts/install-deps.sh" build bench
  build_benchmarks
  mkdir -p "$results"
  "$root/scripts/in-netns.sh" "$build/bin/qnm-bench" --results="$results" "$@"
  describe_run "$@" | cat - "$results/table.md" >"$results/results.md"
  rm "$results/table.md"
  "$root/bench/summary.py" picture "$results/results.md" >"$results/results.svg"
  echo
  echo "All figures and the picture are in $results. For the README:"
  echo
  "$root/bench/summary.py" table "$results/results.md"
}

main "$@"
