#!/usr/bin/env bash
# Runs the whole test suite, unit, end-to-end and web, against the ARM build
# of the program under qemu-user (armhf on a Cortex-A7 model, armel on an
# ARMv5 model, arm64 on a Cortex-A53 model):
#   tools/test-arm.sh armhf|armel|arm64
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:?usage: tools/test-arm.sh armhf|armel|arm64}
build=build/$arch

tools/install-deps.sh
tools/build-arm.sh "$arch" >/dev/null
cd "$build"
ctest -j"$(nproc)" --output-on-failure --timeout 300
