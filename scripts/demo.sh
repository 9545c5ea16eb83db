#!/usr/bin/env bash
# Shows the main job without any card: installs what is missing, builds, and plays a few acts with
# simulated cards in a private network namespace. Ends by itself: 0 when all that was expected was
# seen, 1 with the thing missing named.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

cat <<'END'
libqnm learns and watches Quillnet adapter cards on Ethernet ports. This installs what is missing,
builds it, and then shows it at work with simulated cards.

END
"$root/scripts/install-deps.sh"
build_preset release qnm qnmctl qnm-cardsim
exec "$root/scripts/in-netns.sh" "$root/scripts/demo-acts.sh" "$root/build/release/bin"
