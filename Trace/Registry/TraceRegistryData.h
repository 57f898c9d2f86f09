// Header of the registry block in shared memory (152 bytes), followed by the buffer array.
//
//   offset  size   field                 access
//        0     4   version         u32   written once at construction
//        4     4   changeCounter   u32   atomic; +1 whenever the set of buffers changes
//        8    24   lock                  TraceIpcLock guarding the buffer array
//       32     4   initializedFlag u32   atomic; 0 while the creator sets up, 1 once published
//       36     4   updateIndicator u32   atomic; 1 while one process writes the timer reference
//       40    16   timerSecond[2]  u64   reference tick, double-buffered
//       56    16   timerThird[2]   i64   reference performance counter, double-buffered
//       72    16   timerFirst[2]   u64   reference time, double-buffered
//       88     4   timerSlot       u32   atomic; which half (0 or 1) of the timer pairs is valid
//       92     4   resyncPeriod    u32   atomic; timer resynchronisation period in ms
//       96    32   receiverCommands[8]   u32 each; see TraceReceiverCommandStore
//      128     4   nextFreeBufferID i32  atomic; next buffer ID to hand out
//      132     4   profileIndex    u32   atomic; bits 0-30 index, bit 31 published
//      136     8   profileLoaderID i64   atomic
//      144     4   globalTraceCounter u32 atomic; machine-wide trace-ID counter
//      148     4   sizeOfBufferArray u32 written once at construction
//      152  80*n   bufferArray           TraceRegistryDataItem, changed under the lock
//
// Fixed-width little-endian fields only; no pointers, no size_t. The block is published by the
// creator's final store of initializedFlag; nothing of it is trusted before that flag reads 1.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Trace/Buffer/SHMErrorCodes.h"
#include "Trace/Ipc/TraceIpcLock.h"
#include "Trace/Registry/TraceRegistryDataItem.h"
#include "Trace/Time/TraceTimeReference.h"

namespace Tracing {

class TraceRegistryData {
public:
    static constexpr uint64_t SizeWithoutBufferArray = 152;
    static constexpr unsigned DefaultResyncPeriod = 10000;

    static constexpr uint64_t GetSize(unsigned numberOfItems) {
        return SizeWithoutBufferArray + sizeof(TraceRegistryDataItem) * static_cast<uint64_t>(numberOfItems);
    }

    // Constructs a block in `memory` with as many items as fit in `size`; the block is left
    // unpublished (initializedFlag 0).
    static SHMErrorCodes::Values Create(TraceRegistryData*& out, void* memory, uint64_t size);
    // Takes `memory` as a block as it is; the caller waits for its initializedFlag.
    static SHMErrorCodes::Values Attach(TraceRegistryData*& out, void* memory);

    void Lock() { m_lock.Lock(LockFile, LockLine); }
    void Unlock() { m_lock.Unlock(); }

    // The following four change or scan the buffer array; hold the lock to change it.
    TraceRegistryDataItem* ActivateFirstFreeItem(int32_t bufferID, int64_t processID, const char* host,
                                                 const char* subsystem);
    bool DeactivateItem(int32_t bufferID);
    const TraceRegistryDataItem* FindItem(int32_t bufferID) const;
    TraceRegistryDataItem* GetBufferArray() {
        return reinterpret_cast<TraceRegistryDataItem*>(reinterpret_cast<unsigned char*>(this) +
                                                        SizeWithoutBufferArray);
    }
    const TraceRegistryDataItem* GetBufferArray() const {
        return reinterpret_cast<const TraceRegistryDataItem*>(reinterpret_cast<const unsigned char*>(this) +
                                                              SizeWithoutBufferArray);
    }
    unsigned GetSizeOfBufferArray() const { return m_sizeOfBufferArray; }

