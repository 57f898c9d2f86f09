// Header of one entry in a trace ring, followed by its data.
//
// Entry layout (little-endian; entries start 8-byte aligned relative to the ring start):
//   0   u32    Size            whole entry: 40 + data rounded up to a multiple of 8; <= 2048
//   4   u32    TraceID         never 0
//   8   u32    FirstPartID     0, or the TraceID of the first part of a split message
//   12  i32    ModuleID
//   16  u32[2] Timestamp       u64, low word first
//   24  u32    ThreadID
//   28  u32    SeverityMask    severity in bits 0-2, flags in bits 4-31
//   32  u16    MessageSize     message bytes with terminator; 0 = binary trace
//   34  u16    TraceIndicator  0 while written, 0x5555 once complete (the publication)
//   36  u16    ParameterSize   serialised parameters
//   38  u8     LocationSize    4-byte line + file name + terminator; 0 = none
//   39  u8     SplitMarker     0xF0 more parts follow, 0xAA whole trace or last part
//   40  ...    data            message (or 8-byte binary ID), parameters, location, padding
//
// The ring lies behind 212 + m * 1004 bytes of buffer header and module slots, so the ring start
// is only 4-byte aligned when m is even: the timestamp is kept as two 32-bit words.
//
// Writers own their reserved span and store the fields through atomic_ref, clearing the indicator
// first and setting it last with release order. Readers never use an entry in place: Load copies
// the header out (with acquire) and the copy is validated before any size is used.
// Fixed-width little-endian fields only; no pointers, no size_t.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace Tracing {

struct TraceData {
    static constexpr uint32_t SizeWithoutData = 40;
    static constexpr uint32_t MaxSize = 2048;
    static constexpr uint32_t MaxDataSize = MaxSize - SizeWithoutData;  // 2008
    // Parameters and location block together.
    static constexpr uint32_t MaxParameterSize = 2000;
    static constexpr uint16_t TraceIndicatorValue = 0x5555;
    static constexpr uint8_t Split = 0xF0;
    static constexpr uint8_t NotSplit = 0xAA;
    static constexpr uint32_t BinaryTraceIdSize = 8;

    uint32_t Size;
    uint32_t TraceID;
    uint32_t FirstPartID;
    int32_t ModuleID;
    uint32_t Timestamp[2];
    uint32_t ThreadID;
    uint32_t SeverityMask;
    uint16_t MessageSize;
    uint16_t TraceIndicator;
    uint16_t ParameterSize;
    uint8_t LocationSize;
    uint8_t SplitMarker;

    uint64_t GetTimestamp() const { return (static_cast<uint64_t>(Timestamp[1]) << 32) | Timestamp[0]; }
    void SetTimestamp(uint64_t value) {
        Timestamp[0] = static_cast<uint32_t>(value);
        Timestamp[1] = static_cast<uint32_t>(value >> 32);
    }

    char* GetData() { return reinterpret_cast<char*>(this) + SizeWithoutData; }
    const char* GetData() const { return reinterpret_cast<const char*>(this) + SizeWithoutData; }

    // Bytes the data area must hold for these sizes (the binary ID counted when MessageSize is 0).
    uint32_t GetRequiredDataSize() const {
        return (MessageSize != 0 ? MessageSize : BinaryTraceIdSize) + ParameterSize + LocationSize;
    }

    // --- writer side: the entry at `shared` belongs to the calling writer.

    // Marks the entry incomplete before any other field changes (see StoreHeader for the order).
    static void BeginWrite(TraceData& shared) {
        Ref(shared.TraceIndicator).store(0, std::memory_order_relaxed);
    }

    // Stores every header field except the indicator, the TraceID first. Each store is a release:
    // a reader whose acquire load sees any of them also sees the cleared indicator and the new
    // TraceID, so its re-check of the TraceID tells an overwritten entry. That is what a release
    // fence after BeginWrite gave, in a form the thread sanitizer understands; on x86 both are
    // plain moves.
    static void StoreHeader(TraceData& shared, const TraceData& fields) {
        constexpr auto order = std::memory_order_release;
        Ref(shared.TraceID).store(fields.TraceID, order);
        Ref(shared.Size).store(fields.Size, order);
        Ref(shared.FirstPartID).store(fields.FirstPartID, order);
        Ref(shared.ModuleID).store(fields.ModuleID, order);
        Ref(shared.Timestamp[0]).store(fields.Timestamp[0], order);
        Ref(shared.Timestamp[1]).store(fields.Timestamp[1], order);
        Ref(shared.ThreadID).store(fields.ThreadID, order);
        Ref(shared.SeverityMask).store(fields.SeverityMask, order);
        Ref(shared.MessageSize).store(fields.MessageSize, order);
        Ref(shared.ParameterSize).store(fields.ParameterSize, order);
        Ref(shared.LocationSize).store(fields.LocationSize, order);
        Ref(shared.SplitMarker).store(fields.SplitMarker, order);
    }

