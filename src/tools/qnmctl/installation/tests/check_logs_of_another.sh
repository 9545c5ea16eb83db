#!/usr/bin/env bash
# Where another user can change the properties file, a log or a folder of them, neither a manager nor a
# report follows him. To be run in a network namespace of its own.
#
#   usage: check_logs_of_another.sh QNMCTL
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
readonly other=65534 # a user that owns nothing else here

# shellcheck source=src/tools/qnmctl/installation/tests/logs_rig.sh
. "$here/logs_rig.sh"

echo "a secret" >"$work/secret"

# Whoever can change the properties file could name any file there.
properties=$installed/conf/qnm_log4c.properties
if chown "$other:$other" "$properties" 2>/dev/null; then
  echo "a secret" >"$log"
  leads_nowhere "another's properties" \
    "$log belongs to another user than $properties, which others can change"
  echo "his own line" >"$log"
  chown "$other:$other" "$log"
  report his
  has "$work/his/logs/qnm.log" "his own line"
  chown 0:0 "$properties"
  rm "$log"
  chown "$other:$other" "$installed/logs"
  ln "$work/secret" "$log"
  leads_nowhere "a hard link" "$log has other names, too, and others can change its folder"
  chown 0:0 "$installed/logs"
  rm "$log"
  # His links lead nowhere, in the place of a folder as well; root's own do.
  mkdir "$work/elsewhere"
  mv "$installed/logs" "$work/logs"
  ln -s "$work/elsewhere" "$installed/logs"
  echo "a secret" >"$work/elsewhere/qnm.log"
  cp "$work/elsewhere/qnm.log" "$work/elsewhere/qnm.log.1"
  chown --no-dereference "$other:$other" "$installed/logs"
  leads_nowhere "a linked folder" "$log lies behind a symbolic link of another user, $installed/logs"
  chown --no-dereference 0:0 "$installed/logs"
  report behind
  has "$work/behind/logs/qnm.log" "a secret"
  rm "$installed/logs"
  mv "$work/logs" "$installed/logs"
  # And in the place of the configuration, whose wrong lines would be quoted.
  for name in qnm.conf qnm_log4c.properties; do
    mv "$installed/conf/$name" "$work/$name"
    ln -s "$work/secret" "$installed/conf/$name"
    chown --no-dereference "$other:$other" "$installed/conf/$name"
    report quoted
    ! grep --quiet --recursive "a secret" "$work/quoted" || fail "$name: the report has the secret"
    has "$work/quoted/problems.txt" "$installed/conf/$name is a symbolic link"
    qnmctl 1 list
    has "$work/errors" "$installed/conf/$name is a symbolic link of another user, which is not followed"
    rm "$installed/conf/$name"
    mv "$work/$name" "$installed/conf/$name"
  done
else
  echo "cannot give files away here, so that was not tried"
fi
