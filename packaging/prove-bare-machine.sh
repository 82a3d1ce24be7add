#!/usr/bin/env bash
# Proves that ./run, ./test and .ci/run do all their set-up: runs them in a minimal Debian 12 that has nothing but apt.
#
# Usage, as root: packaging/prove-bare-machine.sh [FOLDER]      FOLDER (default build/bare-machine) needs about 6 GB; takes over an hour
#
# The rule: the root is made anew each time, by debootstrap with the mirror that this machine itself uses, and what is tested
# is a clone: only what has been committed gets in.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
# shellcheck source=packaging/shell-helpers.sh
source packaging/shell-helpers.sh

readonly SUITE=bookworm
FOLDER="$(readlink -m "${1:-build/bare-machine}")"
readonly FOLDER
readonly ROOT="$FOLDER/root"

# mirror_of SUITE: the first address that apt itself takes this suite from.
mirror_of() {
  # shellcheck disable=SC2016
  apt-get indextargets --format '$(SITE) $(RELEASE)' 'Created-By: Packages' |
    awk -v suite="$1" '$2 == suite && !found {print $1; found = 1}'
}

mounted=()
leave() {
  local i
  for ((i = ${#mounted[@]} - 1; i >= 0; i--)); do
    umount --lazy "${mounted[i]}" || true
  done
}

bind() {
  mkdir -p "$ROOT$1"
  mount --bind "$1" "$ROOT$1"
  mounted+=("$ROOT$1")
}

# Runs in the root with an environment that holds nothing of this machine's, proxies of the network excepted.
in_root() {
  local keep=() name
  for name in http_proxy https_proxy no_proxy HTTP_PROXY HTTPS_PROXY NO_PROXY; do
    [[ -z "${!name:-}" ]] || keep+=("$name=${!name}")
  done
  chroot "$ROOT" /usr/bin/env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    "${keep[@]}" "$@"
}

[[ "$(id -u)" == 0 ]] || fail "debootstrap and chroot need root rights"
steps 6

step "Looking for debootstrap"
packaging/install-dependencies.sh bootstrap
MIRROR="$(mirror_of "$SUITE")"
[[ -n "$MIRROR" ]] || fail "apt on this machine knows no mirror for $SUITE"

step "Making a minimal root in $ROOT"
rm -rf "$ROOT"
mkdir -p "$FOLDER"
debootstrap --variant=minbase "$SUITE" "$ROOT" "$MIRROR" >"$FOLDER/debootstrap.log" 2>&1 || {
  tail -n 20 "$FOLDER/debootstrap.log" >&2
  fail "debootstrap failed"
}
# How apt reaches its mirror is the machine's business: its settings go along, its packages do not.
cp -r /etc/apt/apt.conf.d/. "$ROOT/etc/apt/apt.conf.d/"
cp /etc/resolv.conf "$ROOT/etc/resolv.conf"
for command in g++ cc cmake ninja pkg-config; do
  if in_root sh -c "command -v $command" >/dev/null; then fail "$command is there already"; fi
done
echo "   $(in_root dpkg-query --show | wc -l) packages; no compiler, no CMake"

step "Cloning the repository into it"
git clone --quiet --no-hardlinks "file://$PWD" "$ROOT/root/zonmdfile"
trap leave EXIT
bind /proc
bind /dev

step "./run in the minimal root"
in_root bash /root/zonmdfile/run </dev/null 2>&1 | tee "$FOLDER/run.log" | grep --extended-regexp '^\[|Nothing is lost|Everything' ||
  fail "./run failed; its output is in $FOLDER/run.log"
grep --quiet 'Everything worked' "$FOLDER/run.log" || fail "./run failed; its output is in $FOLDER/run.log"

step "./test in the minimal root, then ./run and ./test once more"
for script in test run test; do
  in_root bash "/root/zonmdfile/$script" </dev/null >"$FOLDER/$script.log" 2>&1 ||
    fail "./$script failed; its output is in $FOLDER/$script.log"
  echo "   ./$script: $(grep --extended-regexp 'tests passed|Everything worked' "$FOLDER/$script.log")"
done

step ".ci/run in the minimal root"
in_root bash /root/zonmdfile/.ci/run </dev/null >"$FOLDER/ci.log" 2>&1 || {
  tail -n 40 "$FOLDER/ci.log" >&2
  fail ".ci/run failed; its output is in $FOLDER/ci.log"
}
tail -n 3 "$FOLDER/ci.log"
