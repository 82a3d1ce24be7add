# Shared by the scripts at the top of the tree: numbered steps and a quiet build. Sourced, never run.
#
# The rule: a step says what it does before it does it, and a failing build shows what the compiler said.
# shellcheck shell=bash

STEP_NUMBER=0
STEP_COUNT=0

# steps N: how many steps the script will announce.
steps() {
  STEP_COUNT="$1"
}

# step TEXT: announces the next step.
step() {
  STEP_NUMBER=$((STEP_NUMBER + 1))
  printf '\n[%d/%d] %s (%ds since the start)\n' "$STEP_NUMBER" "$STEP_COUNT" "$1" "$SECONDS"
}

# fail TEXT: ends the script.
fail() {
  printf '%s: %s\n' "$(basename "$0")" "$1" >&2
  exit 1
}

# source_files PATH...: the files at and below these that belong to the source, as git has them. Where git is missing, knows
# nothing here, or mistrusts a tree of somebody else, all but what git itself and builds have put there.
source_files() {
  local known
  known="$(git -c safe.directory="$PWD" ls-files --cached -- "$@" 2>/dev/null)" || known=""
  if [[ -n "$known" ]]; then
    printf '%s\n' "$known"
  else
    find "$@" \( -path ./.git -o -path './build*' -o -path ./.cache \) -prune -o -type f -print
  fi
}

# build_jobs: how many compilers to run at once.
build_jobs() {
  nproc 2>/dev/null || echo 2
}

# configure FOLDER OPTION...: configures the tree at the current directory; the output is shown when it fails.
configure() {
  local folder="$1"
  shift
  mkdir -p "$folder"
  if ! cmake -S . -B "$folder" -G Ninja "$@" >"$folder/configure.log" 2>&1; then
    cat "$folder/configure.log" >&2
    fail "configuring $folder failed"
  fi
  echo "   configured $folder"
}

# build FOLDER [TARGET...]: builds; Ninja shows its progress in one line on a terminal, only problems elsewhere.
build() {
  local folder="$1" target arguments=()
  shift
  for target in "$@"; do
    arguments+=(--target "$target")
  done
  if [[ -t 1 ]]; then
    cmake --build "$folder" --parallel "$(build_jobs)" "${arguments[@]}" || fail "building $folder failed"
  else
    cmake --build "$folder" --parallel "$(build_jobs)" "${arguments[@]}" >"$folder/build.log" 2>&1 || {
      sed '/^FAILED/,$!d' "$folder/build.log" >&2
      fail "building $folder failed"
    }
    # A tree that was built before has its warnings behind it; a fresh one shows them.
    grep -A4 'warning:' "$folder/build.log" || true
  fi
  echo "   built $folder"
}
