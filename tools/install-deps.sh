#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and demonstrates
# with, or only the packages named as arguments (as the ARM cross build
# does). Run as root; does nothing when everything is already there.
set -euo pipefail

packages=(build-essential cmake pkg-config libcgicc-dev googletest libgtest-dev libgmock-dev clang-format black flake8
          lighttpd lighttpd-mod-openssl lighttpd-modules-lua openssl curl util-linux valgrind
          busybox chromium chromium-driver python3-selenium iproute2 wrk nftables
          qemu-system-arm qemu-user kmod cpio e2fsprogs g++-arm-linux-gnueabihf g++-aarch64-linux-gnu)

[ $# -eq 0 ] || packages=("$@")
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
