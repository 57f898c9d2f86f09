// Traces per second a TraceReader delivers as records (not formatted) from one buffer's ring,
// next to the ring's own read over the same entries in the same run (the reader's overhead is the
// ratio). The ring is filled beforehand by writes from this process: the entries are the same as a
// producer process writes, and the reader's side is what is measured. Target: >= 5 M traces/s at
// every batch size up to the ring's read limit, >= 8 M/s for the ring's own read.
// BM_TailToCsv is what `paxltrace tail --csv -o FILE` does with them: records with the buffer's
// texts, written as CSV lines to a file, one write per batch. Its rate is the most a live tail
// can keep up with while the producer has a core of its own.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Reading/TraceReader.h"
#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceParameter.h"
#include "Trace/Registry/TraceRegistry.h"
#include "bench/support/BenchSupport.h"
#if PAXLTRACE_BENCH_TOOL
#include "tools/BatchedOutput.h"
#endif

namespace Tracing {

// Attaching for reading is the registry update's job; the benchmark does not wait for it.
class TraceRegistryTestAccess {
public:
    static TraceBuffer* AttachConsumerBuffer(int32_t bufferID) {
        return TraceRegistry::GetInstance().AttachConsumerBuffer(bufferID);
    }
};

}  // namespace Tracing

using namespace Tracing;

namespace {

constexpr uint32_t Count = 1000000;

struct FilledBuffer {
    FilledBuffer() {
        // 72-byte entries: a million fit without overwriting.
        producer = TraceRegistry::GetInstance().RegisterBuffer("Bench", "Module", TimestampMode::NotSet, 0,
                                                               128u << 20);
        if (producer == nullptr)
            return;
        ::TraceParameter params[2];
        const int32_t a = 7, b = 1000;
        Tracing::TraceParameter::Init(params[0], ParameterTypes::Int32, &a);
        Tracing::TraceParameter::Init(params[1], ParameterTypes::Int32, &b);
        for (uint32_t i = 0; i < Count; ++i)
            producer->GetTraceStream()->Write(0, 0, 2, 1000 + i, 4, nullptr, 0, "value %1 of %2", 2, params);
        consumer = TraceRegistryTestAccess::AttachConsumerBuffer(producer->GetBufferID());
    }
    TraceBuffer* producer = nullptr;
    TraceBuffer* consumer = nullptr;
};

FilledBuffer& Buffer() {
    static FilledBuffer buffer;
    return buffer;
}

void Check(benchmark::State& state, size_t read) {
    if (read != Count)
        state.SkipWithError("not every trace was read");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * Count);
}

// Baseline: the consumer buffer's ring read straight into records.
void BM_RingRead(benchmark::State& state) {
    FilledBuffer& buffer = Buffer();
    if (buffer.consumer == nullptr)
        return state.SkipWithError("no buffer");
    size_t read = 0;
    for (auto _ : state) {
        TraceReaderInfo info;
        buffer.consumer->ConnectReader(info, 0);
        read = 0;
        bool overflow = false;
        for (;;) {
            std::vector<std::unique_ptr<Trace>> traces;
            buffer.consumer->Read(info, traces, overflow, static_cast<uint32_t>(state.range(0)));
            if (traces.empty())
                break;
            read += traces.size();
        }
    }
    Check(state, read);
}

// Reads the whole buffer with a reader taking state.range(0) traces per read; each batch goes to use.
template <typename Use>
size_t ReadAll(FilledBuffer& buffer, benchmark::State& state, bool fillExtended, Use&& use) {
    TraceReader reader;
    reader.Create(static_cast<unsigned>(state.range(0)), false, fillExtended);
    reader.RegisterBuffer(buffer.consumer->GetBufferID(), 0);
    size_t read = 0;
    for (;;) {
        std::vector<std::unique_ptr<Trace>> traces;
        reader.ReadTraces(traces);
        if (traces.empty())
            return read;
        use(traces);
        read += traces.size();
    }
}

void BM_TraceReader(benchmark::State& state) {
    FilledBuffer& buffer = Buffer();
    if (buffer.consumer == nullptr)
        return state.SkipWithError("no buffer");
    size_t read = 0;
    for (auto _ : state)
        read = ReadAll(buffer, state, false, [](const auto&) {});
    Check(state, read);
}

#if PAXLTRACE_BENCH_TOOL
void BM_TailToCsv(benchmark::State& state) {
    FilledBuffer& buffer = Buffer();
    if (buffer.consumer == nullptr)
        return state.SkipWithError("no buffer");
    const auto path =
        std::filesystem::temp_directory_path() / ("paxltrace_tail_bench" + std::to_string(getpid()));
    size_t read = 0;
    for (auto _ : state) {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        Tool::BatchedOutput out(file);
        read = ReadAll(buffer, state, true, [&out](const std::vector<std::unique_ptr<Trace>>& traces) {
            for (const auto& trace : traces)
                trace->WriteCsvToStream(out, Trace::CSV_SEPARATOR);
            out.Commit();
        });
    }
    std::filesystem::remove(path);
    Check(state, read);
}
BENCHMARK(BM_TailToCsv)
    ->Arg(50000)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);
#endif

BENCHMARK(BM_RingRead)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(50000)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TraceReader)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(50000)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    Tracing::Bench::UseOwnPrefix();
    TraceConfigurationPrivate::GetInstance().SetBufferCloseWaitMs(0);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    if (Buffer().producer != nullptr)
        TraceRegistry::GetInstance().UnregisterBuffer(Buffer().producer);
    benchmark::Shutdown();
    return 0;
}
