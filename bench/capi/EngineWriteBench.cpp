// What a producer's trace costs, next to the raw work it cannot avoid, measured in the same run.
//
// The user's call: "bench value %1 of %2 ok" with two Int32 parameters, built the way a C caller
// builds them (trace_param_init twice, then trace_engine_write) or through PAXL_TRACE.
// The raw baseline: one fetch-and-add on a 32-bit index in a 1 MiB shared ring, the same 80 entry
// bytes (40-byte header, message, two parameters), the clock of the mode, a 16-bit publication.
//
// Targets (CPU time per call, medians): C OPTIMAL <= 1.3x raw with CLOCK_REALTIME, PAXL_TRACE
// <= 1.25x; FAST <= 1.5x raw with the coarse clock; SEQ_ID <= 2x raw without clock; two threads of
// one process, and two processes with their own buffers, <= 1.5x raw with two threads on one ring.
// The process runs fork this program before it creates anything, so every child starts fresh
// while sharing the machine-wide trace-ID counter through the inherited TRACE_PREFIX.
#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/support/BenchSupport.h"
#include "paxltrace.h"
#include "paxltrace.hpp"
#include "platform/Clock.h"

namespace {

constexpr const char* Message = "bench value %1 of %2 ok";
constexpr uint32_t RingSize = 1u << 20;
constexpr uint32_t EntrySize = 80;  // 40 + 24 message bytes + 2 x (1 + 4) parameter bytes, padded

enum class Clock { None, Coarse, Realtime };

uint64_t ReadClock(Clock clock) {
    if (clock == Clock::Realtime)
        return Tracing::Platform::PreciseWallClock();
    if (clock == Clock::Coarse)
        return Tracing::Platform::TickMs();
    return 0;
}

// --- the C user's call

void CWrite(TraceEngine* engine, int value, int total) {
    TraceParameter params[2];
    trace_param_init(&params[0], TRACE_PARAM_INT32, &value);
    trace_param_init(&params[1], TRACE_PARAM_INT32, &total);
    trace_engine_write(engine, __FILE__, __LINE__, 4, Message, 0, 2, params);
}

TraceEngine* CreateEngine(const char* buffer, unsigned mode, bool globalIds) {
    trace_config_set_timestamp_mode(mode);
    trace_config_set_global_trace_id(globalIds);
    TraceEngine* engine = nullptr;
    trace_engine_create(buffer, "Mod", 0, 4, true, &engine, nullptr);
    trace_config_set_global_trace_id(true);
    trace_config_set_timestamp_mode(4);
    return engine;
}

// --- the raw baseline: a ring in shared memory and its index, as a buffer has them

struct RawRing {
    RawRing() {
        void* memory =
            mmap(nullptr, RingSize + 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        base = memory == MAP_FAILED ? nullptr : static_cast<char*>(memory);
        std::memcpy(image + 40, Message, 24);
        image[64] = 4;
        image[69] = 4;
    }
    char* base = nullptr;
    alignas(64) uint32_t index = 0;
    alignas(8) char image[EntrySize] = {};
};

RawRing& Ring() {
    static RawRing ring;
    return ring;
}

inline void RawWrite(RawRing& ring, Clock clock, int value, int total) {
    const uint32_t position =
        std::atomic_ref<uint32_t>(ring.index).fetch_add(EntrySize, std::memory_order_seq_cst);
    char* entry = ring.base + (position & (RingSize - 1));
    std::memcpy(entry, ring.image, EntrySize);
    std::memcpy(entry + 65, &value, 4);
    std::memcpy(entry + 70, &total, 4);
    const uint64_t now = ReadClock(clock);
    std::memcpy(entry + 16, &now, 8);
    std::atomic_ref<uint16_t>(*reinterpret_cast<uint16_t*>(entry + 34))
        .store(0x5555, std::memory_order_release);
}

template <Clock C>
void BM_Raw(benchmark::State& state) {
    RawRing& ring = Ring();
    int value = 0;
    for (auto _ : state) {
        RawWrite(ring, C, ++value, 1000);
        benchmark::ClobberMemory();
    }
}

// --- the library

struct Engines {
    TraceEngine* optimal = CreateEngine("BenchOptimal", 4, true);
    TraceEngine* optimalLocalIds = CreateEngine("BenchOptimalLocal", 4, false);
    TraceEngine* fast = CreateEngine("BenchFast", 2, true);
    TraceEngine* seqId = CreateEngine("BenchSeqId", 1, true);
    TraceEngine* seqIdLocalIds = CreateEngine("BenchSeqIdLocal", 1, false);
    paxl::Engine cpp{"BenchOptimal", "Cpp", 0, paxl::Info, true};
    unsigned* filterWord = nullptr;
    TraceEngine* filterEngine = nullptr;
    Engines() { trace_engine_create("BenchOptimal", "Mod", 0, 4, true, &filterEngine, &filterWord); }
};

Engines& Get() {
    static Engines engines;
    return engines;
}

void CLoop(benchmark::State& state, TraceEngine* engine) {
    if (engine == nullptr) {
        state.SkipWithError("no engine");
        return;
    }
    int value = 0;
    for (auto _ : state) {
        CWrite(engine, ++value, 1000);
        benchmark::ClobberMemory();
    }
}

void BM_C_Optimal(benchmark::State& state) {
    CLoop(state, Get().optimal);
}
void BM_C_Optimal_LocalIds(benchmark::State& state) {
    CLoop(state, Get().optimalLocalIds);
}
void BM_C_Fast(benchmark::State& state) {
    CLoop(state, Get().fast);
}
void BM_C_SeqId(benchmark::State& state) {
    CLoop(state, Get().seqId);
}
void BM_C_SeqId_LocalIds(benchmark::State& state) {
    CLoop(state, Get().seqIdLocalIds);
}

void BM_Cpp_Optimal(benchmark::State& state) {
    const paxl::Engine& engine = Get().cpp;
    int value = 0;
    for (auto _ : state) {
        ++value;
        PAXL_TRACE(engine, paxl::Info, Message, value, 1000);
        benchmark::ClobberMemory();
    }
}

// A trace the module filters out: one load of the filter word and a test.
void BM_FilteredOut(benchmark::State& state) {
    Engines& engines = Get();
    int value = 0;
    for (auto _ : state) {
        if ((std::atomic_ref<unsigned>(*engines.filterWord).load(std::memory_order_relaxed) & 7u) >= 6u)
            [[unlikely]]
            CWrite(engines.filterEngine, ++value, 1000);
        benchmark::DoNotOptimize(value);
    }
}

#define ONE_AND_TWO_THREADS(name) BENCHMARK(name)->ReportAggregatesOnly(true)->ThreadRange(1, 2)
#define ONE_THREAD(name) BENCHMARK(name)->ReportAggregatesOnly(true)
ONE_THREAD(BM_Raw<Clock::None>);
ONE_THREAD(BM_Raw<Clock::Coarse>);
ONE_AND_TWO_THREADS(BM_Raw<Clock::Realtime>);
ONE_AND_TWO_THREADS(BM_C_Optimal);
ONE_AND_TWO_THREADS(BM_C_Optimal_LocalIds);
ONE_THREAD(BM_Cpp_Optimal);
ONE_THREAD(BM_C_Fast);
ONE_THREAD(BM_C_SeqId);
ONE_THREAD(BM_C_SeqId_LocalIds);
ONE_THREAD(BM_FilteredOut);

// --- writers in separate processes, each with its own buffer

constexpr int ProcessWrites = 2000000;

uint64_t Nanoseconds(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// Writes after the start pipe closes and reports the CPU nanoseconds of its writes.
[[noreturn]] void ProcessWriter(int startFd, int resultFd, bool globalIds) {
    TraceEngine* engine = CreateEngine("BenchProcess", 4, globalIds);
    for (int i = 0; i < ProcessWrites / 10; ++i)
        CWrite(engine, i, 1000);
    char byte;
    while (read(startFd, &byte, 1) > 0) {
    }
    const uint64_t start = Nanoseconds(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < ProcessWrites; ++i)
        CWrite(engine, i, 1000);
    const uint64_t cpu = Nanoseconds(CLOCK_THREAD_CPUTIME_ID) - start;
    const ssize_t written = write(resultFd, &cpu, sizeof cpu);
    trace_engine_destroy(engine);
    std::exit(written == sizeof cpu ? 0 : 1);
}

// CPU ns per trace, averaged over the processes; 0 when a child failed.
double RunProcesses(int processes, bool globalIds) {
    int start[2], result[2];
    if (pipe(start) != 0 || pipe(result) != 0)
        return 0;
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            close(start[1]);
            close(result[0]);
            ProcessWriter(start[0], result[1], globalIds);
        }
        children.push_back(pid);
    }
    close(start[0]);
    close(result[1]);
    usleep(200000);  // let the children create their buffers and warm up
    close(start[1]);
    double total = 0;
    int reported = 0;
    uint64_t cpu = 0;
    while (read(result[0], &cpu, sizeof cpu) == sizeof cpu) {
        total += static_cast<double>(cpu) / ProcessWrites;
        ++reported;
    }
    close(result[0]);
    bool ok = reported == processes;
    for (pid_t pid : children) {
        int status = 0;
        ok = waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0 && ok;
    }
    return ok ? total / processes : 0;
}

struct ProcessFigure {
    int processes;
    bool globalIds;
    double median;
};

std::vector<ProcessFigure> MeasureProcesses(int repetitions) {
    std::vector<ProcessFigure> figures;
    for (int processes = 1; processes <= 2; ++processes) {
        for (bool globalIds : {true, false}) {
            std::vector<double> runs;
            for (int r = 0; r < repetitions; ++r)
                runs.push_back(RunProcesses(processes, globalIds));
            std::sort(runs.begin(), runs.end());
            figures.push_back({processes, globalIds, runs[runs.size() / 2]});
        }
    }
    return figures;
}

}  // namespace

