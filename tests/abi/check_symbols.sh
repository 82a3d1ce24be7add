#!/bin/sh
# check_symbols.sh LIBRARY LIST: holds the symbols that a shared library exports against the checked-in list.
#
# The rule: the list is the ABI. A line that goes is a break for callers; a line that comes is a promise.
set -eu
exported=$(mktemp)
trap 'rm -f "$exported"' EXIT
nm -D --defined-only "$1" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | LC_ALL=C sort -u > "$exported"
diff -u "$2" "$exported"
