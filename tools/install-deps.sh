#!/usr/bin/env bash
# Installs the Debian packages the project builds, tests and demonstrates
# with, and any further packages named as arguments. Run as root; does
# nothing when everything is already there.
set -euo pipefail

packages=(build-essential cmake pkg-config libcgicc-dev googletest libgtest-dev libgmock-dev
          lighttpd curl clang-format util-linux "$@")

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
