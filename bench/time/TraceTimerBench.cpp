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

// Remembers the median CPU time of every benchmark to print the ratios at the end (CPU time, so
// that the ratio does not depend on how busy the machine is).
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name == "median")
                medians[run.run_name.function_name] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> medians;
};

}  // namespace

int main(int argc, char** argv) {
    // A prefix of its own, so that the benchmark never meets an installation's registry.
    const std::string prefix = "paxlbench" + std::to_string(getpid());
    setenv("TRACE_PREFIX", prefix.c_str(), 1);

    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto ratio = [&](const char* a, const char* b) {
        const double base = reporter.medians[b];
        return base > 0 ? reporter.medians[a] / base : 0.0;
    };
    std::printf("FAST / CLOCK_MONOTONIC_COARSE: %.2f (limit 2.00)\n",
                ratio("BM_TimestampFast", "BM_ClockMonotonicCoarse"));
    std::printf("PRECISE / CLOCK_REALTIME: %.2f\n", ratio("BM_TimestampPrecise", "BM_ClockRealtime"));
    benchmark::Shutdown();
    return 0;
}
