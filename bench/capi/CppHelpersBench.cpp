// The C++ trace macros against the plain C call with a hand-built parameter array, in the same run:
// a written trace should cost the same, and a filtered-out one a load and a test.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/support/BenchSupport.h"
#include "paxltrace.h"
#include "paxltrace.hpp"

namespace {

const char* const PeerName = "peer.example.internal:4711";

paxl::Engine& BenchEngine() {
    static paxl::Engine engine("CppBench", "Helpers", 0, paxl::Info, false);
    return engine;
}

void RawCWrite(benchmark::State& state) {
    paxl::Engine& engine = BenchEngine();
    TraceEngine* handle = engine.handle();
    unsigned* filterWord = nullptr;
    TraceEngine* second = nullptr;
    // The same module again, for the filter word as a C caller holds it.
    trace_engine_create("CppBench", "Helpers", 0, 0, false, &second, &filterWord);
    int32_t value = -3;
    uint64_t total = 7;
    for (auto _ : state) {
        if ((*filterWord & 7u) >= 4u) {
            TraceParameter params[3];
            params[0] = TraceParameter{TRACE_PARAM_INT32, 0, 0, 4, {}};
            std::memcpy(params[0].data.bytes, &value, 4);
            params[1] = TraceParameter{TRACE_PARAM_UINT64, 0, 0, 8, {}};
            std::memcpy(params[1].data.bytes, &total, 8);
            params[2] = TraceParameter{
                TRACE_PARAM_STRING_REF, 0, 0, static_cast<unsigned>(std::strlen(PeerName) + 1), {}};
            params[2].data.pointer = PeerName;
            trace_engine_write(handle, __FILE__, __LINE__, 4u, "value %1 of %2 from %3", 0, 3, params);
        }
        benchmark::ClobberMemory();
    }
    trace_engine_destroy(second);
}

void HelperMacroWrite(benchmark::State& state) {
    paxl::Engine& engine = BenchEngine();
    int32_t value = -3;
    uint64_t total = 7;
    for (auto _ : state) {
        PAXL_TRACE(engine, paxl::Info, "value %1 of %2 from %3", value, total, PeerName);
        benchmark::ClobberMemory();
    }
}

void RawCFilteredOut(benchmark::State& state) {
    unsigned* filterWord = nullptr;
    TraceEngine* second = nullptr;
    trace_engine_create("CppBench", "Helpers", 0, 0, false, &second, &filterWord);
    int32_t value = -3;
    for (auto _ : state) {
        if ((*filterWord & 7u) >= 6u)
            trace_engine_write(second, __FILE__, __LINE__, 6u, "value %1", 0, 0, nullptr);
        benchmark::DoNotOptimize(value);
        benchmark::ClobberMemory();
    }
    trace_engine_destroy(second);
}

void HelperMacroFilteredOut(benchmark::State& state) {
    paxl::Engine& engine = BenchEngine();
    int32_t value = -3;
    for (auto _ : state) {
        PAXL_TRACE(engine, paxl::Debug, "value %1 of %2 from %3", value, std::string(PeerName), PeerName);
        benchmark::DoNotOptimize(value);
        benchmark::ClobberMemory();
    }
}

}  // namespace

BENCHMARK(RawCWrite)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(HelperMacroWrite)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(RawCFilteredOut)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(HelperMacroFilteredOut)->Repetitions(5)->ReportAggregatesOnly(true);

int main(int argc, char** argv) {
    return Tracing::Bench::RunAll(argc, argv);
}
