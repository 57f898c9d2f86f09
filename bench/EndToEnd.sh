#!/bin/sh
# End to end: a real producer process writing "value %1 of %2" at a steady rate, a real
# `paxltrace tail --csv -o FILE` reading it live. Prints what was written, what reached the file
# and what the tool reported lost.
#   bench/EndToEnd.sh [-b BUILD_DIR] [-t TOOL] [-s RING_BYTES] RATE SECONDS
# RING_BYTES goes to the producer as TRACE_STREAM_SIZE (default: the configured 1 MiB); TOOL is
# another paxltrace binary to compare (default: the build's).
set -eu
build=build
tool=
ring=
while getopts b:t:s: option; do
    case $option in
        b) build=$OPTARG ;;
        t) tool=$OPTARG ;;
        s) ring=$OPTARG ;;
        *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
rate=${1:?traces per second}
seconds=${2:?seconds}

work=$(mktemp -d)
export TRACE_PREFIX="paxle2e$$"
cleanup() {
    [ -n "${tail_pid:-}" ] && kill "$tail_pid" 2>/dev/null || true
    rm -rf "$work"
    rm -f /dev/shm/*"$TRACE_PREFIX"* 2>/dev/null || true
}
trap cleanup EXIT

"${tool:-$build/tools/paxltrace}" tail -b Rate --csv -o "$work/out.csv" 2>"$work/tail.err" &
tail_pid=$!
sleep 1
if [ -n "$ring" ]; then
    TRACE_STREAM_SIZE=$ring "$build/bench/bench_RateProducer" "$rate" "$seconds" >"$work/producer.out"
else
    "$build/bench/bench_RateProducer" "$rate" "$seconds" >"$work/producer.out"
fi
sleep 1
kill -INT "$tail_pid"
wait "$tail_pid" || true
tail_pid=

written=$(sed -n 's/^written \([0-9]*\).*/\1/p' "$work/producer.out")
rows=$(($(wc -l <"$work/out.csv") - 1))
overflows=$(grep -c 'overflow in buffer' "$work/tail.err" || true)
echo "rate $rate/s for $seconds s, ring ${ring:-default}: written $written, delivered $rows" \
    "($(awk "BEGIN { printf \"%.1f\", 100 * $rows / $written }") %), overflow reports $overflows"
grep 'traces delivered' "$work/tail.err" | tail -1
grep 'overflow in buffer' "$work/tail.err" | head -1
