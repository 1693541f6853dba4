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
# unpacked into the build tree.
packages=(libcgicc-dev libcgicc3 libgtest-dev)
sysroot=$build/sysroot
if [ "$(cat "$sysroot/.packages" 2>/dev/null)" != "${packages[*]}" ]; then
  rm -rf "$sysroot" "$build/apt/debs"
  mkdir -p "$sysroot"
  tools/target-apt.sh "$arch" download "$build/apt/debs" "${packages[@]}"
  for deb in "$build"/apt/debs/*.deb; do dpkg-deb -x "$deb" "$sysroot"; done
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
