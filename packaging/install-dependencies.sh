#!/usr/bin/env bash
# Installs the packages that building, testing and checking need on Debian 12, and only those that are missing.
#
# Usage: packaging/install-dependencies.sh SET...      sets: build test evidence lint fuzz bench peers coverage bootstrap
#
# The rule: a machine that has everything is left alone, without root rights and without a network.
set -euo pipefail

packages_of() {
  case "$1" in
    build) echo g++ cmake ninja-build pkgconf libcli11-dev ;;
    test) echo libgtest-dev libgmock-dev valgrind ;;
    evidence) echo python3 e2fsprogs mount ;;
    lint) echo clang-14 libclang-rt-14-dev llvm-14 clang-tidy-14 clang-format-14 shellcheck python3 ;;
    fuzz) echo clang-14 libclang-rt-14-dev llvm-14 ;;
    bench) echo libbenchmark-dev nlohmann-json3-dev ;;
    peers)
      echo libsqlite3-dev liblmdb-dev libgdbm-dev libtdb-dev libdb5.3-dev libtkrzw-dev libleveldb-dev librocksdb-dev \
        gnuplot-nox python3
      ;;
    coverage) echo gcovr ;;
    bootstrap) echo debootstrap git ;;
    *)
      echo "install-dependencies: unknown set '$1'; there are: build test evidence lint fuzz bench peers coverage bootstrap" >&2
      return 2
      ;;
  esac
}

is_installed() {
  [[ "$(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null || true)" == installed ]]
}

has_candidate() {
  [[ "$(LC_ALL=C apt-cache policy "$1" 2>/dev/null)" == *"Candidate: "[!\(]* ]]
}

as_root() {
  if [[ "$(id -u)" == 0 ]]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo --preserve-env=DEBIAN_FRONTEND "$@"
  else
    echo "install-dependencies: root rights are needed for: $*" >&2
    echo "Run this script as root, or install the packages yourself and start again." >&2
    return 1
  fi
}

update_lists() {
  echo "   refreshing the package lists"
  as_root apt-get update --quiet=2
}

install_packages() {
  as_root apt-get install --yes --quiet=2 --no-install-recommends -o Dpkg::Use-Pty=0 "$@" >/dev/null
}

main() {
  if [[ $# == 0 ]]; then
    echo "usage: $0 SET...      sets: build test evidence lint fuzz bench peers coverage bootstrap" >&2
    return 2
  fi
  local set names package wanted=() missing=()
  for set in "$@"; do
    names="$(packages_of "$set")"
    read -r -a names <<<"$names"
    wanted+=("${names[@]}")
  done

  if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "   no apt here; expecting what Debian calls: ${wanted[*]}"
    return 0
  fi

  for package in "${wanted[@]}"; do
    is_installed "$package" || missing+=("$package")
  done
  if [[ ${#missing[@]} == 0 ]]; then
    echo "   nothing to install"
    return 0
  fi

  export DEBIAN_FRONTEND=noninteractive
  echo "   installing: ${missing[*]}"
  for package in "${missing[@]}"; do
    if ! has_candidate "$package"; then
      update_lists
      break
    fi
  done
  # Lists that are old name packages that the mirror no longer has; then one refresh helps.
  if ! install_packages "${missing[@]}"; then
    update_lists
    install_packages "${missing[@]}"
  fi
}

main "$@"
