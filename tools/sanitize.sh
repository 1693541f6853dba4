#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer
# into build-sanitize/ and runs the whole test suite there. The program is
# linked dynamically for once: the sanitizers' runtimes do not link
# statically. Reports go to files, so that one from the detached child,
# whose standard error is /dev/null, is not lost either.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
build=$PWD/build-sanitize
flags="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DTZR_WERROR=ON -DTZR_STATIC=OFF \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$build" -j"$(nproc)"
rm -rf "$build/reports"
mkdir -p "$build/reports"
export ASAN_OPTIONS="log_path=$build/reports/asan"
export UBSAN_OPTIONS="log_path=$build/reports/ubsan:print_stacktrace=1"
status=0
# The boards run a cross build of their own, none of this one.
(cd "$build" && ctest -j"$(nproc)" -LE board --output-on-failure --timeout 300) || status=$?
if [ -n "$(ls "$build/reports")" ]; then
  cat "$build"/reports/*
  echo "sanitizer reports: $build/reports" >&2
  exit 1
fi
exit "$status"
