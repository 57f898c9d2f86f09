// Header of a trace buffer's shared memory, followed by its module slots and its ring.
//
// Memory map of a buffer with m module slots and a ring of R bytes (a power of two):
//   0                212        header (this record)
//   212              m * 1004   module slots (TraceModuleData)
//   212 + m * 1004   R + 2048   ring with its spill area (TraceStream)
// Header (212 bytes, 4-byte aligned; the mapping starts at a page boundary):
//   0    u16       version               layout version (1)
//   2    u16       flag word             bit 0: global trace IDs; atomic OR / AND
//   4    u32       change counter        atomic; bumped by the buffer object after filter changes
//   8    24 bytes  lock                  TraceIpcLock around slot and flag changes
//   32   u32       initialised flag      atomic; 0 while the creator fills the memory, then 1
//   36   i32       buffer ID
//   40   i64       process ID            the process whose traces the buffer holds
//   48   i64       creator process ID    the process that laid out this memory
//   56   u8        timestamp mode        TimestampMode::Type; atomic
//   57   u8        reuse filter state    bool; only reported to tools
//   58   u8        ring was filled       atomic bool; set once by the first writer that wraps
//   59   u8        consumer attached     atomic bool
//   60   i32       next free module ID   atomic counter
//   64   u32       total trace counter   atomic; profile records: the profile's severity
//   68   u32       write index           atomic, free-running; profile records: max modules
//   72   u32       ring size             R; 0 in a record without ring
//   76   char[33]  system name           names: zero-terminated, at most 32 bytes
//   109  char[33]  host name
//   142  char[33]  application name
//   175  char[33]  subsystem name
//   208  u32       size of module array  m
// The 64-bit IDs are stored as pairs of 32-bit words so that the header keeps 4-byte alignment and
// its size of 212. Fields that change after creation are changed only atomically (seq_cst): any
// process that maps the buffer may read them at any time. Everything else is written by the
// creator before it sets the initialised flag, or under the lock.
// Fixed-width little-endian fields only; no pointers, no size_t.
//
// A header read from shared memory is not trusted: check IsPlausible against the mapping size
// before walking the module array; GetSize never overflows.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Trace/Buffer/SHMErrorCodes.h"
#include "Trace/Buffer/ShmName.h"
#include "Trace/Buffer/TraceModuleData.h"
#include "Trace/Ipc/TraceIpcLock.h"
#include "Trace/Time/TimestampMode.h"

namespace Tracing {

class TraceBufferData {
public:
    static constexpr uint32_t SizeWithoutModuleArray = 212;
    static constexpr uint32_t ModuleSlotSize = 1004;

    // Header plus module array of m slots (the ring not included).
    static constexpr uint64_t GetSize(uint64_t moduleCount) {
        return SizeWithoutModuleArray + moduleCount * ModuleSlotSize;
    }
    uint64_t GetSize() const { return GetSize(GetSizeOfModuleArray()); }

    // True when the header and its module array lie within mappedSize bytes from the header.
    bool IsPlausible(uint64_t mappedSize) const { return GetSize() <= mappedSize; }

    // Lays out a fresh header over memorySize bytes (header plus module array; the module count
    // is what fits) and frees every slot. The ring size is rounded up to a power of two.
    // InvalidAddress for a null or misaligned address, InvalidSize below one slot or for a ring
    // size above 2^31.
    static SHMErrorCodes::Values Create(TraceBufferData*& data, void* address, uint64_t memorySize,
                                        uint32_t ringSize, int32_t bufferID, int64_t processID,
                                        TimestampMode::Type timestampMode, const char* hostName,
                                        const char* systemName, const char* applicationName,
                                        const char* subSystemName);

    // Re-creates an existing header with its modules at address (which may be the existing one)
    // with moduleCount slots: active slots keep their data and take the new buffer ID, added slots
    // are free, the write index and trace counter restart at 0. InvalidSize when the existing
    // module array does not fit.
    static SHMErrorCodes::Values Create(TraceBufferData*& data, void* address,
                                        const TraceBufferData& existing, uint32_t moduleCount,
                                        uint32_t ringSize, int32_t bufferID, int64_t processID,
                                        TimestampMode::Type timestampMode, const char* hostName,
                                        const char* systemName, const char* applicationName,
                                        const char* subSystemName);

    // Points data at address; the caller checks version, initialisation and plausibility.
    static SHMErrorCodes::Values Attach(TraceBufferData*& data, void* address);

    // --- lock around slot allocation, flag registration and filter changes
    void Lock() { m_lock.Lock(); }
    void Lock(const char* file, unsigned line) { m_lock.Lock(file, line); }
    void Unlock() { m_lock.Unlock(); }
    const TraceIpcLock& GetLock() const { return m_lock; }

