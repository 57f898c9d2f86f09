// Formatting a message with two numbers: the placeholder language against snprintf of the
// equivalent printf format, both into a reused buffer.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "Trace/Records/TraceMessage.h"
#include "Trace/Records/TraceParameter.h"

namespace {

void FormatString(benchmark::State& state) {
    Tracing::TraceMessage message;
    message.Add(int32_t{12345}).Add(int32_t{-678});
    std::string out;
    for (auto _ : state) {
        Tracing::TraceParameter::FormatString(out, "value %1 of %2", 0, message.GetParameterCount(),
                                              message.GetParameters());
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(FormatString);

void SnprintfBaseline(benchmark::State& state) {
    int a = 12345;
    int b = -678;
    char out[64];
    for (auto _ : state) {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        std::snprintf(out, sizeof(out), "value %d of %d", a, b);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(SnprintfBaseline);

}  // namespace

BENCHMARK_MAIN();
