#!/usr/bin/env bash
# Checks that mandoc and man have no complaints about the manual pages, and that each page has a
# heading that only a complete page has.
#
#   usage: check-man-pages.sh HEADING PAGE|FOLDER...
set -euo pipefail
heading=$1
shift

complain() {
  echo "$*" >&2
  exit 1
}

# Files that only lead to another page have nothing to look at.
mapfile -t pages < <(find "$@" -regex '.*\.[1-9]' -exec grep --files-without-match '^\.so ' {} +)
((${#pages[@]} > 0)) || complain "there are no pages"

complaints=$(mandoc -T lint -W warning "${pages[@]}" 2>&1) || complain "$complaints"
complaints=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 \
  man --warnings -E UTF-8 -l -Tutf8 -Z "${pages[@]}" 2>&1 >/dev/null)
[[ -z $complaints ]] || complain "$complaints"
mapfile -t incomplete < <(grep --files-without-match "^\\.SH \"\\?$heading" "${pages[@]}")
((${#incomplete[@]} == 0)) || complain "no $heading in: ${incomplete[*]}"
