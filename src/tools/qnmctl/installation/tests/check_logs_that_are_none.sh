#!/usr/bin/env bash
# What a manager and a report make of links, FIFOs, devices and other things in the place of a log or
# of the configuration, and of a log that is long. To be run in a network namespace of its own.
#
#   usage: check_logs_that_are_none.sh QNMCTL
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")

# shellcheck source=src/tools/qnmctl/installation/tests/logs_rig.sh
. "$here/logs_rig.sh"

echo "a secret" >"$work/secret"
before=$(stat --format '%i %s %y' "$work/secret")
ln -s "$work/secret" "$log"
leads_nowhere "a link" "$log is a symbolic link, which is not followed"
[[ $(stat --format '%i %s %y' "$work/secret") == "$before" ]] || fail "the secret has changed"
rm "$log"
mkfifo "$log"
leads_nowhere "a FIFO" "$log is a FIFO, not a regular file"
rm "$log"
mkdir "$log"
leads_nowhere "a folder" "$log is a directory, not a regular file"
rmdir "$log"
python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])' "$log"
leads_nowhere "a socket" "$log is a socket, not a regular file"
rm "$log"
if mknod "$log" c 1 5 2>/dev/null; then # zeros without end
  leads_nowhere "a device" "$log is a device, not a regular file"
  rm "$log"
fi

# The configuration likewise.
mv "$installed/conf/qnm.conf" "$work/secret.conf"
ln -s "$work/secret.conf" "$installed/conf/qnm.conf"
qnmctl 5 list --for 0.1
report linked
has "$work/linked/problems.txt" "qnm.conf is a symbolic link, which is not followed"
! [[ -e $work/linked/conf/qnm.conf ]] || fail "the report has what qnm.conf stands for"
qnmctl 0 doctor
has "$work/told" "is a symbolic link, which is not followed here"
rm "$installed/conf/qnm.conf"
mkfifo "$installed/conf/qnm.conf"
qnmctl 3 doctor
has "$work/told" "is no regular file"
report fifo
has "$work/fifo/problems.txt" "qnm.conf is a FIFO, not a regular file"
rm "$installed/conf/qnm.conf"
mv "$work/secret.conf" "$installed/conf/qnm.conf"

# The end of a long log, and of the one before it.
head -c 300000 /dev/zero | tr '\0' x | fold --width 99 >"$log"
cp "$log" "$log.1"
report long
size=$(stat --format %s "$log")
for name in qnm.log qnm.log.1; do
  taken=$(stat --format %s "$work/long/logs/$name")
  ((taken <= 262144 && taken > 262000)) || fail "$name: $taken bytes"
  tail -c "$taken" "$installed/logs/$name" | cmp - "$work/long/logs/$name"
  has "$work/long/problems.txt" \
    "logs: $installed/logs/$name has $size bytes; the archive has the last $taken of them"
done
rm "$log" "$log.1"
