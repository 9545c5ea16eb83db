# Debian systems of their own, in which something is tried as on a new machine; to be sourced after
# common.sh, by scripts that run as root. Each is a folder that holds a minimal Debian, from where this
# machine has its own; nothing of this machine is in it but what is copied in. Not a program.
# shellcheck shell=bash

: "${root:?has to name the top of the source tree}"

# The releases that it runs on.
readonly releases=(bookworm trixie)

# The folder for everything that is made. It is removed at the end of the script.
work=

# The process that the script waits for.
busy=

skip() {
  echo "SKIPPED: $*"
  exit 77
}

# Removes what was made, but never follows a mount that a killed run left there.
clear_work() {
  if [[ -n $busy ]]; then
    kill -KILL "$busy" 2>/dev/null || true
    wait "$busy" 2>/dev/null || true
  fi
  rm -rf --one-file-system "$work"
}

# Makes sure that a Debian can be made here, and a place for it.
prepare_debian() {
  [[ $(id -u) -eq 0 ]] || skip "making a Debian of its own needs root"
  [[ -e /etc/debian_version ]] || skip "this is not Debian, so there is nothing to make it from"
  "$root/scripts/install-deps.sh" trial
  work=$(mktemp -d "${TMPDIR:-/tmp}/qnm-debian.XXXXXX")
  chmod 755 "$work"
  trap clear_work EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM HUP
}

# The name of the release that this machine runs, such as bookworm.
own_release() {
  # shellcheck source=/dev/null
  (. /etc/os-release && echo "$VERSION_CODENAME")
}

is_release() {
  [[ " ${releases[*]} " == *" $1 "* ]]
}

# Where this machine has its Debian from, as lines for sources.list; for another release, its suites.
list_sources() {
  # shellcheck disable=SC2016 # apt replaces them
  apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
    'Identifier: Packages' 'Origin: Debian' | sed "s/ $(own_release)/ $1/" | sort -u
}

# Runs a command and still reacts to signals: however this script ends, the command and everything it
# has started end first.
await() {
  local status=0
  setpriv --pdeathsig KILL "$@" &
  busy=$!
  wait "$busy" || status=$?
  busy=
  return "$status"
}

# make_debian RELEASE FOLDER PACKAGE,... [OPTION...]: the rest is for mmdebstrap. mount is in every
# installed system.
make_debian() {
  local release=$1 folder=$2 packages=$3
  list_sources "$release" >"$work/sources"
  [[ -s $work/sources ]] ||
    die "this machine does not know where Debian is to be had; apt-get update has to run first."
  await unshare --mount --pid --fork --kill-child --mount-proc mmdebstrap --mode=root \
    --variant=apt --quiet --include="mount,$packages" --aptopt='Acquire::Languages "none"' \
    --dpkgopt=force-unsafe-io "${@:4}" "$release" "$folder" "$work/sources" ||
    die "no Debian could be made; the lines above tell why."
  # apt uses this machine's network later.
  cp --remove-destination /etc/resolv.conf "$folder/etc/resolv.conf"
}

# Runs a command in a Debian, with processes, terminals and mounts of its own, as unshare's options
# say more. A folder that is only changed into would not be left to make user namespaces.
#   usage: in_debian FOLDER [OPTION...] -- COMMAND [ARGUMENT...]
in_debian() {
  local folder=$1 options=()
  shift
  while [[ $1 != -- ]]; do
    options+=("$1")
    shift
  done
  # shellcheck disable=SC2016 # for the shell inside
  await env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 TERM=dumb \
    DEBIAN_FRONTEND=noninteractive \
    unshare --mount --pid --fork --kill-child "${options[@]}" sh -ec '
      mount --bind "$0" "$0"
      cd "$0"
      mount -t proc proc proc
      mount -t sysfs sysfs sys
      mount -t devpts devpts dev/pts
      mount -t tmpfs tmpfs dev/shm
      pivot_root . mnt
      exec chroot . sh -ec "umount -l /mnt; exec \"\$@\"" sh "$@"' "$folder" "${@:2}"
}
