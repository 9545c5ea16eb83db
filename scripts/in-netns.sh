#!/usr/bin/env bash
# Runs a command in a network namespace of its own, with nothing in it but the loopback device.
# Root unshares only the network; other users get a user namespace around it, in which they may make
# interfaces and open raw sockets. The namespace and everything in it vanish with the last process.
#
#   usage: in-netns.sh COMMAND [ARGUMENT...]
#
# The command takes this script's place, so its exit status and all signals are its own. Exit status
# 125 tells that no namespace could be made.
set -euo pipefail
# shellcheck source=scripts/common.sh
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

readonly plain='--net'
readonly with_user='--user --map-root-user --net'
# Runs inside. If the system grants a user namespace without rights in it, this fails.
# shellcheck disable=SC2016
readonly enter='ip link set lo up && exec "$@"'

explain_refusal() {
  cat >&2 <<END
in-netns.sh: no network namespace could be made:
  ${1//$'\n'/$'\n'  }
One of these helps:
  - run the command as root;
  - allow user namespaces, as root:
      sysctl -w kernel.unprivileged_userns_clone=1             (Debian, if the key exists)
      sysctl -w kernel.apparmor_restrict_unprivileged_userns=0 (Ubuntu, if the key exists)
      sysctl -w user.max_user_namespaces=15000                 (if it is 0)
  - in a container, start it with the capability SYS_ADMIN (docker run --cap-add SYS_ADMIN) or
    with a seccomp profile that permits unshare.
END
}

main() {
  if (($# == 0)); then
    echo "usage: in-netns.sh COMMAND [ARGUMENT...]" >&2
    exit 125
  fi

  local ways=("$with_user") way errors=
  if [[ $(id -u) -eq 0 ]]; then
    ways=("$plain" "$with_user")
  fi
  for way in "${ways[@]}"; do
    # shellcheck disable=SC2086 # the words of $way are options
    if errors+=$(unshare $way -- sh -c "$enter" sh true 2>&1)$'\n'; then
      exec unshare $way -- sh -c "$enter" sh "$@"
    fi
  done
  explain_refusal "${errors%$'\n'}"
  exit 125
}

main "$@"
