#!/usr/bin/env bash
# The manual page has nothing to complain of for mandoc, nor for man itself.
#
#   usage: check_man_page.sh PAGE
set -euo pipefail

complaints=$(mandoc -T lint -W warning "$1" 2>&1) || {
  echo "$complaints" >&2
  exit 1
}
complaints=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 \
  man --warnings -E UTF-8 -l -Tutf8 -Z "$1" 2>&1 >/dev/null)
if [[ -n $complaints ]]; then
  echo "$complaints" >&2
  exit 1
fi
# It is a page, and not nothing that nobody can complain of.
LC_ALL=C.UTF-8 MANWIDTH=80 man -l "$1" | grep --quiet 'EXIT STATUS'
