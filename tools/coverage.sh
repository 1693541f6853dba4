#!/usr/bin/env bash
# Line coverage of the program's units by the whole test suite, end-to-end
# and web runs included: builds with --coverage into build-coverage/, runs
# every test, and prints gcovr's table of the program's own files.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
tools/install-deps.sh gcovr
build=build-coverage
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DTZR_WERROR=ON -DCMAKE_CXX_FLAGS=--coverage \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage >/dev/null
cmake --build "$build" -j"$(nproc)"
find "$build" -name '*.gcda' -delete
(cd "$build" && ctest -j"$(nproc)" --output-on-failure --timeout 300)
gcovr -r . "$build" --filter 'cgi/' --filter 'config_client/' --filter 'read_service/' \
  --filter 'write_service/' --filter 'rules/'
