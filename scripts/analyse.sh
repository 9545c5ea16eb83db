#!/usr/bin/env bash
# Looks at the library and the tools without running them: clang-tidy, with clang's own warnings and
# its check of what the locks guard, cppcheck and luacheck look for mistakes, and mypy for wrong types
# in the Python module. Fails on the first finding.
#
#   usage: analyse.sh [--deep]     with as many states of a function as clang's analyser looks at of
#                                  itself, which takes half as long again
#
# .clang-tidy and .cppcheck say which checks are made, which are not, and why. Tests are not analysed:
# clang-tidy is slow on the macros of GoogleTest, and cppcheck cannot parse them.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly build=$root/build/analysis
jobs=${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}
readonly jobs

list_sources() {
  find src/libs/qnm/src/main src/tools -name '*.cpp' -not -path '*/tests/*' | sort
}

# The log is shown only with a finding: it mostly counts warnings in other people's headers.
run_clang_tidy() {
  local log=$build/clang-tidy.log
  local limit=(--extra-arg=-Xclang --extra-arg=-analyzer-config --extra-arg=-Xclang
    --extra-arg=max-nodes=40000)
  if [[ $deep == yes ]]; then
    limit=()
  fi
  echo "clang-tidy: $(list_sources | wc -l) files"
  list_sources | xargs -P "$jobs" -n 2 clang-tidy --quiet -p "$build" "${limit[@]}" >"$log" 2>&1 || {
    cat "$log"
    die "clang-tidy has findings."
  }
}

run_cppcheck() {
  echo "cppcheck: $(list_sources | wc -l) files"
  list_sources | cppcheck --file-list=- -j "$jobs" --quiet --language=c++ --std=c++20 \
    --enable=warning,style,performance,portability --library=posix --library=gnu \
    -D__GNUC__ -Isrc/libs/qnm/src/main -Isrc/tools/cardsim -Isrc/tools/qnmctl -Isrc/tools \
    --suppressions-list=.cppcheck --error-exitcode=1 || die "cppcheck has findings."
}

# The names are those that Wireshark gives its plugins; "min" is what all versions of Lua have.
run_luacheck() {
  luacheck --quiet --no-color --std min --max-line-length 100 \
    --read-globals Proto ProtoField ProtoExpert Pref base frametype expert DissectorTable Address \
    NSTime -- src/tools/wireshark || die "luacheck has findings."
}

run_mypy() {
  echo "mypy: the Python module"
  mypy --strict --no-error-summary --cache-dir="$build/mypy" src/python/qnm src/python/tests \
    docs/examples/watch.py || die "mypy has findings."
}

main() {
  deep=no
  case ${1-} in
    '') ;;
    --deep) deep=yes ;;
    *) die "usage: analyse.sh [--deep]" ;;
  esac
  "$root/scripts/install-deps.sh" build analysis
  cd "$root"
  cmake --preset analysis
  run_clang_tidy
  run_cppcheck
  run_luacheck
  run_mypy
  echo "No findings."
}

main "$@"
