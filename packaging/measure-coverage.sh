#!/usr/bin/env bash
# Measures which lines of src/ the tests reach, file by file, and fails when it is less than the least that we accept.
#
# Usage: packaging/measure-coverage.sh [CTEST-ARGUMENT...]      the page with every line is build/coverage/report/index.html
#
# The rule: all tests count, and all of src/ does; a line is not left out by a mark in the source.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
# shellcheck source=packaging/shell-helpers.sh
source packaging/shell-helpers.sh

readonly BUILD="$PWD/build/coverage"
readonly LEAST_PERCENT=95

steps 4

step "Looking for compiler, test libraries and gcovr"
packaging/install-dependencies.sh build test coverage

step "Building with instrumentation, not optimised"
configure "$BUILD" --preset coverage
build "$BUILD"
# Counts of an earlier run would be added to.
find "$BUILD" -name '*.gcda' -delete

step "Running the tests"
ctest --test-dir "$BUILD" --output-on-failure --parallel 2 --no-tests=error "$@" >"$BUILD/ctest.log" 2>&1 || {
  tail -n 40 "$BUILD/ctest.log" >&2
  fail "tests failed; their output is in $BUILD/ctest.log"
}
tail -n 3 "$BUILD/ctest.log"

step "Gathering"
mkdir -p "$BUILD/report"
gcovr --root . --filter 'src/' --sort-uncovered --html-details "$BUILD/report/index.html" \
  --txt "$BUILD/report/lines.txt" --fail-under-line "$LEAST_PERCENT" "$BUILD" ||
  fail "less than $LEAST_PERCENT % of the lines; see $BUILD/report/lines.txt"
cat "$BUILD/report/lines.txt"
