#!/usr/bin/env bash
# Fuzzes everything that takes bytes from outside: frames, Completions, configuration files, and the
# formats that the tools read, under AddressSanitizer and UndefinedBehaviorSanitizer. Prints a table
# with executions, coverage and findings. Installs what is missing and builds first.
#
#   usage: fuzz.sh [--keep] [MINUTES] [TARGET...]
#
#   MINUTES   of each target; default: 1
#   TARGET    by its name in test/fuzz, for example frames; default: all of them
#   --keep    add to the inputs in test/fuzz/corpus at the end what covers more; those named seed-*
#             and finding-* stay as they are
#
#   FUZZ_JOBS   how many run at the same time; default: all cores
#
# A target ends at its first finding. The input is kept and named; exit status 1. What a run has
# learnt stays in build/fuzz/corpus, and the next one goes on from there. Findings of an earlier run
# are moved to a directory named after the time.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly build=$root/build/fuzz
readonly targets_dir=$root/test/fuzz
readonly findings=$build/findings logs=$build/logs

# Inputs beyond this size add time and no new path.
readonly longest_input=2048
# The limit for a hang. An input takes milliseconds, or seconds with sanitizers on a busy machine.
readonly seconds_per_input=60

# Quarantine as large as by default would need more memory than the targets themselves.
export ASAN_OPTIONS=strict_string_checks=1:detect_stack_use_after_return=1:quarantine_size_mb=32
export UBSAN_OPTIONS=print_stacktrace=1

all_targets() {
  find "$targets_dir/corpus" -mindepth 1 -maxdepth 1 -type d -printf '%f\n' | sort
}

check_targets() {
  local target
  for target in "$@"; do
    [[ -d $targets_dir/corpus/$target ]] ||
      die "no target '$target'; there are: $(all_targets | paste -sd ' ')"
  done
}

# Runs one target in place of this shell, with its output in its log. New inputs are stored apart from
# those in the tree.
fuzz_target() {
  local target=$1 seconds=$2
  local -a dictionary=()
  if [[ -f $targets_dir/$target.dict ]]; then
    dictionary=("-dict=$targets_dir/$target.dict")
  fi
  mkdir -p "$build/corpus/$target"
  exec "${launcher[@]}" "$build/bin/fuzz-$target" "${dictionary[@]}" \
    -max_total_time="$seconds" -timeout="$seconds_per_input" \
    -report_slow_units="$seconds_per_input" -max_len="$longest_input" -len_control=20 \
    -print_final_stats=1 -artifact_prefix="$findings/$target-" \
    "$build/corpus/$target" "$targets_dir/corpus/$target" >"$logs/$target.log" 2>&1
}

put_findings_aside() {
  if [[ -n $(find "$findings" -type f -print -quit 2>/dev/null) ]]; then
    mv "$findings" "$findings-$(date +%Y%m%dT%H%M%S)"
  fi
}

# Runs all targets, FUZZ_JOBS at the same time.
fuzz_all() {
  local seconds=$1 target running=0
  shift
  for target in "$@"; do
    if ((running == ${FUZZ_JOBS:-$(nproc)})); then
      wait -n || true
      running=$((running - 1))
    fi
    echo "$(date +%T) $target"
    fuzz_target "$target" "$seconds" &
    running=$((running + 1))
  done
  wait
}

# The number behind a word in the last line of a log that has it, for example "cov:".
figure() {
  local word=$1 log=$2
  { grep -aoE "$word +[0-9]+" "$log" || true; } | tail -1 | grep -oE '[0-9]+$' || echo 0
}

# A target whose log is incomplete was ended by something other than a finding: that counts as one.
findings_of() {
  local target=$1 log=$logs/$1.log
  find "$findings" -name "$target-*" | grep . || grep -aq '^Done ' "$log" || echo "$log"
}

print_table() {
  local target log
  printf '\n%-12s %12s %7s %9s %7s %8s\n' target executions edges features inputs findings
  for target in "$@"; do
    log=$logs/$target.log
    printf '%-12s %12s %7s %9s %7s %8s\n' "$target" \
      "$(figure stat::number_of_executed_units: "$log")" "$(figure cov: "$log")" \
      "$(figure ft: "$log")" "$(figure corp: "$log")" "$(findings_of "$target" | wc -l)"
  done
}

# Prints each finding with its reason; false if there is one.
tell_findings() {
  local target file found=0
  for target in "$@"; do
    while read -r file; do
      found=1
      printf '\nFinding: %s\n' "$file"
      grep -aE -m 3 '^broken rule|^==.*ERROR|runtime error:|^SUMMARY|what\(\)' \
        "$logs/$target.log" || tail -3 "$logs/$target.log"
    done < <(findings_of "$target")
  done
  ((found == 0))
}

# Adds what covers more than the inputs with names of their own, which stay. The longer a run, the
# more of it: so a few dozen of the shortest are taken.
keep_inputs() {
  local target=$1 kept=$targets_dir/corpus/$1 merged file
  local -r most_inputs=40
  merged=$(mktemp -d)
  find "$kept" -type f \( -name 'seed-*' -o -name 'finding-*' \) -exec cp -t "$merged" {} +
  "${launcher[@]}" "$build/bin/fuzz-$target" -merge=1 -max_len="$longest_input" \
    "$merged" "$kept" "$build/corpus/$target" >"$logs/$target-merge.log" 2>&1
  find "$kept" -type f ! -name 'seed-*' ! -name 'finding-*' -delete
  find "$merged" -type f ! -name 'seed-*' ! -name 'finding-*' -printf '%s %p\n' | sort -n |
    sed "${most_inputs}q" | while read -r _ file; do mv "$file" "$kept"; done
  rm -r "$merged"
  echo "$target: $(find "$kept" -type f | wc -l) inputs in $kept"
}

main() {
  local keep=0 minutes=1 target
  local -a targets
  if [[ ${1:-} == --keep ]]; then
    keep=1
    shift
  fi
  if [[ ${1:-} =~ ^[1-9][0-9]*$ ]]; then
    minutes=$1
    shift
  fi
  mapfile -t targets < <(all_targets)
  if (($# > 0)); then
    check_targets "$@"
    targets=("$@")
  fi
  "$root/scripts/install-deps.sh" build test fuzz
  keep_addresses
  build_preset fuzz
  put_findings_aside
  rm -rf "$logs"
  mkdir -p "$findings" "$logs"
  fuzz_all $((minutes * 60)) "${targets[@]}"
  print_table "${targets[@]}"
  tell_findings "${targets[@]}" || exit 1
  if ((keep == 1)); then
    for target in "${targets[@]}"; do
      keep_inputs "$target"
    done
  fi
}

main "$@"
