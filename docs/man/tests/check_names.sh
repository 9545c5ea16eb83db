#!/usr/bin/env bash
# Checks that every exported name that the header declares has a page, that the others are named in
# the overview, and that each name on a page of several names leads to that page.
#
#   usage: check_names.sh FOLDER HEADER EXPORTS
set -euo pipefail
folder=$1
header=$2
exports=$3
overview=$folder/man7/qnm.7
failed=0

complain() {
  echo "$*" >&2
  failed=1
}

# Prints the page that a file includes by .so, or the file itself.
page_of() {
  sed -n "1s#^\\.so #$folder/#p" "$1" | grep . || echo "$1"
}

check_page() {
  local name=$1 page
  page=$(page_of "$folder/man3/$name.3")
  grep --quiet "^$name\\b\\|, $name\\b\\|\\\\fB$name\\\\fP" "$page" ||
    complain "$name: its page does not name it"
}

count=0
while read -r name; do
  count=$((count + 1))
  if [[ -f $folder/man3/$name.3 ]]; then
    check_page "$name"
  elif grep --quiet --word-regexp "$name" "$header"; then
    complain "$name: has no page"
  else
    grep --quiet "^\\.BR\\? $name\\b" "$overview" || complain "$name: qnm(7) does not name it"
  fi
done <"$exports"

# Names that are not exported: constants, types, inline functions and the macros of the version.
while read -r name; do
  count=$((count + 1))
  [[ -f $folder/man3/$name.3 ]] || complain "$name: has no page"
done < <(grep --only-matching --extended-regexp '^ +QNM_[A-Z0-9_]+ = |\bqnm_\w+_t;|\bQNM_VERSION(_[A-Z]+)? |^static inline .*' \
  "$header" | sed 's/^static .*\b\(qnm_[a-z_]*\)(.*/\1/' | tr -d ' =;' | sort -u)

((count > 50)) || complain "only $count names were found"
exit "$failed"