    // --- module slots (callers hold the lock around ActivateFirstFreeModule)
    // Activates the lowest free slot with this header's buffer ID; null when all are in use.
    TraceModuleData* ActivateFirstFreeModule(int32_t moduleID, const char* name, uint32_t filterState);
    // Lowest active slot with exactly this name / module ID, or null.
    TraceModuleData* FindModule(const char* name);
    const TraceModuleData* FindModule(const char* name) const;
    TraceModuleData* FindModule(int32_t moduleID);
    const TraceModuleData* FindModule(int32_t moduleID) const;

    TraceModuleData* GetModuleArray() { return reinterpret_cast<TraceModuleData*>(this + 1); }
    const TraceModuleData* GetModuleArray() const {
        return reinterpret_cast<const TraceModuleData*>(this + 1);
    }
    TraceModuleData* GetModule(unsigned index) {
        return index < GetSizeOfModuleArray() ? GetModuleArray() + index : nullptr;
    }
    const TraceModuleData* GetModule(unsigned index) const {
        return index < GetSizeOfModuleArray() ? GetModuleArray() + index : nullptr;
    }

    // --- atomic fields. The accessors are const because consumers load through them from
    // mappings they never change; only the producer and the buffer object store.
    std::atomic_ref<uint32_t> GetAtomicChangeCounter() const { return Ref(m_changeCounter); }
    // Publishes the header: the creator stores 1 last, after everything else is in place.
    std::atomic_ref<uint32_t> GetInitializedFlag() const { return Ref(m_initializedFlag); }
    std::atomic_ref<int32_t> GetAtomicNextFreeModuleID() const { return Ref(m_nextFreeModuleID); }
    std::atomic_ref<uint32_t> GetAtomicTotalTraceCounter() const { return Ref(m_totalTraceCounter); }
    std::atomic_ref<uint32_t> GetAtomicWriteIndex() const { return Ref(m_writeIndex); }
    // The total trace counter (low half) and the write index (high half) as one little-endian
    // word, so that a writer drawing a per-buffer ID reserves and numbers its entry in one atomic
    // step. Null when the header is not 8-byte aligned (a mapping always is).
    uint64_t* GetCounterAndWriteIndex() {
        void* word = &m_totalTraceCounter;
        return reinterpret_cast<uintptr_t>(word) % alignof(uint64_t) == 0 ? static_cast<uint64_t*>(word)
                                                                          : nullptr;
    }
    std::atomic_ref<uint8_t> GetRingBufferWasFilled() const { return Ref(m_ringBufferWasFilled); }
    std::atomic_ref<uint8_t> GetConsumerAttached() const { return Ref(m_consumerAttached); }
    void SetConsumerAttached(bool attached) {
        GetConsumerAttached().store(attached ? 1 : 0, std::memory_order_seq_cst);
    }

    bool GetGlobalTraceID() const {
        return (Ref(m_flagWord).load(std::memory_order_seq_cst) & GlobalTraceIDBit) != 0;
    }
    void SetGlobalTraceID(bool global);

    TimestampMode::Type GetTimestampMode() const {
        return static_cast<TimestampMode::Type>(Ref(m_timestampMode).load(std::memory_order_seq_cst));
    }
    void SetTimestampMode(TimestampMode::Type mode) {
        Ref(m_timestampMode).store(static_cast<uint8_t>(mode), std::memory_order_seq_cst);
    }

    // Profile records reuse the counter and write index words.
    uint32_t GetProfileSeverity() const {
        return GetAtomicTotalTraceCounter().load(std::memory_order_seq_cst);
    }
    void SetProfileSeverity(uint32_t severity) {
        GetAtomicTotalTraceCounter().store(severity, std::memory_order_seq_cst);
    }
    uint32_t GetProfileMaxModules() const { return GetAtomicWriteIndex().load(std::memory_order_seq_cst); }
    void SetProfileMaxModules(uint32_t count) {
        GetAtomicWriteIndex().store(count, std::memory_order_seq_cst);
    }

    // --- fields fixed at creation
    uint16_t GetVersionNumber() const { return m_versionNumber; }
    int32_t GetBufferID() const { return m_bufferID; }
    int64_t GetProcessID() const { return LoadInt64(m_processID); }
    int64_t GetCreatorProcessID() const { return LoadInt64(m_creatorProcessID); }
    bool GetReuseFilterState() const { return m_reuseFilterState != 0; }
    uint32_t GetRingBufferSize() const { return m_ringBufferSize; }
    uint32_t GetSizeOfModuleArray() const { return m_sizeOfModuleArray; }

    const char* GetSystemName() const { return Internal::ShmNameCString(m_systemName); }
    const char* GetHostName() const { return Internal::ShmNameCString(m_hostName); }
    const char* GetApplicationName() const { return Internal::ShmNameCString(m_applicationName); }
    const char* GetSubSystemName() const { return Internal::ShmNameCString(m_subSystemName); }
    void SetSystemName(const char* name) { Internal::CopyShmName(m_systemName, name); }
    void SetApplicationName(const char* name) { Internal::CopyShmName(m_applicationName, name); }

private:
    static constexpr uint16_t GlobalTraceIDBit = 1;