    // The publication: release, so that a reader whose acquire load sees 0x5555 also sees every
    // field and data byte stored before. A seq_cst store would add a full fence to every trace
    // and order nothing the readers rely on.
    static void Publish(TraceData& shared) {
        Ref(shared.TraceIndicator).store(TraceIndicatorValue, std::memory_order_release);
    }

    // --- reader side: the entry may be rewritten at any moment.

    // Copies the header out of the ring; the indicator first. Acquire throughout: the indicator
    // pairs with Publish, the fields with StoreHeader.
    static TraceData Load(const TraceData& shared) {
        constexpr auto order = std::memory_order_acquire;
        TraceData copy;
        copy.TraceIndicator = Ref(shared.TraceIndicator).load(order);
        copy.Size = Ref(shared.Size).load(order);
        copy.TraceID = Ref(shared.TraceID).load(order);
        copy.FirstPartID = Ref(shared.FirstPartID).load(order);
        copy.ModuleID = Ref(shared.ModuleID).load(order);
        copy.Timestamp[0] = Ref(shared.Timestamp[0]).load(order);
        copy.Timestamp[1] = Ref(shared.Timestamp[1]).load(order);
        copy.ThreadID = Ref(shared.ThreadID).load(order);
        copy.SeverityMask = Ref(shared.SeverityMask).load(order);
        copy.MessageSize = Ref(shared.MessageSize).load(order);
        copy.ParameterSize = Ref(shared.ParameterSize).load(order);
        copy.LocationSize = Ref(shared.LocationSize).load(order);
        copy.SplitMarker = Ref(shared.SplitMarker).load(order);
        return copy;
    }

    // The TraceID as it stands now, after everything read before (a reader's re-check that the
    // entry was not overwritten while it was copied). The data bytes are copied plainly, so only
    // a fence keeps those loads ahead of this one. The thread sanitizer does not model fences;
    // its builds keep the compiler's order with a signal fence, which on x86 (where loads are not
    // reordered with loads) is all the fence amounts to.
    static uint32_t ReloadTraceID(const TraceData& shared) {
#if defined(__SANITIZE_THREAD__)
        std::atomic_signal_fence(std::memory_order_acquire);
#else
        std::atomic_thread_fence(std::memory_order_acquire);
#endif
        return Ref(shared.TraceID).load(std::memory_order_relaxed);
    }

private:
    template <typename T>
    static std::atomic_ref<T> Ref(const T& field) {
        return std::atomic_ref<T>(const_cast<T&>(field));
    }

    static void CheckLayout();
};

inline void TraceData::CheckLayout() {
    static_assert(sizeof(TraceData) == SizeWithoutData);
    static_assert(alignof(TraceData) == 4, "the ring start is only 4-byte aligned");
    static_assert(offsetof(TraceData, Size) == 0);
    static_assert(offsetof(TraceData, TraceID) == 4);
    static_assert(offsetof(TraceData, FirstPartID) == 8);
    static_assert(offsetof(TraceData, ModuleID) == 12);
    static_assert(offsetof(TraceData, Timestamp) == 16);
    static_assert(offsetof(TraceData, ThreadID) == 24);
    static_assert(offsetof(TraceData, SeverityMask) == 28);
    static_assert(offsetof(TraceData, MessageSize) == 32);
    static_assert(offsetof(TraceData, TraceIndicator) == 34);
    static_assert(offsetof(TraceData, ParameterSize) == 36);
    static_assert(offsetof(TraceData, LocationSize) == 38);
    static_assert(offsetof(TraceData, SplitMarker) == 39);
    static_assert(std::is_standard_layout_v<TraceData>);
    static_assert(std::is_trivially_copyable_v<TraceData>);
    static_assert(std::atomic_ref<uint8_t>::is_always_lock_free);
    static_assert(std::atomic_ref<uint16_t>::is_always_lock_free);
    static_assert(std::atomic_ref<uint32_t>::is_always_lock_free);
    static_assert(std::atomic_ref<int32_t>::is_always_lock_free);
    static_assert(std::atomic_ref<uint32_t>::required_alignment <= alignof(TraceData));
    static_assert(MaxDataSize == 2008);
    static_assert(MaxSize % 8 == 0 && SizeWithoutData % 8 == 0, "entries keep 8-byte steps");
}

}  // namespace Tracing
