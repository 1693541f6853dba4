#!/usr/bin/env bash
# Fails if any tracked source file is not as its formatter leaves it: clang-format (.clang-format)
# for the C and C++, black (pyproject.toml) for the Python, and flake8 (.flake8) on the Python too.
# Changes nothing and prints what differs; `clang-format -i FILE` and `black FILE` mend it. Quick:
# CI runs it before the tests, so that a slip in format fails in seconds.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh clang-format black flake8
mapfile -t cpp < <(git ls-files '*.c' '*.cc' '*.cpp' '*.h' '*.hpp')
mapfile -t python < <(git ls-files '*.py')
failed=()
clang-format --dry-run --Werror "${cpp[@]}" || failed+=(clang-format)
black --check --diff --quiet "${python[@]}" || failed+=(black)
flake8 "${python[@]}" || failed+=(flake8)
if [ ${#failed[@]} -gt 0 ]; then
  echo "lint: ${failed[*]} found files to mend (above)" >&2
  exit 1
fi
echo "lint: ${#cpp[@]} C/C++ and ${#python[@]} Python files as clang-format, black and flake8 want them"