    TraceBufferData() noexcept = default;

    template <typename T>
    static std::atomic_ref<T> Ref(const T& field) {
        return std::atomic_ref<T>(const_cast<T&>(field));
    }
    static int64_t LoadInt64(const uint32_t (&words)[2]);
    static void StoreInt64(uint32_t (&words)[2], int64_t value);

    void SetNames(const char* hostName, const char* systemName, const char* applicationName,
                  const char* subSystemName);

    uint16_t m_versionNumber = 0;
    uint16_t m_flagWord = 0;
    uint32_t m_changeCounter = 0;
    TraceIpcLock m_lock;
    uint32_t m_initializedFlag = 0;
    int32_t m_bufferID = 0;
    uint32_t m_processID[2] = {0, 0};
    uint32_t m_creatorProcessID[2] = {0, 0};
    uint8_t m_timestampMode = 0;
    uint8_t m_reuseFilterState = 0;
    uint8_t m_ringBufferWasFilled = 0;
    uint8_t m_consumerAttached = 0;
    int32_t m_nextFreeModuleID = 0;
    uint32_t m_totalTraceCounter = 0;
    uint32_t m_writeIndex = 0;
    uint32_t m_ringBufferSize = 0;
    char m_systemName[Internal::ShmNameFieldSize] = {};
    char m_hostName[Internal::ShmNameFieldSize] = {};
    char m_applicationName[Internal::ShmNameFieldSize] = {};
    char m_subSystemName[Internal::ShmNameFieldSize] = {};
    uint32_t m_sizeOfModuleArray = 0;

    static void CheckLayout();
};

inline void TraceBufferData::CheckLayout() {
    static_assert(sizeof(TraceBufferData) == SizeWithoutModuleArray);
    static_assert(sizeof(TraceModuleData) == ModuleSlotSize);
    static_assert(alignof(TraceBufferData) == 4);
    static_assert(alignof(TraceModuleData) <= alignof(TraceBufferData) && SizeWithoutModuleArray % 4 == 0,
                  "module slots directly behind the header stay aligned");
    static_assert(offsetof(TraceBufferData, m_versionNumber) == 0);
    static_assert(offsetof(TraceBufferData, m_flagWord) == 2);
    static_assert(offsetof(TraceBufferData, m_changeCounter) == 4);
    static_assert(offsetof(TraceBufferData, m_lock) == 8);
    static_assert(offsetof(TraceBufferData, m_initializedFlag) == 32);
    static_assert(offsetof(TraceBufferData, m_bufferID) == 36);
    static_assert(offsetof(TraceBufferData, m_processID) == 40);
    static_assert(offsetof(TraceBufferData, m_creatorProcessID) == 48);
    static_assert(offsetof(TraceBufferData, m_timestampMode) == 56);
    static_assert(offsetof(TraceBufferData, m_reuseFilterState) == 57);
    static_assert(offsetof(TraceBufferData, m_ringBufferWasFilled) == 58);
    static_assert(offsetof(TraceBufferData, m_consumerAttached) == 59);
    static_assert(offsetof(TraceBufferData, m_nextFreeModuleID) == 60);
    static_assert(offsetof(TraceBufferData, m_totalTraceCounter) == 64);
    static_assert(offsetof(TraceBufferData, m_writeIndex) == 68);
    static_assert(offsetof(TraceBufferData, m_ringBufferSize) == 72);
    static_assert(
        std::endian::native == std::endian::little && std::atomic_ref<uint64_t>::is_always_lock_free,
        "GetCounterAndWriteIndex: the counter is the low half of one lock-free word");
    static_assert(offsetof(TraceBufferData, m_systemName) == 76);
    static_assert(offsetof(TraceBufferData, m_hostName) == 109);
    static_assert(offsetof(TraceBufferData, m_applicationName) == 142);
    static_assert(offsetof(TraceBufferData, m_subSystemName) == 175);
    static_assert(offsetof(TraceBufferData, m_sizeOfModuleArray) == 208);
    static_assert(std::is_standard_layout_v<TraceBufferData>);
    static_assert(std::is_trivially_copyable_v<TraceBufferData>);
    static_assert(std::atomic_ref<uint8_t>::is_always_lock_free);
    static_assert(std::atomic_ref<uint16_t>::is_always_lock_free);
    static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
    static_assert(std::atomic_ref<int32_t>::is_always_lock_free);
    static_assert(std::atomic_ref<uint16_t>::required_alignment == 2);
    static_assert(std::atomic_ref<uint32_t>::required_alignment <= alignof(TraceBufferData));
    // Even the largest module count a hostile header can hold keeps GetSize from wrapping.
    static_assert(GetSize(UINT32_MAX) > UINT32_MAX);
}

}  // namespace Tracing
