// One entry of the registry's buffer array, in shared memory (80 bytes).
//
//   offset  size  field
//        0     8  processID      i64  owner of the buffer; 0 when free
//        8     4  bufferID       i32  registered buffer; -1 (all bits set) = free
//       12    33  hostName       zero-terminated, at most 32 characters
//       45    33  subSystemName  zero-terminated, at most 32 characters
//       78     2  padding        never written
//
// Fixed-width little-endian fields only; no pointers, no size_t. Items change only under the
// registry header's lock. bufferID is the item's publication word: it is stored last on activation
// and first on deactivation, atomically, so that a scan without the lock never takes a half-written
// item for a registered one. The names are read under the lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Trace/Buffer/ShmName.h"

namespace Tracing {

class TraceRegistryDataItem {
public:
    static constexpr size_t MaxNameLength = Internal::ShmNameMaxLength;
    static constexpr int32_t FreeBufferID = -1;

    TraceRegistryDataItem() { Deactivate(); }

    // False when the item is in use already; names longer than 32 characters are cut.
    bool Activate(int32_t bufferID, int64_t processID, const char* host, const char* subsystem);
    void Deactivate();

    bool IsActivated() const { return static_cast<uint32_t>(GetBufferID()) != 0xFFFFFFFFu; }
    int32_t GetBufferID() const { return ReadOnly(m_bufferID).load(std::memory_order_seq_cst); }
    int64_t GetProcessID() const { return ReadOnly(m_processID).load(std::memory_order_seq_cst); }
    // "" for a field that another process left unterminated.
    const char* GetHostName() const { return Internal::ShmNameCString(m_hostName); }
    const char* GetSubSystemName() const { return Internal::ShmNameCString(m_subSystemName); }

private:
    // Atomic reads from const accessors; the field itself is never const in shared memory.
    template <typename T>
    static std::atomic_ref<T> ReadOnly(const T& field) {
        return std::atomic_ref<T>(const_cast<T&>(field));
    }
    static void CheckLayout();

    int64_t m_processID;
    int32_t m_bufferID;
    Internal::ShmNameField m_hostName;
    Internal::ShmNameField m_subSystemName;
    [[maybe_unused]] uint8_t m_padding[2];  // explicit tail padding of the shared record
};

static_assert(sizeof(TraceRegistryDataItem) == 80);
static_assert(std::is_standard_layout_v<TraceRegistryDataItem>);
static_assert(std::is_trivially_copyable_v<TraceRegistryDataItem>);
static_assert(std::atomic_ref<int32_t>::is_always_lock_free && std::atomic_ref<int64_t>::is_always_lock_free);

}  // namespace Tracing
