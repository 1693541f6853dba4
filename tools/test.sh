#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test. Needs root: the
# end-to-end and web tiers run in private namespaces of their own. The unit
# tier needs none, and first runs as user nobody, wherever nobody can reach
# the build, so that it stays so.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
tools/build.sh
for tests in build/tests/unit_tests build/simulator/tests/simulator_tests; do
  if runuser -u nobody -- test -x "$tests"; then
    runuser -u nobody -- "$tests" --gtest_brief=1
  fi
done
cd build
ctest -j"$(nproc)" --output-on-failure --timeout 120
