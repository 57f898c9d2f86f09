#!/usr/bin/env bash
# Builds PAXLtrace and runs the demo: producer processes write traces, the paxltrace tool tails them.
#   scripts/demo.sh                  10 seconds
#   scripts/demo.sh --duration 30    any arguments go to `paxltrace demo`
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs" --target paxltrace_tool
TRACE_PREFIX="${TRACE_PREFIX:-paxl_demo}" exec build/tools/paxltrace demo "$@"
