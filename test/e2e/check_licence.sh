#!/usr/bin/env bash
# Fails when the README says something else of the licence than the copyright file of the packages.
#
#   usage: check_licence.sh README COPYRIGHT
set -euo pipefail

# Wherever the lines end.
readme=$(sed '1,/^## Licence$/d; /^## /,$d' "$1" | tr -s '[:space:]' ' ')
copyright=$(sed '1,/^License: /d; /^[^ ]/,$d' "$2" | tr -s '[:space:]' ' ')
if [[ $readme != *licence* || $readme != "$copyright" ]]; then
  printf '%s\n' "$1 says:$readme" "$2 says:$copyright" >&2
  exit 1
fi