    // The timer reference: first = time, second = tick, third = performance counter. Readers take
    // no lock; writers are serialised by the update indicator (TrySetTraceTimer).
    TraceTimeReference GetTimeReference() const {
        // The fields are never const in shared memory.
        auto* self = const_cast<TraceRegistryData*>(this);
        return TraceTimeReference({&self->m_updateIndicator, self->m_timerFirst, self->m_timerSecond,
                                   self->m_timerThird, &self->m_timerSlot, &self->m_resyncPeriod});
    }
    void GetTraceTimer(uint64_t& first, uint64_t& second, int64_t& third) const {
        GetTimeReference().Get(first, second, third);
    }
    void SetTraceTimer(uint64_t first, uint64_t second, int64_t third) {
        GetTimeReference().Set(first, second, third);
    }
    bool TrySetTraceTimer(uint64_t first, uint64_t second, int64_t third) {
        return GetTimeReference().TrySet(first, second, third);
    }
    unsigned GetTraceTimerResynchronizationPeriod() const {
        return GetTimeReference().GetResynchronizationPeriod();
    }
    void SetTraceTimerResynchronizationPeriod(unsigned periodMs) {
        GetTimeReference().SetResynchronizationPeriod(periodMs);
    }

    int64_t GetProfileLoaderID() const { return ReadOnly(m_profileLoaderID).load(std::memory_order_seq_cst); }
    void SetProfileLoaderID(const int64_t& id) {
        std::atomic_ref<int64_t>(m_profileLoaderID).exchange(id, std::memory_order_seq_cst);
    }

    std::atomic_ref<uint32_t> GetAtomicChangeCounter() { return std::atomic_ref<uint32_t>(m_changeCounter); }
    std::atomic_ref<uint32_t> GetInitializedFlag() { return std::atomic_ref<uint32_t>(m_initializedFlag); }
    std::atomic_ref<uint32_t> GetAtomicUpdateIndicator() {
        return std::atomic_ref<uint32_t>(m_updateIndicator);
    }
    std::atomic_ref<int32_t> GetAtomicNextFreeBufferID() {
        return std::atomic_ref<int32_t>(m_nextFreeBufferID);
    }
    std::atomic_ref<uint32_t> GetAtomicProfileIndex() { return std::atomic_ref<uint32_t>(m_profileIndex); }
    std::atomic_ref<uint32_t> GetGlobalTraceCounter() {
        return std::atomic_ref<uint32_t>(m_globalTraceCounter);
    }
    std::atomic_ref<uint32_t> GetAtomicTimerSlot() { return std::atomic_ref<uint32_t>(m_timerSlot); }
    uint32_t* GetGlobalTraceCounterAddress() { return &m_globalTraceCounter; }
    uint32_t (&GetReceiverCommands())[8] { return m_receiverCommands; }
    unsigned GetVersion() const { return m_version; }

private:
    // Atomic reads from const accessors; the field itself is never const in shared memory.
    template <typename T>
    static std::atomic_ref<T> ReadOnly(const T& field) {
        return std::atomic_ref<T>(const_cast<T&>(field));
    }
    // Where Lock reports itself in the lock's warnings.
    static constexpr const char* LockFile = "Trace/TraceRegistryData";
    static constexpr unsigned LockLine = 214;

    explicit TraceRegistryData(unsigned numberOfItems);
    static void CheckLayout();

    uint32_t m_version;
    uint32_t m_changeCounter;
    TraceIpcLock m_lock;
    uint32_t m_initializedFlag;
    uint32_t m_updateIndicator;
    uint64_t m_timerSecond[2];
    int64_t m_timerThird[2];
    uint64_t m_timerFirst[2];
    uint32_t m_timerSlot;
    uint32_t m_resyncPeriod;
    uint32_t m_receiverCommands[8];
    int32_t m_nextFreeBufferID;
    uint32_t m_profileIndex;
    int64_t m_profileLoaderID;
    uint32_t m_globalTraceCounter;
    uint32_t m_sizeOfBufferArray;
};

static_assert(sizeof(TraceRegistryData) == TraceRegistryData::SizeWithoutBufferArray);
static_assert(alignof(TraceRegistryData) >= alignof(TraceRegistryDataItem));
static_assert(std::is_standard_layout_v<TraceRegistryData>);
static_assert(std::is_trivially_copyable_v<TraceRegistryData>);
static_assert(std::atomic_ref<uint32_t>::is_always_lock_free &&
              std::atomic_ref<int32_t>::is_always_lock_free &&
              std::atomic_ref<uint64_t>::is_always_lock_free &&
              std::atomic_ref<int64_t>::is_always_lock_free);

}  // namespace Tracing
