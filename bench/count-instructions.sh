#!/usr/bin/env bash
# How many user-space instructions does each exported call take, and how do two builds compare? Counted by valgrind, so
# that the answer does not depend on the machine's mood; what the kernel does is not in it.
#
# Usage: bench/count-instructions.sh BUILD [OTHER_BUILD]
#        BUILD: a build tree made with -DZON_BUILD_BENCHMARKS=ON; the last column is BUILD / OTHER_BUILD
#        RECORDS=10000 in the environment sets the size of the files (default 1000), CALLS='list group' what is counted
#
# The rule: a call is the difference between a long and a short loop, so that nothing but calls is counted.
set -euo pipefail

readonly RECORDS="${RECORDS:-1000}"
read -ra CALLS <<<"${CALLS:-retrieve absent insert update remove list group parents}"
readonly CALLS
readonly SHORT=20
readonly LONG=220

if [[ $# -lt 1 || $# -gt 2 ]]; then
  echo "usage: $0 BUILD [OTHER_BUILD]" >&2
  exit 2
fi
command -v valgrind >/dev/null || { echo "$0: valgrind is needed (Debian package valgrind)" >&2; exit 1; }

FOLDER="$(mktemp -d)"
readonly FOLDER
trap 'rm -rf "$FOLDER"' EXIT

# files_of BUILD: the folder of the files that this build has made.
files_of() {
  printf '%s/%s' "$FOLDER" "$(realpath "$1" | tr / _)"
}

# instructions BUILD CALL TIMES: of a whole process that makes so many calls on fresh copies of the files.
instructions() {
  rm -rf "$FOLDER/work"
  cp -r "$(files_of "$1")" "$FOLDER/work"
  valgrind --tool=callgrind --callgrind-out-file=/dev/null "$1/bin/call_loop" "$FOLDER/work" "$2" "$3" 2>&1 |
    sed -n 's/.*Collected : //p'
}

per_call() {
  local short long
  short="$(instructions "$1" "$2" "$SHORT")"
  long="$(instructions "$1" "$2" "$LONG")"
  echo $(((long - short) / (LONG - SHORT)))
}

for build in "$@"; do
  mkdir "$(files_of "$build")"
  "$build/bin/call_loop" "$(files_of "$build")" load "$RECORDS"
done

printf '%-10s %14s' call "$(basename "$1")"
[[ $# == 1 ]] && printf '\n' || printf ' %14s %8s\n' "$(basename "$2")" ratio
for name in "${CALLS[@]}"; do
  first="$(per_call "$1" "$name")"
  printf '%-10s %14s' "$name" "$first"
  if [[ $# == 2 ]]; then
    second="$(per_call "$2" "$name")"
    awk -v a="$first" -v b="$second" 'BEGIN { printf " %14s %8.3f", b, a / b }'
  fi
  printf '\n'
done
