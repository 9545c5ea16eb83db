#!/usr/bin/env bash
# Shows the main job without any card: installs what is missing, builds, and plays a few acts with
# simulated cards in a private network namespace. Ends by itself: 0 when all that was expected was
# seen, 1 with the thing missing named.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly build=$root/build/demo

# A tree of its own, without what the demonstration does not show: on a new machine the compiler takes
# most of the time. Debug information is a quarter of that, the second level of optimisation an eighth
# of the rest, and neither is missed here.
build_programs() {
  (
    cd "$root" || exit
    cmake -G Ninja -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O1 -DNDEBUG" \
      -DBUILD_TESTING=OFF -DQNM_BUILD_DOCS=OFF -DQNM_BUILD_PYTHON=OFF
    cmake --build "$build" --target qnm qnmctl qnm-cardsim \
      --parallel "${CMAKE_BUILD_PARALLEL_LEVEL:-$(nproc)}"
  )
}

cat <<'END'
libqnm learns and watches Quillnet adapter cards on Ethernet ports. This installs what is missing,
builds it, and then shows it at work with simulated cards.

END
"$root/scripts/install-deps.sh" build demo
build_programs
exec "$root/scripts/in-netns.sh" "$root/scripts/demo-acts.sh" "$build/bin"
