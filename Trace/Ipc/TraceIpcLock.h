// Spin lock that lives inside shared memory and survives the death of its holder.
//
// Shared-memory record (24 bytes, little-endian, 4-byte aligned; a zero-filled lock is unlocked
// and has no owner):
//   0  u32               state       bit 0 = locked; see the state machine at Lock/Unlock
//   4  u32               ownerState  the state value under which owner was recorded
//   8  TraceProcessData  owner       the process that acquired last; not cleared on release
// The state word is changed only by atomic exchanges. The winner of an exchange then records
// itself: owner word by word (relaxed), then ownerState = the state it made (release). A waiter
// trusts owner only while ownerState equals the current state, so a stale owner left by an
// earlier holder is never mistaken for the current one.
// Remaining window: a holder that is stopped (or killed) between its exchange and ownerState for
// longer than the grace period of LockContended is taken over; nothing in between blocks or faults
// (the identity is computed before the exchange), so only a stopped process (debugger, SIGSTOP)
// can sit there that long.
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
    //               a waiter that finds the same odd value for 100 yields and 10 x 1 ms takes over
    //               by v -> v + 2 (compare-exchange, so it stays held) when the owner recorded for
    //               v is dead, or when none was recorded for v within the grace period
    // Invariant: the word changes on every acquisition, release and take-over (it doubles as a
    // sequence number), and a thread owns the lock only by its own successful exchange.
    // Not re-entrant, not tied to a thread; there is no time-out.
    void Lock() { Lock(nullptr, 0); }

    // file and line only appear in warnings (printed when line is not 0).
    void Lock(const char* file, unsigned line) {
        // Known before the exchange: the first call reads the process table, which must not
        // happen while we hold the lock unrecorded.
        const TraceProcessData& self = TraceProcessData::GetCurrent();
        uint32_t state = State().load(std::memory_order_seq_cst);
        if ((state & 1) == 0 && State().compare_exchange_strong(state, state | 1, std::memory_order_seq_cst))
            [[likely]] {
            RecordOwner(self, state | 1);
            return;
        }
        LockContended(self, file, line);
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

    [[gnu::cold, gnu::noinline]] void LockContended(const TraceProcessData& self, const char* file,
                                                    unsigned line);
    [[gnu::cold, gnu::noinline]] void ReportUnexpectedUnlock() const;

    // Plain stores to the page the exchange has just written: nothing here can block or fault.
    void RecordOwner(const TraceProcessData& owner, uint32_t heldState) {
        for (int i = 0; i < 2; ++i) {
            std::atomic_ref<uint32_t>(m_owner.m_pid[i]).store(owner.m_pid[i], std::memory_order_relaxed);
            std::atomic_ref<uint32_t>(m_owner.m_creationTime[i])
                .store(owner.m_creationTime[i], std::memory_order_relaxed);
        }
        std::atomic_ref<uint32_t>(m_ownerState).store(heldState, std::memory_order_release);
    }

    // The owner recorded for `held`, when one was and `held` is still the state.
    bool ReadRecordedOwner(uint32_t held, TraceProcessData& owner) const;

    uint32_t m_state = 0;
    uint32_t m_ownerState = 0;
    TraceProcessData m_owner;

    static void CheckLayout();
};

inline void TraceIpcLock::CheckLayout() {
    static_assert(sizeof(TraceIpcLock) == 24);
    static_assert(alignof(TraceIpcLock) == 4);
    static_assert(offsetof(TraceIpcLock, m_state) == 0);
    static_assert(offsetof(TraceIpcLock, m_ownerState) == 4);
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
