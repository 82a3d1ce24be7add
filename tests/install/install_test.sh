#!/usr/bin/env bash
# The tests of the installed tree; CMakeLists.txt beside it lists them. Usage: install_test.sh SETTINGS TEST
#
# The rule: the tree is installed to one place and used from another, so that a test fails when anything in it remembers
# where it was installed or built.
set -euo pipefail

# shellcheck source=tests/install/settings.sh.in
source "$1"

readonly LIBRARIES=(zonmdfile zongenreg zoncmncoll zonosse zonvekapi)
readonly FIRST_PREFIX="$WORK/first prefix"
readonly PREFIX="$WORK/moved"
readonly EXAMPLES="$WORK/examples"

fail() {
  echo "FAILED: $1" >&2
  exit 1
}

library() {
  echo "$PREFIX/$LIBDIR/lib$1.so.1.0.0"
}

InstallsIntoAnEmptyPrefix() {
  rm -rf "$WORK"
  mkdir -p "$WORK"
  cmake --install "$BUILD" --prefix "$FIRST_PREFIX" >"$WORK/install.log"
  mv "$FIRST_PREFIX" "$PREFIX"
  local path
  for path in include/zonmdfile/zonmdfile.h include/zonmdfile/MDCustomTree.h include/zonmdfile/platform/DString.h \
    "$LIBDIR/cmake/zonmdfile/zonmdfileConfig.cmake" "$LIBDIR/pkgconfig/zonmdfile.pc" share/zonmdfile/examples/site_load.c \
    share/zonmdfile/examples/data/custom_trees.tsv share/doc/zonmdfile/README.md share/doc/zonmdfile/LICENSE; do
    [[ -s "$PREFIX/$path" ]] || fail "$path is not installed"
  done
}

LibrariesCarryVersionOneAndFindEachOther() {
  local name file dynamic
  for name in "${LIBRARIES[@]}"; do
    file="$(library "$name")"
    [[ -f "$file" && ! -L "$file" ]] || fail "$file is no file of its own"
    [[ "$(readlink -f "$PREFIX/$LIBDIR/lib$name.so.1")" == "$file" ]] || fail "lib$name.so.1 does not lead to $file"
    [[ "$(readlink -f "$PREFIX/$LIBDIR/lib$name.so")" == "$file" ]] || fail "lib$name.so does not lead to $file"
    dynamic="$(readelf --dynamic --wide "$file")"
    grep --quiet --fixed-strings "Library soname: [lib$name.so.1]" <<<"$dynamic" || fail "lib$name has another SONAME"
    grep --quiet --fixed-strings "Library runpath: [\$ORIGIN]" <<<"$dynamic" || fail "lib$name does not look in its folder"
  done
}

LibrariesNeedNothingButTheSystem() {
  local name needed allowed='^(lib(zonmdfile|zongenreg|zoncmncoll|zonosse|zonvekapi)\.so\.1|libstdc\+\+\.so\.6|libm\.so\.6|libgcc_s\.so\.1|libc\.so\.6|ld-linux-x86-64\.so\.2)$'
  for name in "${LIBRARIES[@]}"; do
    needed="$(readelf --dynamic --wide "$(library "$name")" | sed --quiet 's/.*(NEEDED).*\[\(.*\)\]/\1/p')"
    grep --quiet 'libc\.so\.6' <<<"$needed" || fail "readelf shows nothing of lib$name"
    if grep --invert-match --extended-regexp "$allowed" <<<"$needed"; then
      fail "lib$name needs more than the system's libraries"
    fi
  done
}

LibrariesAreHardened() {
  local name dynamic segments
  for name in "${LIBRARIES[@]}"; do
    dynamic="$(readelf --dynamic --wide "$(library "$name")")"
    segments="$(readelf --program-headers --wide "$(library "$name")")"
    grep --quiet 'BIND_NOW' <<<"$dynamic" || fail "lib$name binds lazily"
    grep --quiet 'GNU_RELRO' <<<"$segments" || fail "lib$name has no RELRO segment"
    grep --quiet 'GNU_STACK.* RW  *0x' <<<"$segments" || fail "lib$name asks for an executable stack"
    if grep --quiet 'TEXTREL' <<<"$dynamic"; then fail "lib$name relocates its code"; fi
    # The system's start-up objects carry no such mark, so that the linker sets none either: the code itself has to show it.
    [[ "$(objdump --disassemble "$(library "$name")" | grep --count endbr64)" -gt 10 ]] ||
      fail "the functions of lib$name are no marked branch targets"
  done
  # One library for all: which functions a library calls depends on what it does.
  dynamic="$(readelf --dyn-syms --wide "$(library zonmdfile)")"
  grep --quiet '__stack_chk_fail' <<<"$dynamic" || fail "no stack protector"
}

HeadersCompileInBothLanguages() {
  local header flags=(-Wall -Wextra -Wpedantic -Werror -fsyntax-only "-I$PREFIX/include")
  "$C_COMPILER" -std=c11 "${flags[@]}" -x c - <<<'#include "zonmdfile/zonmdfile.h"'
  for header in oss admin trace sqlca return_codes export; do
    "$C_COMPILER" -std=c11 "${flags[@]}" -x c - <<<"#include \"zonmdfile/platform/$header.h\"
typedef int notEmpty;"
  done
  while read -r header; do
    "$CXX_COMPILER" -std=c++20 "${flags[@]}" -x c++ - <<<"#include \"$header\"" || fail "$header does not stand alone"
  done < <(cd "$PREFIX/include" && find zonmdfile -name '*.h')
}

