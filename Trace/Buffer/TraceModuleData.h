// One module slot of a trace buffer: its identity, its filter word and its named flags.
//
// Shared-memory record (1004 bytes, 4-byte aligned; slot m sits at 212 + m * 1004 of the buffer):
//   0     i32                   buffer ID         -1 = free slot; atomic
//   4     i32                   module ID         0 in a free slot
//   8     char[33]              module name       zero-terminated, at most 32 bytes
//   41    3 bytes               padding           zero
//   44    u32                   filter state      atomic; see below
//   48    28 x TraceFlagData    flag slots        slot i holds flag bit i + 4
//   1000  u32                   registered flags  atomic; bit b set when flag bit b is registered
// Filter word and severity mask: bits 0-2 a Severity::Type value (not a mask), bit 3 always 0,
// bits 4-31 one bit per active flag.
// Who writes: activation, deactivation and flag registration run under the buffer header's
// TraceIpcLock; the filter state and registered flags change only by atomic operations (seq_cst),
// because writers in other processes test the filter word without the lock. Readers of IDs and
// names re-check the buffer ID first: a slot may be (de)activated meanwhile.
// Fixed-width little-endian fields only; no pointers, no size_t.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "Trace/Buffer/ShmName.h"
#include "Trace/Buffer/TraceFlagData.h"
#include "Trace/Profiles/TraceProfile.h"
#include "Trace/Records/Severity.h"

namespace Tracing {

class TraceBufferData;
struct TraceModuleInfo;

class TraceModuleData {
public:
    static constexpr int32_t FreeBufferID = -1;
    static constexpr unsigned FlagCount = 28;
    static constexpr uint8_t FirstFlagBit = 4;
    static constexpr uint8_t LastFlagBit = 31;
    static constexpr uint32_t SeverityMask = 7;
    static constexpr uint32_t FlagMask = 0xFFFFFFF0;

    TraceModuleData() noexcept { Deactivate(); }

    // Occupies a free slot; the filter state is stored as given. False when the slot is in use.
    bool Activate(int32_t bufferID, int32_t moduleID, const char* name, uint32_t filterState);
    void Deactivate();

    bool IsActivated() const { return GetBufferID() != FreeBufferID; }
    int32_t GetBufferID() const { return AtomicBufferID().load(std::memory_order_seq_cst); }
    void SetBufferID(int32_t bufferID) { AtomicBufferID().store(bufferID, std::memory_order_seq_cst); }
    int32_t GetModuleID() const { return m_moduleID; }
    const char* GetModuleName() const { return Internal::ShmNameCString(m_moduleName); }
    bool HasName(const char* name) const { return Internal::ShmNameEquals(m_moduleName, name); }

    // The filter word writers test before every trace.
    uint32_t GetFilterState() const { return AtomicFilterState().load(std::memory_order_seq_cst); }
    std::atomic_ref<uint32_t> GetAtomicFilterState() const { return AtomicFilterState(); }
    bool IsSet() const { return GetFilterState() != 0; }

    // Each returns whether the filter word changed.
    bool SetSeverityMask(uint32_t mask);  // unregistered flag bits and bit 3 are dropped
    bool SetSeverity(Severity::Type severity);
    bool SetFlag(bool on, uint8_t bit);

    // Registers a flag under bit (4-31) or, with bit 0, under the flag of that name or the first
    // free slot. Returns the bit, or 0 when the bit is invalid or no slot is free. An explicit bit
    // already in use is returned as it is, keeping its old name.
    uint8_t RegisterFlag(const char* name, bool activate, uint8_t bit = 0);

    // Scans from the first slot and stops at the first free one: a flag registered behind a gap
    // (explicit bits) is not found by name.
    const TraceFlagData* FindFlag(const char* name) const;
    TraceFlagData* FindFlag(const char* name) {
        return const_cast<TraceFlagData*>(static_cast<const TraceModuleData*>(this)->FindFlag(name));
    }

    bool IsFlagRegistered(uint8_t bit) const;
    bool IsFlagActive(uint8_t bit) const;
    bool GetFlagName(uint8_t bit, std::string& name) const;

    // OR of the bits of the occupied flag slots.
    uint32_t GetTraceFlags() const;
    // The registered-flags word (offset 1000); matches GetTraceFlags.
    uint32_t GetRegisteredFlags() const { return AtomicRegisteredFlags().load(std::memory_order_seq_cst); }

    // Flag slot 0-27 (bit index + 4), null outside.
    const TraceFlagData* GetFlag(unsigned index) const {
        return index < FlagCount ? &m_flags[index] : nullptr;
    }

    // Takes severity and flags from the module of the same name in a profile record. Flags are only
    // switched on, never off.
    void ApplyProfile(const TraceBufferData& profileRecord, unsigned defaultSeverity);

    // Copies the slot into an in-process description; the flags in slot order.
    void GetInfo(TraceModuleInfo& info) const;
    // Adds the module with its severity and its flags (slot order, up to the first free slot) to a
    // profile subsystem; false for a module without a name.
    bool AddToProfile(TraceProfile::SubSystem& subSystem) const;

private:
    uint32_t RemoveInvalidBits(uint32_t mask) const;
    // Slot of an in-use flag bit, null otherwise.
    const TraceFlagData* RegisteredFlagSlot(uint8_t bit) const;

    std::atomic_ref<int32_t> AtomicBufferID() const {
        return std::atomic_ref<int32_t>(const_cast<int32_t&>(m_bufferID));
    }
    std::atomic_ref<uint32_t> AtomicFilterState() const {
        return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(m_filterState));
    }
    std::atomic_ref<uint32_t> AtomicRegisteredFlags() const {
        return std::atomic_ref<uint32_t>(const_cast<uint32_t&>(m_registeredFlags));
    }

    int32_t m_bufferID;
    int32_t m_moduleID;
    char m_moduleName[Internal::ShmNameFieldSize];
    uint8_t m_padding[3];
    uint32_t m_filterState;
    TraceFlagData m_flags[FlagCount];
    uint32_t m_registeredFlags;

    static void CheckLayout();
};

inline void TraceModuleData::CheckLayout() {
    static_assert(sizeof(TraceModuleData) == 1004);
    static_assert(alignof(TraceModuleData) == 4);
    static_assert(offsetof(TraceModuleData, m_bufferID) == 0);
    static_assert(offsetof(TraceModuleData, m_moduleID) == 4);
    static_assert(offsetof(TraceModuleData, m_moduleName) == 8);
    static_assert(offsetof(TraceModuleData, m_padding) == 41);
    static_assert(offsetof(TraceModuleData, m_filterState) == 44);
    static_assert(offsetof(TraceModuleData, m_flags) == 48);
    static_assert(offsetof(TraceModuleData, m_registeredFlags) == 1000);
    static_assert(std::is_standard_layout_v<TraceModuleData>);
    static_assert(std::is_trivially_copyable_v<TraceModuleData>);
    static_assert(std::atomic_ref<int32_t>::is_always_lock_free);
    static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
    static_assert(std::atomic_ref<uint32_t>::required_alignment <= alignof(TraceModuleData));
    static_assert(LastFlagBit - FirstFlagBit + 1 == FlagCount);
}

}  // namespace Tracing
