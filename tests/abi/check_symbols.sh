#!/bin/sh
# check_symbols.sh LIBRARY MAP: holds the symbols that a shared library exports against its export list.
#
# The rule: the list is the ABI, exact names only. A line that goes is a break for callers; a line that comes is a promise.
# What the linker cannot know is found here: a listed name that nobody defines, a template or a static that slipped out.
set -eu
listed=$(mktemp)
exported=$(mktemp)
trap 'rm -f "$listed" "$exported"' EXIT
sed -e 's/#.*//' -e '/[{}]/d' -e '/:$/d' -e 's/^[ "]*//' -e 's/"\{0,1\};$//' -e '/^\*$/d' -e '/^$/d' "$2" |
  LC_ALL=C sort > "$listed"
nm -D --defined-only --demangle "$1" | sed -n -e 's/@.*//' -e 's/^[0-9a-f]* [^A] //p' | LC_ALL=C sort -u > "$exported"
diff -u "$listed" "$exported"