PackageNamesNoPrefix() {
  if grep --recursive --fixed-strings --files-with-matches -e "$FIRST_PREFIX" -e "$BUILD" -e "$SOURCE" "$PREFIX"; then
    fail "these files name the folder of the build, of the sources or of the installation"
  fi
}

ToolsRunFromTheMovedTree() {
  local help
  help="$("$PREFIX/bin/zontrace" --help)" || fail "zontrace does not run"
  grep --quiet --ignore-case trace <<<"$help" || fail "zontrace does not explain itself"
}

ExamplesBuildWithFindPackage() {
  rm -rf "$EXAMPLES"
  cp -r "$PREFIX/share/zonmdfile/examples" "$EXAMPLES"
  cmake -S "$EXAMPLES" -B "$EXAMPLES/build" -G "$GENERATOR" -DCMAKE_PREFIX_PATH="$PREFIX" -DCMAKE_C_COMPILER="$C_COMPILER" \
    -DCMAKE_CXX_COMPILER="$CXX_COMPILER" -DCMAKE_C_FLAGS=-Werror -DCMAKE_CXX_FLAGS=-Werror
  cmake --build "$EXAMPLES/build"
}

# Each of the five libraries as a program would name it, without CMake.
ExamplesBuildWithPkgConfig() {
  local source="$PREFIX/share/zonmdfile/examples" flags rpath out="$WORK/pkg-config"
  export PKG_CONFIG_PATH="$PREFIX/$LIBDIR/pkgconfig"
  [[ "$(pkg-config --modversion zonmdfile)" == 1.* ]] || fail "pkg-config reports another version"
  read -r -a flags <<<"$(pkg-config --cflags --libs zonmdfile)"
  rpath="-Wl,-rpath,$(pkg-config --variable=libdir zonmdfile)"
  rm -rf "$out"
  mkdir -p "$out/site"
  "$C_COMPILER" -std=c11 -Wall -Wextra -Wpedantic -Werror -o "$out/first_record" "$source/first_record.c" "${flags[@]}" "$rpath"
  "$C_COMPILER" -std=c11 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Wpedantic -Werror -o "$out/two_processes" \
    "$source/two_processes.c" "$source/zon_calls.c" "${flags[@]}" "$rpath"
  ZON_METADATA_PATH="$out/site" "$out/first_record" >"$out/first_record.log"
  grep --quiet 'data "a tree with one node"' "$out/first_record.log" || fail "no record came back"
  "$out/two_processes" "$out/site"

  # The program that README.md shows, as it stands there.
  awk '/^```/ {inside = $0 == "```c"; next} inside' "$PREFIX/share/doc/zonmdfile/README.md" >"$out/readme.c"
  "$C_COMPILER" -std=c11 -Wall -Wextra -Wpedantic -Werror -o "$out/readme" "$out/readme.c" "${flags[@]}" "$rpath"
  (cd "$out" && [[ "$(ZON_METADATA_PATH="$out/site" ./readme)" == "a tree with one node" ]]) || fail "README.md's program fails"
}

run_main_job() {
  local site="$1"
  shift
  rm -rf "$site"
  mkdir -p "$site"
  "$@" "$EXAMPLES/build/site_load" "$site" "$EXAMPLES/data"
  "$@" "$EXAMPLES/build/cloning_mappings" load "$site" "$EXAMPLES/data"
  "$@" "$EXAMPLES/build/site_check" "$site" "$EXAMPLES/data"
  "$@" "$EXAMPLES/build/cloning_mappings" check "$site" "$EXAMPLES/data"
}

# That the checking program sees a loss is part of the test: without one record it must fail.
MainJobLosesNothing() {
  local site="$WORK/site"
  run_main_job "$site"
  rm "$site/zonutilnamemap"
  if "$EXAMPLES/build/site_check" "$site" "$EXAMPLES/data" >"$WORK/lost.log"; then
    fail "site_check does not notice that a whole store is gone"
  fi
}

MainJobLeaksNothing() {
  run_main_job "$WORK/site-valgrind" "$VALGRIND" --quiet --error-exitcode=9 --leak-check=full --show-leak-kinds=all \
    --errors-for-leak-kinds=all --suppressions="$SOURCE/tests/install/valgrind.supp"
}

# The same sources at another place, built in another folder.
AnotherFolderGivesTheSameLibraries() {
  local copy="$WORK/another source folder" name
  rm -rf "$copy"
  mkdir -p "$copy"
  tar --create --directory "$SOURCE" --exclude=./build --exclude=./.git . | tar --extract --directory "$copy"
  cmake -S "$copy" -B "$copy/elsewhere/build" -G "$GENERATOR" -DCMAKE_BUILD_TYPE="$BUILD_TYPE" -DZON_BUILD_TOOLS=OFF \
    -DCMAKE_C_COMPILER="$C_COMPILER" -DCMAKE_CXX_COMPILER="$CXX_COMPILER"
  cmake --build "$copy/elsewhere/build" --parallel 2
  for name in "${LIBRARIES[@]}"; do
    cmp "$copy/elsewhere/build/lib/lib$name.so.1.0.0" "$BUILD/lib/lib$name.so.1.0.0" ||
      fail "lib$name differs when it is built somewhere else"
  done
  rm -rf "$copy"
}

"$2"