int main(int argc, char** argv) {
    Tracing::Bench::UseOwnPrefix();
    int repetitions = 5;
    bool processes = true;  // a filtered run measures only what it names
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--benchmark_repetitions=", 24) == 0)
            repetitions = std::max(1, std::atoi(argv[i] + 24));
        if (std::strncmp(argv[i], "--benchmark_filter=", 19) == 0)
            processes = false;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    // Before this process creates anything, so that the children inherit nothing of the library.
    const std::vector<ProcessFigure> processFigures =
        processes ? MeasureProcesses(repetitions) : std::vector<ProcessFigure>{};
    Get();
    Tracing::Bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    const double realtime1 = reporter.Median("BM_Raw<Clock::Realtime>", 1);
    const double realtime2 = reporter.Median("BM_Raw<Clock::Realtime>", 2);
    std::printf("\n%-46s %8s %8s %7s %7s\n", "writer (CPU ns per trace, median)", "ns", "baseline", "ratio",
                "target");
    auto row = [](const char* what, double ns, double base, double target) {
        if (ns <= 0)
            return;
        if (base > 0)
            std::printf("%-46s %8.1f %8.1f %6.2fx %6.2fx\n", what, ns, base, ns / base, target);
        else
            std::printf("%-46s %8.1f\n", what, ns);
    };
    row("raw, CLOCK_REALTIME", realtime1, 0, 0);
    row("raw, coarse clock", reporter.Median("BM_Raw<Clock::Coarse>"), 0, 0);
    row("raw, no clock", reporter.Median("BM_Raw<Clock::None>"), 0, 0);
    row("raw, two threads one ring, CLOCK_REALTIME", realtime2, 0, 0);
    row("C trace_engine_write OPTIMAL", reporter.Median("BM_C_Optimal"), realtime1, 1.3);
    row("C OPTIMAL, per-buffer IDs", reporter.Median("BM_C_Optimal_LocalIds"), realtime1, 1.3);
    row("C++ PAXL_TRACE OPTIMAL", reporter.Median("BM_Cpp_Optimal"), realtime1, 1.25);
    row("C FAST / raw coarse", reporter.Median("BM_C_Fast"), reporter.Median("BM_Raw<Clock::Coarse>"), 1.5);
    row("C SEQ_ID / raw no clock", reporter.Median("BM_C_SeqId"), reporter.Median("BM_Raw<Clock::None>"),
        2.0);
    row("C SEQ_ID, per-buffer IDs / raw no clock", reporter.Median("BM_C_SeqId_LocalIds"),
        reporter.Median("BM_Raw<Clock::None>"), 2.0);
    row("two threads one buffer OPTIMAL", reporter.Median("BM_C_Optimal", 2), realtime2, 1.5);
    row("two threads one buffer, per-buffer IDs", reporter.Median("BM_C_Optimal_LocalIds", 2), realtime2,
        1.5);
    for (const ProcessFigure& f : processFigures) {
        char what[64];
        std::snprintf(what, sizeof what, "%d process(es) own buffers, global IDs %s", f.processes,
                      f.globalIds ? "on" : "off");
        row(what, f.median, f.processes == 2 ? realtime2 : realtime1, f.processes == 2 ? 1.5 : 1.3);
    }
    row("filtered out", reporter.Median("BM_FilteredOut"), 0, 0);
    benchmark::Shutdown();
    return 0;
}
