#!/usr/bin/env bash
# A private apt for a target architecture: its own lists, cache and an empty
# dpkg status under build/ARCH/apt, so it never touches the host's packages
# (not multiarch: the target's cgicc conflicts with the host's, and a second
# libc beside the cross compiler's breaks fork() under qemu).
#   tools/target-apt.sh [--suite SUITE] ARCH download FOLDER PACKAGE...   the .deb files, into FOLDER
#   tools/target-apt.sh [--suite SUITE] ARCH depends PACKAGE               the packages it depends on
# The host's own release by default; --suite another (trixie) from the same
# mirrors, with lists of its own under build/ARCH/apt-SUITE.
set -euo pipefail
cd "$(dirname "$0")/.."
suite=
if [ "${1:-}" = --suite ]; then
  suite=$2
  shift 2
fi
arch=$1 command=$2
shift 2
apt=$PWD/build/$arch/apt${suite:+-$suite}
opts=(-qq -o "Dir::State=$apt/state" -o "Dir::State::status=$apt/status" -o "Dir::Cache=$apt/cache"
      -o "APT::Architecture=$arch" -o "APT::Architectures=$arch" -o Debug::NoLocking=1
      -o APT::Sandbox::User=root)
if [ -n "$suite" ]; then
  # The host's sources with its release's name (and -updates, -security) put
  # to SUITE's: the same mirrors and keys, another release.
  opts+=(-o "Dir::Etc::SourceList=$apt/sources.list" -o "Dir::Etc::SourceParts=$apt/sources.list.d")
  host=$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)
  mkdir -p "$apt/sources.list.d"
  rm -f "$apt"/sources.list.d/*
  for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
    if [ -f "$file" ] && grep -qw "$host" "$file"; then
      sed "s/\b$host\b/$suite/g" "$file" >"$apt/sources.list.d/${file##*/}"
    fi
  done
  : >"$apt/sources.list"
  ls "$apt"/sources.list.d/* >/dev/null 2>&1 || { echo "target-apt: no host source names $host" >&2; exit 1; }
fi
# Lists a day old are read again: the mirror drops the packages they name at
# each point release.
if [ -z "$(find "$apt/state/updated" -mtime -1 2>/dev/null)" ]; then
  mkdir -p "$apt/state/lists/partial" "$apt/cache/archives/partial"
  : >"$apt/status"
  # The security suite's ARM index has been seen to fail its size check; what
  # we fetch comes from the main suite too, so only the download decides.
  apt-get "${opts[@]}" update >"$apt/update.log" 2>&1 ||
    echo "note: the private apt-get update reported errors (see $apt/update.log)" >&2
  # Fresh only once the main suite's index is there: lists that could not be
  # fetched are asked for again next time.
  ! ls "$apt"/state/lists/*_main_binary-"${arch}"_Packages* >/dev/null 2>&1 || touch "$apt/state/updated"
fi
case $command in
  download)
    mkdir -p "$1"
    cd "$1" && shift && apt-get "${opts[@]}" download "$@" ;;
  depends) apt-cache "${opts[@]}" depends "$@" | awk '$1 == "Depends:" { print $2 }' ;;
  *) echo "usage: tools/target-apt.sh [--suite SUITE] ARCH download FOLDER PACKAGE... | depends PACKAGE" >&2; exit 2 ;;
esac
