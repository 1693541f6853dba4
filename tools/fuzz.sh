#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) with clang into build-fuzz/, runs each
# for SECONDS (default 60) over a scratch copy of its seed corpus, then
# replays its kept regression inputs. Fails on any crash, sanitizer report,
# leak, time-out or out-of-memory. Needs root only to install what is
# missing. Usage: tools/fuzz.sh [SECONDS_PER_TARGET [TARGET...]]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
targets=(write_rules request)
[ $# -gt 1 ] && targets=("${@:2}")

tools/install-deps.sh
# clang alone does not bring the sanitizer and libFuzzer runtimes.
tools/install-deps.sh clang libclang-rt-14-dev

CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTZR_FUZZ=ON \
  -DTZR_BUILD_TESTS=OFF >/dev/null
cmake --build build-fuzz -j2 --target "${targets[@]/#/fuzz_}" >/dev/null

failed=()
for target in "${targets[@]}"; do
  binary=build-fuzz/fuzz/fuzz_$target
  corpus=build-fuzz/corpus/$target  # kept between runs: long runs build on it
  artifacts=build-fuzz/artifacts/$target
  log=build-fuzz/$target.log
  mkdir -p "$corpus" "$artifacts"
  cp fuzz/corpus/"$target"/* "$corpus"/
  status=0
  "$binary" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=1024 -print_final_stats=1 \
    -dict=fuzz/"$target".dict -artifact_prefix="$artifacts"/ "$corpus" >"$log" 2>&1 || status=$?
  if [ -d fuzz/regressions/"$target" ]; then
    "$binary" -timeout=10 -rss_limit_mb=1024 fuzz/regressions/"$target"/* >>"$log" 2>&1 || status=$?
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1 || true)
  coverage=$(grep -ao 'cov: [0-9]* ft: [0-9]* corp: [0-9]*' "$log" | tail -n 1 || true)
  echo "fuzz_$target: ${runs:-?} executions, ${coverage:-no coverage line}, exit status $status"
  if [ "$status" -ne 0 ]; then
    failed+=("$target")
    grep -aE '^(==[0-9]+==ERROR|SUMMARY|artifact_prefix|Test unit written)|ERROR: libFuzzer' "$log" || tail -n 30 "$log"
  fi
done
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing failed: ${failed[*]} (logs in build-fuzz/TARGET.log, inputs in build-fuzz/artifacts/)"
  exit 1
fi
