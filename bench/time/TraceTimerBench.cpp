// Cost of a timestamp per mode, next to the raw clock reads it is built on (measured in the same
// run). A FAST timestamp must stay within twice a bare CLOCK_MONOTONIC_COARSE read.
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "Trace/Time/TraceTimer.h"
#include "bench/support/BenchSupport.h"

using namespace Tracing;

namespace {

void ReadClock(benchmark::State& state, clockid_t clock) {
    timespec ts;
    for (auto _ : state) {
        clock_gettime(clock, &ts);
        benchmark::DoNotOptimize(ts);
    }
}

void BM_ClockRealtime(benchmark::State& state) {
    ReadClock(state, CLOCK_REALTIME);
}
void BM_ClockMonotonicCoarse(benchmark::State& state) {
    ReadClock(state, CLOCK_MONOTONIC_COARSE);
}

void Timestamp(benchmark::State& state, TimestampMode::Type mode) {
    TraceTimer& timer = TraceTimer::GetInstance();
    benchmark::DoNotOptimize(timer.GetTimestamp(mode));  // binds the timer to the registry
    for (auto _ : state)
        benchmark::DoNotOptimize(timer.GetTimestamp(mode));
}

void BM_TimestampFast(benchmark::State& state) {
    Timestamp(state, TimestampMode::FAST);
}
void BM_TimestampPrecise(benchmark::State& state) {
    Timestamp(state, TimestampMode::PRECISE);
}
void BM_TimestampOptimal(benchmark::State& state) {
    Timestamp(state, TimestampMode::OPTIMAL);
}
void BM_TimestampSeqId(benchmark::State& state) {
    Timestamp(state, TimestampMode::SEQ_ID);
}

BENCHMARK(BM_ClockRealtime)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_ClockMonotonicCoarse)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_TimestampFast)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_TimestampPrecise)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_TimestampOptimal)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_TimestampSeqId)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
    Bench::UseOwnPrefix();

    benchmark::Initialize(&argc, argv);
    Bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto ratio = [&](const char* a, const char* b) {
        const double base = reporter.Median(b);
        return base > 0 ? reporter.Median(a) / base : 0.0;
    };
    std::printf("FAST / CLOCK_MONOTONIC_COARSE: %.2f (limit 2.00)\n",
                ratio("BM_TimestampFast", "BM_ClockMonotonicCoarse"));
    std::printf("PRECISE / CLOCK_REALTIME: %.2f\n", ratio("BM_TimestampPrecise", "BM_ClockRealtime"));
    benchmark::Shutdown();
    return 0;
}
