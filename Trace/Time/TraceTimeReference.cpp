#include "Trace/Time/TraceTimeReference.h"

namespace Tracing {

void TraceTimeReference::Set(uint64_t first, uint64_t second, int64_t third) const {
    std::atomic_ref<uint32_t> slotWord(*m_fields.slot);
    const uint32_t slot = (slotWord.load(std::memory_order_seq_cst) & 1u) ^ 1u;
    // Relaxed: the slot store below publishes them.
    std::atomic_ref<uint64_t>(m_fields.first[slot]).store(first, std::memory_order_relaxed);
    std::atomic_ref<uint64_t>(m_fields.second[slot]).store(second, std::memory_order_relaxed);
    std::atomic_ref<int64_t>(m_fields.third[slot]).store(third, std::memory_order_relaxed);
    slotWord.store(slot, std::memory_order_seq_cst);
}

bool TraceTimeReference::TrySet(uint64_t first, uint64_t second, int64_t third) const {
    uint32_t idle = 0;
    if (!GetUpdateIndicator().compare_exchange_strong(idle, 1, std::memory_order_seq_cst))
        return false;
    Set(first, second, third);
    GetUpdateIndicator().store(0, std::memory_order_seq_cst);
    return true;
}

}  // namespace Tracing
