#!/usr/bin/env bash
# Builds PAXLtrace and runs the newest example: traces written into a buffer's ring and read back.
#   scripts/demo.sh [COUNT]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs" --target ring_round_trip
TRACE_PREFIX="${TRACE_PREFIX:-paxl_demo}" build/examples/ring_round_trip "$@"
