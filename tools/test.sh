#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test. Needs root: each
# test program runs in a private mount namespace of its own.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
tools/build.sh
cd build
ctest -j"$(nproc)" --output-on-failure --timeout 120
