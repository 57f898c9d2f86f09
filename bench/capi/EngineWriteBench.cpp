// Cost of trace_engine_write next to the raw work it cannot avoid, measured in the same run over a
// ring of the same size: one fetch-and-add on a 32-bit index, a copy of the same entry bytes, the
// precise clock read and the final 16-bit store. Target: within 1.3x that baseline on one thread.
// Also: the same write in FAST mode, and the filter test of a trace that is filtered out.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceData.h"
#include "Trace/Registry/TraceRegistry.h"
#include "paxltrace.h"
#include "platform/Clock.h"

using namespace Tracing;

namespace {

constexpr const char* Message = "value %1 of %2";

struct Engines {
    Engines() {
        // Optimal is the configured default; the second buffer is created after switching to FAST.
        trace_engine_create("BenchOptimal", "Mod", 0, 4, true, &optimal, &optimalWord);
        trace_config_set_timestamp_mode(2);
        trace_engine_create("BenchFast", "Mod", 0, 4, true, &fast, nullptr);
        const int a = 7, b = 1000;
        trace_param_init(&params[0], TRACE_PARAM_INT32, &a);
        trace_param_init(&params[1], TRACE_PARAM_INT32, &b);
        TraceBuffer* buffer = TraceRegistry::GetInstance().GetProducerBuffer(
            static_cast<int32_t>(trace_engine_get_buffer_id(optimal)));
        ringSize = buffer != nullptr ? buffer->GetRingBufferSize() : 1u << 20;
    }
    TraceEngine* optimal = nullptr;
    TraceEngine* fast = nullptr;
    unsigned* optimalWord = nullptr;
    ::TraceParameter params[2];
    uint32_t ringSize = 0;
};

Engines& Get() {
    static Engines engines;
    return engines;
}

void Write(benchmark::State& state, TraceEngine* engine) {
    if (engine == nullptr) {
        state.SkipWithError("no engine");
        return;
    }
    ::TraceParameter params[2];
    std::memcpy(params, Get().params, sizeof params);
    for (auto _ : state)
        trace_engine_write(engine, nullptr, 0, 4, Message, 0, 2, params);
}

void BM_EngineWrite_Optimal(benchmark::State& state) {
    Write(state, Get().optimal);
}

void BM_EngineWrite_Fast(benchmark::State& state) {
    Write(state, Get().fast);
}

// The entry the write above produces: 40-byte header, 15 message bytes, 10 parameter bytes, padded.
struct RawRing {
    explicit RawRing(uint32_t size) : mask(size - 1), memory((size + TraceData::MaxSize) / 8 + 1) {}
    uint32_t mask;
    std::vector<uint64_t> memory;
    uint32_t index = 0;
};

void BM_Raw_WithClock(benchmark::State& state) {
    static RawRing ring(Get().ringSize);
    char image[72] = {};
    std::memcpy(image + 40, Message, 15);
    const unsigned char params[] = {4, 7, 0, 0, 0, 4, 0xE8, 3, 0, 0};
    std::memcpy(image + 55, params, sizeof params);
    char* base = reinterpret_cast<char*>(ring.memory.data());
    std::atomic_ref<uint32_t> writeIndex(ring.index);
    for (auto _ : state) {
        const uint32_t position = writeIndex.fetch_add(sizeof image, std::memory_order_seq_cst);
        char* entry = base + (position & ring.mask);
        std::memcpy(entry, image, sizeof image);
        const uint64_t now = Platform::PreciseWallClock();
        std::memcpy(entry + 16, &now, sizeof now);
        std::atomic_ref<uint16_t>(*reinterpret_cast<uint16_t*>(entry))
            .store(0x7A7A, std::memory_order_release);
        benchmark::ClobberMemory();
    }
}

// What a producer pays for a trace its module filters out: one load of the filter word and a test.
void BM_FilteredOut(benchmark::State& state) {
    Engines& engines = Get();
    const unsigned severity = 6;
    for (auto _ : state) {
        const bool pass = (std::atomic_ref<unsigned>(*engines.optimalWord).load(std::memory_order_relaxed) &
                           7u) >= severity;
        if (pass) [[unlikely]]
            trace_engine_write(engines.optimal, nullptr, 0, severity, Message, 0, 0, nullptr);
        benchmark::DoNotOptimize(pass);
    }
}

#define HOT_PATH(name) BENCHMARK(name)->Repetitions(9)->ReportAggregatesOnly(true)->ThreadRange(1, 2)
HOT_PATH(BM_Raw_WithClock);
HOT_PATH(BM_EngineWrite_Optimal);
HOT_PATH(BM_EngineWrite_Fast);
BENCHMARK(BM_FilteredOut)->Repetitions(7)->ReportAggregatesOnly(true);

// Keeps the median CPU time per call of every benchmark and thread count for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.aggregate_name == "median")
                medians[run.run_name.function_name + "/" + std::to_string(run.threads)] =
                    run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> medians;
};

}  // namespace

int main(int argc, char** argv) {
    // A prefix of its own, so that the bench never meets an installation's registry.
    const std::string prefix = "paxlbench" + std::to_string(getpid());
    setenv("TRACE_PREFIX", prefix.c_str(), 1);

    benchmark::Initialize(&argc, argv);
    Get();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto show = [&](const char* what, const char* name, int threads, double limit) {
        char key[64], baseKey[64];
        std::snprintf(key, sizeof key, "%s/%d", name, threads);
        std::snprintf(baseKey, sizeof baseKey, "BM_Raw_WithClock/%d", threads);
        const double t = reporter.medians[key], b = reporter.medians[baseKey];
        if (t > 0 && b > 0)
            std::printf("%-32s %d thread(s): %6.1f ns vs %6.1f ns = %.2fx (target %.1fx)\n", what, threads, t,
                        b, t / b, limit);
    };
    for (int threads = 1; threads <= 2; ++threads) {
        show("engine write OPTIMAL / raw+clock", "BM_EngineWrite_Optimal", threads, 1.3);
        show("engine write FAST / raw+clock", "BM_EngineWrite_Fast", threads, 1.3);
    }
    const double filtered = reporter.medians["BM_FilteredOut/1"];
    if (filtered > 0)
        std::printf("filtered out: %.2f ns\n", filtered);
    benchmark::Shutdown();
    return 0;
}
