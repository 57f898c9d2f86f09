#!/usr/bin/env bash
# Installs PAXLtrace into a temporary prefix, builds the examples against the installed package
# from outside the source tree (with CMake and with pkg-config) and runs them together.
#   scripts/test-install.sh [BUILD_DIR]    BUILD_DIR defaults to build/, configured when it is not
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
jobs=$(nproc 2>/dev/null || echo 2)
scripts/install-deps.sh

work=$(mktemp -d "${TMPDIR:-/tmp}/paxltrace-install.XXXXXX")
prefix=$work/prefix
src=$work/src
# Everything the runs create in shared memory carries this, so the cleanup finds exactly that.
export TRACE_PREFIX="paxlinst$$x"
consumer_pid=""

cleanup() {
  if [ -n "$consumer_pid" ]; then kill "$consumer_pid" 2>/dev/null || true; fi
  rm -f /dev/shm/*"$TRACE_PREFIX"* 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Pipes end in `grep >/dev/null`, not `grep -q`: an early exit of grep would fail the pipe's
# writer with SIGPIPE, which pipefail reports as a failure.
fail() {
  echo "FAILED: $*" >&2
  exit 1
}

echo "== Build ($build)"
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
targets=(--target paxltrace)
if grep -q '^PAXLTRACE_BUILD_TOOLS:BOOL=ON' "$build/CMakeCache.txt"; then
  targets+=(paxltrace_tool)
  tool=1
else
  tool=0
fi
cmake --build "$build" -j"$jobs" "${targets[@]}"

echo "== Install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "install"; }
pc=$(find "$prefix" -name paxltrace.pc -path '*/pkgconfig/*')
[ -n "$pc" ] || fail "no paxltrace.pc installed"
libdir=$(dirname "$(dirname "$pc")")
inc=$prefix/include/paxltrace
for f in "$libdir/libpaxltrace.so" "$libdir/libpaxltrace.so.5" "$libdir/cmake/PAXLtrace/PAXLtraceConfig.cmake" \
  "$libdir/cmake/PAXLtrace/PAXLtraceConfigVersion.cmake" "$inc/paxltrace.h" "$inc/paxltrace.hpp" \
  "$inc/Trace/Reading/TraceReader.h" "$inc/Trace/Buffer/TraceBuffer.h" "$inc/platform/Clock.h"; do
  [ -e "$f" ] || fail "not installed: ${f#"$prefix"/}"
done
[ ! -e "$inc/platform/posix" ] || fail "the OS internals of platform/ were installed"
readelf -d "$libdir/libpaxltrace.so" | grep 'SONAME.*\[libpaxltrace\.so\.5\]' >/dev/null || fail "SONAME is not libpaxltrace.so.5"
# The installed headers are complete: each one's includes are installed too.
(cd "$inc" && find Trace platform -name '*.h' | sort | sed 's/.*/#include "&"/') >"$work/headers.cpp"
c++ -std=c++20 -fsyntax-only -I"$inc" "$work/headers.cpp" || fail "the installed headers do not compile"
cc -std=c99 -pedantic -Werror -fsyntax-only -I"$inc" -x c "$inc/paxltrace.h" || fail "installed paxltrace.h is not C99"

# The examples are copied out, so nothing of the source tree can stand in for the package.
mkdir -p "$src/installed"
cp examples/producer.c examples/consumer.cpp "$src/"
cp examples/installed/CMakeLists.txt "$src/installed/"

echo "== Examples with CMake (find_package)"
cmake -S "$src/installed" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_PACKAGE_NO_PACKAGE_REGISTRY=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$work/cmake.log" ||
  { cat "$work/cmake.log"; fail "configure against the package"; }
found=$(sed -n 's/^PAXLtrace_DIR:PATH=//p' "$work/cmake-build/CMakeCache.txt")
[ "$found" = "$libdir/cmake/PAXLtrace" ] || fail "found the package in '$found', not in the prefix"
cmake --build "$work/cmake-build" -j"$jobs" >"$work/cmake-build.log" ||
  { cat "$work/cmake-build.log"; fail "build against the package"; }

echo "== Examples with pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion paxltrace)" = "5.0" ] || fail "pkg-config version"
mkdir -p "$work/pc-build"
read -r -a pcflags <<<"$(pkg-config --cflags --libs paxltrace)"
cc -std=c99 -pedantic -Wall -Wextra -Werror "$src/producer.c" -o "$work/pc-build/producer" \
  "${pcflags[@]}" -pthread -Wl,-rpath,"$libdir"
c++ -std=c++20 -Wall -Wextra -Werror "$src/consumer.cpp" -o "$work/pc-build/consumer" \
  "${pcflags[@]}" -Wl,-rpath,"$libdir"

# True when the executable loads libpaxltrace from the prefix (through its RUNPATH).
uses_installed_library() {
  local found
  found=$(env -u LD_LIBRARY_PATH ldd "$1" | awk '/libpaxltrace\.so\.5 =>/ { print $3 }')
  [ -n "$found" ] && [ "$(readlink -f "$found")" = "$(readlink -f "$libdir/libpaxltrace.so.5")" ]
}

# Runs a consumer while a producer writes; the consumer must print what the producer wrote.
run_together() {
  local dir=$1 buffer=$2
  for exe in producer consumer; do
    uses_installed_library "$dir/$exe" || fail "$dir/$exe does not use the installed library"
  done
  "$dir/consumer" --csv --duration 3 >"$work/out.csv" 2>"$work/err.txt" &
  consumer_pid=$!
  for _ in $(seq 100); do
    grep -q "consumer ready" "$work/err.txt" && break
    sleep 0.1
  done
  grep -q "consumer ready" "$work/err.txt" || fail "the consumer did not start: $(cat "$work/err.txt")"
  "$dir/producer" "$buffer" Example 2000 2 --pace 4 >"$work/producer.txt" || fail "producer exit code"
  wait "$consumer_pid" || fail "consumer exit code: $(cat "$work/err.txt")"
  consumer_pid=""
  grep -q "wrote 4002 traces in 2 threads" "$work/producer.txt" || fail "producer: $(cat "$work/producer.txt")"
  for thread in 0 1; do
    grep "$buffer" "$work/out.csv" | grep "seq [0-9]* thread $thread" >/dev/null ||
      fail "the consumer printed no trace of thread $thread:
$(head -20 "$work/out.csv")"
  done
  echo "   the consumer printed $(grep -c "$buffer.*\(seq\|done\)" "$work/out.csv") of the 4002 traces"
}

echo "== Run the CMake-built examples together"
run_together "$work/cmake-build" InstallCMake
echo "== Run the pkg-config-built examples together"
run_together "$work/pc-build" InstallPkgConfig

if [ "$tool" = 1 ]; then
  echo "== Installed tool"
  uses_installed_library "$prefix/bin/paxltrace" || fail "the tool does not use the installed library"
  env -u LD_LIBRARY_PATH "$prefix/bin/paxltrace" --help >"$work/tool.txt" || fail "paxltrace --help"
  grep -q "info" "$work/tool.txt" || fail "paxltrace --help lists no commands"
  env -u LD_LIBRARY_PATH "$prefix/bin/paxltrace" info >"$work/tool.txt" || fail "paxltrace info"
  grep -q "5\.0" "$work/tool.txt" || fail "paxltrace info shows no version: $(cat "$work/tool.txt")"
fi

leftovers=(/dev/shm/*"$TRACE_PREFIX"*)
[ ! -e "${leftovers[0]}" ] || fail "left in /dev/shm: ${leftovers[*]}"
echo "== Install test passed"
