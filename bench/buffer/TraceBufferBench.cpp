// Registration and filter changes of a trace buffer, which run under the object's mutex and the
// header's inter-process lock, against those two locks taken bare in the same run.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceModuleData.h"
#include "Trace/Ipc/TraceIpcLock.h"
#include "bench/support/BenchSupport.h"

namespace {

using Tracing::TraceBuffer;

std::unique_ptr<TraceBuffer> MakeBuffer(const char* subSystem) {
    auto buffer = std::make_unique<TraceBuffer>();
    if (buffer->Create(1, getpid(), Tracing::TimestampMode::NotSet, "", "", "Bench", "Bench", subSystem, 8,
                       0) != TraceBuffer::Success)
        return nullptr;
    return buffer;
}

void BareTwoLocks(benchmark::State& state) {
    std::recursive_mutex mutex;
    alignas(64) Tracing::TraceIpcLock lock;
    lock.Lock();  // the identity of this process is filled on first use, outside the measurement
    lock.Unlock();
    for (auto _ : state) {
        std::lock_guard guard(mutex);
        lock.Lock();
        lock.Unlock();
        benchmark::ClobberMemory();
    }
}

// The path of every engine after the first for the same module: both names are found.
void RegisterKnownModuleAndFlag(benchmark::State& state) {
    auto buffer = MakeBuffer("Known");
    if (buffer == nullptr) {
        state.SkipWithError("buffer not created");
        return;
    }
    const int32_t id = buffer->RegisterModule("module", Tracing::Severity::Info)->GetModuleID();
    buffer->RegisterFlag(id, "flag", true);
    for (auto _ : state) {
        benchmark::DoNotOptimize(buffer->RegisterModule("module", Tracing::Severity::Info));
        benchmark::DoNotOptimize(buffer->RegisterFlag(id, "flag", true));
    }
}

// A new module with a new flag each time; the buffer is replaced (untimed) when it is full.
void RegisterNewModuleAndFlag(benchmark::State& state) {
    std::unique_ptr<TraceBuffer> buffer;
    unsigned registered = 8;
    for (auto _ : state) {
        if (registered == 8) {
            state.PauseTiming();
            buffer.reset();
            buffer = MakeBuffer("New");
            registered = 0;
            state.ResumeTiming();
        }
        const std::string name = "module" + std::to_string(registered++);
        Tracing::TraceModuleData* module = buffer->RegisterModule(name.c_str(), Tracing::Severity::Info);
        benchmark::DoNotOptimize(buffer->RegisterFlag(module->GetModuleID(), "flag", true));
    }
}

// Every call changes the filter, so the change counter moves each time.
void SetSeverity(benchmark::State& state) {
    auto buffer = MakeBuffer("Severity");
    if (buffer == nullptr) {
        state.SkipWithError("buffer not created");
        return;
    }
    const int32_t id = buffer->RegisterModule("module", Tracing::Severity::Info)->GetModuleID();
    bool debug = false;
    for (auto _ : state) {
        debug = !debug;
        benchmark::DoNotOptimize(
            buffer->SetSeverity(id, debug ? Tracing::Severity::Debug : Tracing::Severity::Info));
    }
}

}  // namespace

BENCHMARK(BareTwoLocks)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(RegisterKnownModuleAndFlag)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(RegisterNewModuleAndFlag)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(SetSeverity)->Repetitions(5)->ReportAggregatesOnly(true);

int main(int argc, char** argv) {
    return Tracing::Bench::RunAll(argc, argv);
}
