// Spin lock that lives inside shared memory and survives the death of its holder.
//
// Shared-memory record (24 bytes, little-endian, 4-byte aligned; a zero-filled lock is unlocked
// and has no owner):
//   0  u32               state    bit 0 = locked; see the state machine at Lock/Unlock
//   4  u32               padding  zero
//   8  TraceProcessData  owner    the process that acquired last; not cleared on release
// The state word is changed only by atomic exchanges. The owner is written after the state, word
// by word with relaxed atomics: a torn or stale owner costs at most a wrong liveness guess or a
// wrong ID in a warning, never a second holder, because only a state exchange grants the lock.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Trace/Ipc/TraceProcessData.h"

namespace Tracing {

class TraceIpcLock {
public:
    TraceIpcLock() noexcept = default;

    // Lock word states:
    //   even v      free; acquiring moves v -> v + 1 (compare-exchange, seq_cst)
    //   odd  v      held; releasing moves v -> v + 1 (exchange computed from a load, seq_cst);
    //               a waiter that finds the same odd value for 100 yields and 10 x 1 ms and a dead
    //               owner takes over by v -> v + 2 (compare-exchange), so it stays held
    // Invariant: the word changes on every acquisition, release and take-over (it doubles as a
    // sequence number), and a thread owns the lock only by its own successful exchange.
    // Not re-entrant, not tied to a thread; there is no time-out.
    void Lock() { Lock(nullptr, 0); }

    // file and line only appear in warnings (printed when line is not 0).
    void Lock(const char* file, unsigned line) {
        uint32_t state = State().load(std::memory_order_seq_cst);
        if ((state & 1) == 0 && State().compare_exchange_strong(state, state | 1, std::memory_order_seq_cst))
            [[likely]] {
            StoreOwner(TraceProcessData::GetCurrent());
            return;
        }
        LockContended(file, line);
    }

    // Releases; warns and changes nothing when the lock is not held.
    void Unlock() {
        const uint32_t state = State().load(std::memory_order_seq_cst);
        if ((state & 1) == 0) [[unlikely]] {
            ReportUnexpectedUnlock();
            return;
        }
        // An exchange, not a compare-exchange: only the holder may release, and nobody else
        // changes a held word except a take-over, which keeps it odd.
        State().exchange(state + 1, std::memory_order_seq_cst);
    }

    uint32_t GetState() const { return State().load(std::memory_order_seq_cst); }
    bool IsLocked() const { return (GetState() & 1) != 0; }
    TraceProcessData GetOwner() const;

private:
    std::atomic_ref<uint32_t> State() const {
        return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(m_state));
    }

    [[gnu::cold, gnu::noinline]] void LockContended(const char* file, unsigned line);
    [[gnu::cold, gnu::noinline]] void ReportUnexpectedUnlock() const;

    void StoreOwner(const TraceProcessData& owner) {
        for (int i = 0; i < 2; ++i) {
            std::atomic_ref<uint32_t>(m_owner.m_pid[i]).store(owner.m_pid[i], std::memory_order_relaxed);
            std::atomic_ref<uint32_t>(m_owner.m_creationTime[i])
                .store(owner.m_creationTime[i], std::memory_order_relaxed);
        }
    }

    uint32_t m_state = 0;
    [[maybe_unused]] uint32_t m_padding = 0;
    TraceProcessData m_owner;

    static void CheckLayout();
};

inline void TraceIpcLock::CheckLayout() {
    static_assert(sizeof(TraceIpcLock) == 24);
    static_assert(alignof(TraceIpcLock) == 4);
    static_assert(offsetof(TraceIpcLock, m_state) == 0);
    static_assert(offsetof(TraceIpcLock, m_padding) == 4);
    static_assert(offsetof(TraceIpcLock, m_owner) == 8);
    static_assert(std::is_standard_layout_v<TraceIpcLock>);
    static_assert(std::is_trivially_copyable_v<TraceIpcLock>);
    static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
    static_assert(std::atomic_ref<uint32_t>::required_alignment <= alignof(TraceIpcLock));
    // A constructed lock is all zero bytes, and zero-filled memory reads as free with no owner.
    constexpr auto bytes = std::bit_cast<std::array<uint32_t, 6>>(TraceIpcLock());
    static_assert(std::all_of(bytes.begin(), bytes.end(), [](uint32_t word) { return word == 0; }));
}

}  // namespace Tracing
