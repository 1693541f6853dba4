#!/usr/bin/env bash
# Cross-builds the program, the simulator and the tests for an ARM board into
# build/ARCH/ and prints the path of the stripped, fully static program last.
#   tools/build-arm.sh armhf|armel|arm64 [--package]
# --package also makes the release .tar.gz and prints its path just before.
set -euo pipefail
cd "$(dirname "$0")/.."

arch=${1:-}
case "$arch" in
  armhf) triple=arm-linux-gnueabihf ;;
  armel) triple=arm-linux-gnueabi ;;
  arm64) triple=aarch64-linux-gnu ;;
  *) echo "usage: $0 armhf|armel|arm64 [--package]" >&2; exit 2 ;;
esac
build=build/$arch

tools/install-deps.sh cmake pkg-config "g++-$triple" qemu-user

# The target's libraries come from Debian's packages for that architecture,
# fetched by a private apt (its own lists, cache and an empty dpkg status)
# and unpacked into the build tree. Not multiarch: the target's cgicc
# conflicts with the host's, and a second libc beside the cross compiler's
# breaks fork() under qemu.
packages=(libcgicc-dev libcgicc3 libgtest-dev)
sysroot=$build/sysroot
if [ "$(cat "$sysroot/.packages" 2>/dev/null)" != "${packages[*]}" ]; then
  apt=$PWD/$build/apt
  rm -rf "$sysroot" "$apt/debs"
  mkdir -p "$apt/state/lists/partial" "$apt/cache/archives/partial" "$apt/debs" "$sysroot"
  : >"$apt/status"
  opts=(-qq -o "Dir::State=$apt/state" -o "Dir::State::status=$apt/status"
        -o "Dir::Cache=$apt/cache" -o "APT::Architecture=$arch" -o "APT::Architectures=$arch"
        -o Debug::NoLocking=1)
  # The security suite's ARM index has been seen to fail its size check;
  # cgicc and gtest come from the main suite, so only the download decides.
  apt-get "${opts[@]}" update >"$apt/update.log" 2>&1 ||
    echo "note: the private apt-get update reported errors (see $apt/update.log)" >&2
  (cd "$apt/debs" && apt-get "${opts[@]}" download "${packages[@]}")
  for deb in "$apt"/debs/*.deb; do dpkg-deb -x "$deb" "$sysroot"; done
  echo "${packages[*]}" >"$sysroot/.packages"
fi

cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-$arch.cmake" \
  -DCMAKE_BUILD_TYPE=MinSizeRel -DTZR_WERROR=ON -DTZR_STATIC=ON >/dev/null
cmake --build "$build" -j2
cmake --install "$build" --prefix "$PWD/$build/dist" --strip >/dev/null
if [ "${2:-}" = --package ]; then
  (cd "$build" && cpack -G TGZ >/dev/null)
  ls "$PWD/$build"/tzr4417-*.tar.gz
fi
echo "$PWD/$build/dist/cgi-bin/tzr4417.cgi"
