#!/usr/bin/env bash
# Builds PAXLtrace and runs every test.
#   scripts/test.sh              plain build (build/)
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer (build-asan/)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

dir=build
flags=()
if [ "${1:-}" = "--sanitize" ]; then
  dir=build-asan
  flags=(-DPAXLTRACE_SANITIZE=ON -DPAXLTRACE_BUILD_BENCH=OFF)
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
fi
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${flags[@]}"
cmake --build "$dir" -j"$jobs"
cd "$dir"
ctest -j"$jobs" --output-on-failure --timeout 600
