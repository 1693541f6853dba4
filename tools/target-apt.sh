#!/usr/bin/env bash
# A private apt for a target architecture: its own lists, cache and an empty
# dpkg status under build/ARCH/apt, so it never touches the host's packages
# (not multiarch: the target's cgicc conflicts with the host's, and a second
# libc beside the cross compiler's breaks fork() under qemu).
#   tools/target-apt.sh ARCH download FOLDER PACKAGE...   the .deb files, into FOLDER
#   tools/target-apt.sh ARCH depends PACKAGE               the packages it depends on
set -euo pipefail
cd "$(dirname "$0")/.."
arch=$1 command=$2
shift 2
apt=$PWD/build/$arch/apt
opts=(-qq -o "Dir::State=$apt/state" -o "Dir::State::status=$apt/status" -o "Dir::Cache=$apt/cache"
      -o "APT::Architecture=$arch" -o "APT::Architectures=$arch" -o Debug::NoLocking=1
      -o APT::Sandbox::User=root)
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
  *) echo "usage: tools/target-apt.sh ARCH download FOLDER PACKAGE... | depends PACKAGE" >&2; exit 2 ;;
esac
