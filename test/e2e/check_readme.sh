#!/usr/bin/env bash
# Fails when the README does not show a program as it stands in its file.
#
#   usage: check_readme.sh README PROGRAM
set -euo pipefail
# shellcheck disable=SC2016 # what begins and ends code, not a command
shown=$(sed -n '/^```c$/,/^```$/{/^```/d;p}' "$1")
if [[ $shown != "$(<"$2")" ]]; then
  diff <(echo "$shown") "$2" || true
  echo "$1 shows another program than $2" >&2
  exit 1
fi
