#!/usr/bin/env bash
# The per-request cost benchmark (docs/performance.md): installs what is
# missing, builds the program statically and dynamically and the floor
# programs, then prints one table. Needs root; a few minutes, --quick less.
#   bench/run.sh [--quick] [--update-baseline] [--source DIR]
# --source DIR measures the program built from another checkout (its build
# dirs go under DIR) against this checkout's simulator and floors.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=.
args=()
while [ $# -gt 0 ]; do
  case "$1" in
    --source) source_dir=$(realpath "$2"); shift 2 ;;
    *) args+=("$1"); shift ;;
  esac
done

tools/install-deps.sh
tools/install-deps.sh hyperfine wrk valgrind python3
build() {  # SOURCE BUILD_DIR CMAKE_OPTION... then the targets after --
  local source=$1 dir=$2; shift 2
  local options=() 
  while [ "$1" != -- ]; do options+=("$1"); shift; done
  shift
  cmake -S "$source" -B "$dir" -DTZR_BUILD_TESTS=OFF "${options[@]}" >/dev/null
  cmake --build "$dir" -j2 --target "$@" >/dev/null
}
build . build-bench/tools -- cffs-sim floor_cgi fixed_cgi iostream_start
build "$source_dir" "$source_dir/build-bench/static" -DTZR_STATIC=ON -- tzr4417.cgi
build "$source_dir" "$source_dir/build-bench/dynamic" -DTZR_STATIC=OFF -- tzr4417.cgi

PYTHONPATH=tools exec /usr/bin/python3 bench/bench.py \
  --tools build-bench/tools --static "$source_dir/build-bench/static/tzr4417.cgi" \
  --dynamic "$source_dir/build-bench/dynamic/tzr4417.cgi" ${args[@]+"${args[@]}"}
