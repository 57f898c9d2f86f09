// The machine-wide time reference where it lies in shared memory (the registry block carries it):
// reference time, tick and performance counter, each double-buffered so that readers take no lock
// and always get one complete triple, and the resynchronisation period. Writers are serialised by
// an update indicator. A view: it points at the fields and owns nothing.
#pragma once

#include <atomic>
#include <cstdint>

namespace Tracing {

class TraceTimeReference {
public:
    // Each pair names its first element; the second follows it.
    struct Fields {
        uint32_t* updateIndicator;
        uint64_t* first;   // time
        uint64_t* second;  // tick
        int64_t* third;    // performance counter
        uint32_t* slot;    // which half of the pairs is valid
        uint32_t* resyncPeriod;
    };

    explicit TraceTimeReference(const Fields& fields) : m_fields(fields) {}

    void Get(uint64_t& first, uint64_t& second, int64_t& third) const {
        // Pairs with the slot store of Set: the half it names is complete.
        const uint32_t slot = std::atomic_ref<uint32_t>(*m_fields.slot).load(std::memory_order_seq_cst) & 1u;
        // Relaxed: the slot load ordered these reads; atomic only so that a reader overtaken by two
        // writers gets whole words.
        first = std::atomic_ref<uint64_t>(m_fields.first[slot]).load(std::memory_order_relaxed);
        second = std::atomic_ref<uint64_t>(m_fields.second[slot]).load(std::memory_order_relaxed);
        third = std::atomic_ref<int64_t>(m_fields.third[slot]).load(std::memory_order_relaxed);
    }
    // Fills the half that readers are not directed to, then flips the slot.
    void Set(uint64_t first, uint64_t second, int64_t third) const;
    // Set while holding the update indicator; false (nothing written) when another writer holds it.
    bool TrySet(uint64_t first, uint64_t second, int64_t third) const;

    unsigned GetResynchronizationPeriod() const {
        return std::atomic_ref<uint32_t>(*m_fields.resyncPeriod).load(std::memory_order_seq_cst);
    }
    void SetResynchronizationPeriod(unsigned periodMs) const {
        std::atomic_ref<uint32_t>(*m_fields.resyncPeriod).store(periodMs, std::memory_order_seq_cst);
    }
    // 1 while one process writes the reference.
    std::atomic_ref<uint32_t> GetUpdateIndicator() const {
        return std::atomic_ref<uint32_t>(*m_fields.updateIndicator);
    }

private:
    Fields m_fields;
};

}  // namespace Tracing
