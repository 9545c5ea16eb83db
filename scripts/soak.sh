#!/usr/bin/env bash
# Runs the library for a long time, in a private network namespace: a thousand simulated cards that
# come, go and change behind two links that flap; lost, repeated and forged announcements; lost,
# late, repeated and misled answers; eight threads that read, write and dump registers and EEPROMs
# at random; the host's ports down and up at once while more threads send; hundreds of other
# interfaces that change at once; 100,000 foreign frames a second; a second process that tries to
# access the cards; callbacks that come and go; log files that rotate; signals for every thread;
# restarts of the manager. Installs what is missing and builds first.
#
#   usage: soak.sh [MINUTES]      default 60
#
#   QNM_SOAK_SEED=N   the random numbers of an earlier run
#
# Prints a line a minute. Fails when a value was wrong, a call returned a code that is not
# documented for it or did not return, a call never succeeded, one of these troubles did not occur,
# the second process reached a card beside the host or could not once the host had stopped, an
# allocation failed, the manager did not stop, a counter pair did not balance after a stop, a
# descriptor or thread was left, the tables differed from what the cards announce, or memory still
# grew after the first tenth of the run or from restart to restart.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

main() {
  local minutes=${1:-60}
  [[ $minutes =~ ^[1-9][0-9]{0,4}$ ]] || die "usage: soak.sh [MINUTES]"
  "$root/scripts/install-deps.sh" build test
  build_preset release qnm-soak
  # Otherwise memory that malloc() keeps for a thread would count as in use.
  export GLIBC_TUNABLES=glibc.malloc.tcache_count=0
  exec "$root/scripts/in-netns.sh" "$root/build/release/bin/qnm-soak" $((minutes * 60)) \
    ${QNM_SOAK_SEED:+--seed="$QNM_SOAK_SEED"}
}

main "$@"
