// Uncontended acquire/release of the shared-memory lock against the bare atomic operations it is
// built from (a compare-exchange to acquire, a sequentially consistent store to release).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>

#include "Trace/Ipc/TraceIpcLock.h"

namespace {

void RawCompareExchangeAndStore(benchmark::State& state) {
    alignas(64) uint32_t word = 0;
    std::atomic_ref<uint32_t> ref(word);
    for (auto _ : state) {
        uint32_t expected = ref.load(std::memory_order_seq_cst);
        ref.compare_exchange_strong(expected, expected | 1, std::memory_order_seq_cst);
        ref.store(expected + 2, std::memory_order_seq_cst);
        benchmark::ClobberMemory();
    }
}

void LockUnlock(benchmark::State& state) {
    alignas(64) Tracing::TraceIpcLock lock;
    lock.Lock();  // the identity of this process is filled on first use, outside the measurement
    lock.Unlock();
    for (auto _ : state) {
        lock.Lock();
        lock.Unlock();
        benchmark::ClobberMemory();
    }
}

}  // namespace

BENCHMARK(RawCompareExchangeAndStore)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(LockUnlock)->Repetitions(5)->ReportAggregatesOnly(true);

BENCHMARK_MAIN();
