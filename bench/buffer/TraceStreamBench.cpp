// Cost of writing one trace into the ring, next to the raw work it cannot avoid (measured in the
// same run, over the same ring): one fetch-and-add on the write index, a copy of the same entry
// bytes, and the 16-bit publication store, without and with the precise clock read.
// Targets: a text trace with its timestamp supplied within 2x the raw baseline; a trace whose
// timestamp the stream reads within 1.3x the raw baseline with the clock. Also: a filtered-out
// trace, and reading traces into records (traces per second).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Trace/Buffer/TraceBufferData.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Records/TraceParameter.h"
#include "Trace/Time/TraceTimer.h"
#include "bench/support/BenchSupport.h"
#include "platform/Clock.h"
#include "platform/Thread.h"

using namespace Tracing;

namespace {

const TraceBuffer* Owner() {
    static int tag;
    return reinterpret_cast<const TraceBuffer*>(&tag);
}

// Header, two module slots (as in real buffers, the ring then starts 4-byte aligned) and a ring.
struct BenchRing {
    explicit BenchRing(uint32_t ringSize)
        : headerSize(TraceBufferData::GetSize(2)),
          memory((headerSize + ringSize + TraceData::MaxSize) / 8 + 1) {
        TraceBufferData::Create(header, memory.data(), headerSize, ringSize, 1, 1, TimestampMode::PRECISE,
                                "host", "system", "app", "bench");
        ring = reinterpret_cast<char*>(memory.data()) + headerSize;
        // No clock given: the stream reads the trace timer, as in production.
        stream.reset(TraceStream::Create(Owner(), header, ring));
        std::memset(ring, 0, ringSize + TraceData::MaxSize);
    }
    uint64_t headerSize;
    std::vector<uint64_t> memory;
    TraceBufferData* header = nullptr;
    char* ring = nullptr;
    std::unique_ptr<TraceStream> stream;
};

BenchRing& WriteRing() {
    static BenchRing ring(1 << 20);
    return ring;
}

constexpr const char* Message = "value %1 of %2";

struct TwoInts {
    TwoInts() {
        const int32_t a = 7, b = 1000;
        Tracing::TraceParameter::Init(params[0], ParameterTypes::Int32, &a);
        Tracing::TraceParameter::Init(params[1], ParameterTypes::Int32, &b);
    }
    ::TraceParameter params[2];
};

void BM_WriteText_TimestampGiven(benchmark::State& state) {
    BenchRing& ring = WriteRing();
    TwoInts p;
    for (auto _ : state)
        ring.stream->Write(0, 1, 2, 0x1234567812345678ull, 4, nullptr, 0, Message, 2, p.params);
}

void BM_WriteText_StreamReadsClock(benchmark::State& state) {
    BenchRing& ring = WriteRing();
    TraceTimer::GetInstance();
    TwoInts p;
    for (auto _ : state)
        ring.stream->Write(0, 1, 2, 0, 4, nullptr, 0, Message, 2, p.params);
}

// The same entry image the stream writes for the trace above: 40 + 15 + 10 bytes, padded to 72.
struct EntryImage {
    EntryImage() {
        std::memset(bytes, 0, sizeof bytes);
        TraceData header{};
        header.Size = sizeof bytes;
        header.TraceID = 1;
        header.ModuleID = 1;
        header.SetTimestamp(0x1234567812345678ull);
        header.ThreadID = 2;
        header.SeverityMask = 4;
        header.MessageSize = 15;
        header.ParameterSize = 10;
        header.SplitMarker = TraceData::NotSplit;
        std::memcpy(bytes, &header, sizeof header);
        std::memcpy(bytes + 40, Message, 15);
        const unsigned char params[] = {4, 7, 0, 0, 0, 4, 0xE8, 3, 0, 0};
        std::memcpy(bytes + 55, params, sizeof params);
    }
    char bytes[72];
};

template <bool WithClock, bool WithIdCounter = false>
void RawWrite(benchmark::State& state) {
    BenchRing& ring = WriteRing();
    const EntryImage image;
    std::atomic_ref<uint32_t> writeIndex = ring.header->GetAtomicWriteIndex();
    const uint32_t mask = ring.header->GetRingBufferSize() - 1;
    for (auto _ : state) {
        const uint32_t position = writeIndex.fetch_add(sizeof image.bytes, std::memory_order_seq_cst);
        char* entry = ring.ring + (position & mask);
        std::memcpy(entry, image.bytes, sizeof image.bytes);
        if constexpr (WithIdCounter) {
            const uint32_t id =
                ring.header->GetAtomicTotalTraceCounter().fetch_add(1, std::memory_order_seq_cst);
            std::memcpy(entry + 4, &id, sizeof id);
        }
        if constexpr (WithClock) {
            const uint64_t now = Platform::PreciseWallClock();
            std::memcpy(entry + 16, &now, sizeof now);
        }
        std::atomic_ref<uint16_t>(reinterpret_cast<TraceData*>(entry)->TraceIndicator)
            .store(TraceData::TraceIndicatorValue, std::memory_order_release);
        benchmark::ClobberMemory();
    }
}

void BM_Raw_NoClock(benchmark::State& state) {
    RawWrite<false>(state);
}
void BM_Raw_WithClock(benchmark::State& state) {
    RawWrite<true>(state);
}
// Not a target baseline: shows what the ring's second atomic addition (the trace ID) costs.
void BM_Raw_NoClock_IdCounter(benchmark::State& state) {
    RawWrite<false, true>(state);
}

// What a producer pays for a trace its module filters out: one load of the filter word and a test.
void BM_FilteredOut(benchmark::State& state) {
    BenchRing& ring = WriteRing();
    TraceModuleData* module = ring.header->ActivateFirstFreeModule(1, "m", Severity::Info);
    const uint32_t severity = Severity::Debug;
    for (auto _ : state) {
        const bool pass = (module->GetFilterState() & Severity::Mask) >= severity;
        if (pass)
            ring.stream->Write(0, 1, 2, 1, severity, nullptr, 0, Message, 0, nullptr);
        benchmark::DoNotOptimize(pass);
    }
    module->Deactivate();
}

// Reading: a million traces turned into records, state.range(0) per Read.
void BM_Read1M(benchmark::State& state) {
    constexpr uint32_t Count = 1000000;
    static BenchRing ring(128 << 20);  // 72-byte entries
    static const bool filled = [] {
        TwoInts p;
        for (uint32_t i = 0; i < Count; ++i)
            ring.stream->Write(0, 1, 2, 1000 + i, 4, nullptr, 0, Message, 2, p.params);
        return true;
    }();
    benchmark::DoNotOptimize(filled);
    for (auto _ : state) {
        TraceReaderInfo info;
        ring.stream->ConnectReader(info, 0);
        size_t read = 0;
        bool overflow = false;
        while (read < Count) {
            std::vector<std::unique_ptr<Trace>> traces;
            ring.stream->Read(info, traces, overflow, static_cast<uint32_t>(state.range(0)));
            if (traces.empty())
                break;
            read += traces.size();
        }
        if (read != Count)
            state.SkipWithError("not every trace was read");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * Count);
}

// A reader that falls behind: a producer thread writes 1 M traces/s (in 1 ms bursts) into the
// default 1 MiB ring (about 14 500 entries of 72 bytes) while a reader reads every 50 ms, as the
// updater thread does. The ring caps what can be read at about a ring's worth per cycle (29 %);
// the recovery from each overflow should keep close to that. Counters: delivered and overflow
// reports per trace written.
void BM_LappedReader1MPerSecond(benchmark::State& state) {
    constexpr int Seconds = 2;
    for (auto _ : state) {
        BenchRing ring(1 << 20);
        TraceReaderInfo info;
        ring.stream->ConnectReader(info, 0);
        std::atomic<bool> stop{false};
        std::atomic<uint64_t> written{0};
        std::thread producer([&] {
            TwoInts p;
            const uint64_t start = Platform::TickMs();
            for (uint64_t ms = 0; ms < Seconds * 1000u; ++ms) {
                while (Platform::TickMs() - start < ms)
                    Platform::SleepMs(1);
                for (int i = 0; i < 1000; ++i)
                    ring.stream->Write(0, 1, 2, 0, 4, nullptr, 0, Message, 2, p.params);
                written += 1000;
            }
            stop = true;
        });
        uint64_t delivered = 0, reports = 0;
        std::vector<std::unique_ptr<Trace>> traces;
        for (bool last = false; !last;) {
            last = stop.load();
            Platform::SleepMs(50);
            traces.clear();
            bool overflow = false;
            ring.stream->Read(info, traces, overflow, 0);
            for (const auto& trace : traces)
                (trace->GetModuleID() == -1 ? reports : delivered) += 1;
        }
        producer.join();
        state.counters["delivered%"] = 100.0 * static_cast<double>(delivered) / static_cast<double>(written);
        state.counters["reports"] = static_cast<double>(reports);
    }
}

#define HOT_PATH(name) BENCHMARK(name)->Repetitions(9)->ReportAggregatesOnly(true)->ThreadRange(1, 2)
HOT_PATH(BM_Raw_NoClock);
HOT_PATH(BM_Raw_NoClock_IdCounter);
HOT_PATH(BM_WriteText_TimestampGiven);
HOT_PATH(BM_Raw_WithClock);
HOT_PATH(BM_WriteText_StreamReadsClock);
BENCHMARK(BM_FilteredOut)->Repetitions(7)->ReportAggregatesOnly(true);
BENCHMARK(BM_LappedReader1MPerSecond)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Read1M)->Arg(1000)->Arg(50000)->Repetitions(3)->ReportAggregatesOnly(true)->Unit(
    benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    Bench::UseOwnPrefix();

    benchmark::Initialize(&argc, argv);
    Bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto show = [&](const char* what, const char* name, const char* base, int threads, double limit) {
        const std::string suffix = "/" + std::to_string(threads);
        const double t = reporter.medians[name + suffix], b = reporter.medians[base + suffix];
        if (t > 0 && b > 0)
            std::printf("%-44s %d thread(s): %6.1f ns vs %6.1f ns = %.2fx (target %.1fx)\n", what, threads, t,
                        b, t / b, limit);
    };
    for (int threads = 1; threads <= 2; ++threads) {
        show("(a) write, timestamp given / raw", "BM_WriteText_TimestampGiven", "BM_Raw_NoClock", threads,
             2.0);
        show("    write, timestamp given / raw+ID counter", "BM_WriteText_TimestampGiven",
             "BM_Raw_NoClock_IdCounter", threads, 2.0);
        show("(b) write, stream reads clock / raw+clock", "BM_WriteText_StreamReadsClock", "BM_Raw_WithClock",
             threads, 1.3);
    }
    benchmark::Shutdown();
    return 0;
}
