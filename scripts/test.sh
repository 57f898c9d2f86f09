#!/usr/bin/env bash
# Builds PAXLtrace and runs every test, with warnings as errors.
#   scripts/test.sh                    plain build (build/)
#   scripts/test.sh --sanitize         AddressSanitizer + UndefinedBehaviorSanitizer (build-asan/)
#   scripts/test.sh --tsan             ThreadSanitizer: the library and the tests that use threads
#                                      or several processes (build-tsan/)
#   scripts/test.sh --clang            the library, the tool and the examples built with clang
#                                      (build-clang/); no tests run
#   scripts/test.sh --build-type TYPE  plain build of another CMake build type (build-TYPE/)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh "$@"

dir=build
type=RelWithDebInfo
flags=(-DPAXLTRACE_WERROR=ON)
select=()
case "${1:-}" in
  --sanitize)
    dir=build-asan
    flags+=(-DPAXLTRACE_SANITIZE=ON -DPAXLTRACE_BUILD_BENCH=OFF)
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    ;;
  --tsan)
    dir=build-tsan
    flags+=(-DPAXLTRACE_SANITIZE=thread -DPAXLTRACE_BUILD_BENCH=OFF)
    export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/support/tsan.supp"
    # The suites whose code runs on several threads or in several processes; the rest are
    # single-threaded parsers and formatters that the other builds cover.
    # Left to the other runs: two tests that rely on speed the sanitizer takes away. The lock's
    # periodic-warning test waits for a warning printed after 200 timed passes (not reached within
    # its minute here); the lapped-reader test needs a writer fast enough to lap its reader.
    select=(-L '^(stream|buffer|registry|reading|ipc|capi|cpphelpers|diagnostics|examples|tools|lifetime)$'
            -E 'LiveHolderBlocksWithPeriodicWarnings|ALappedReaderDeliversOnlyWholeTraces')
    ;;
  --clang)
    dir=build-clang
    export CC=clang CXX=clang++
    # clang's own warnings are shown, not fatal: the g++ builds hold the line on warnings, and a
    # user's clang must not fail the build on one.
    flags=(-DPAXLTRACE_WERROR=OFF -DPAXLTRACE_BUILD_BENCH=OFF -DPAXLTRACE_BUILD_TESTS=OFF)
    ;;
  --build-type)
    type=${2:?"--build-type needs a CMake build type"}
    dir=build-$type
    flags+=(-DPAXLTRACE_BUILD_BENCH=OFF)
    ;;
  "") ;;
  *) echo "usage: scripts/test.sh [--sanitize | --tsan | --clang | --build-type TYPE]" >&2; exit 2 ;;
esac
launcher=()
if command -v ccache >/dev/null 2>&1; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" "${flags[@]}" "${launcher[@]}"
cmake --build "$dir" -j"$jobs"
[ "${1:-}" = "--clang" ] && exit 0
cd "$dir"
ctest -j"$jobs" --output-on-failure --timeout 600 "${select[@]}"
