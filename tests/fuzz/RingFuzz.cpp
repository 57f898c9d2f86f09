// Ring bytes from the fuzzer: the reader turns them into records and every record is formatted.
//
// Input: one flag byte, then the ring's content.
//   bit 0 clear (tidy): the content is a sequence of entries, each a u16 data length, 40 header
//         bytes and the data. The harness lays them out back to back and keeps each one readable:
//         Size from the data length, indicator set, the three sizes cut to fit the entry, IDs
//         rising (unless bit 2). Every input then reads without the reader's waits, so the
//         fuzzer spends its time on the entry contents.
//   bit 0 set (raw): the content is copied into the ring as it stands; the reader may wait,
//         resynchronise and report overflows.
//   bit 1: the ring was filled (the reader scans for the oldest intact entry).
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "Trace/Buffer/TraceBufferData.h"
#include "Trace/Buffer/TraceStream.h"

using namespace Tracing;

namespace {

constexpr uint32_t RingSize = 16384;
constexpr unsigned Modules = 2;

uint64_t FixedClock(TimestampMode::Type) {
    return 1000;
}

struct Ring {
    Ring() : memory((TraceBufferData::GetSize(Modules) + RingSize + TraceData::MaxSize) / 8 + 1) {
        TraceBufferData::Create(header, memory.data(), TraceBufferData::GetSize(Modules), RingSize, 1, 1,
                                TimestampMode::PRECISE, "h", "s", "a", "u");
        ring = reinterpret_cast<char*>(memory.data()) + TraceBufferData::GetSize(Modules);
        stream.reset(TraceStream::Create(Owner(), header, ring, nullptr, &FixedClock));
    }
    static const TraceBuffer* Owner() {
        static int tag;
        return reinterpret_cast<const TraceBuffer*>(&tag);
    }
    std::vector<uint64_t> memory;
    TraceBufferData* header = nullptr;
    char* ring = nullptr;
    std::unique_ptr<TraceStream> stream;
};

// Lays out tidy entries from position 0; returns the write index behind the last one.
uint32_t LayOutEntries(char* ring, const uint8_t* data, size_t size, bool keepIds) {
    uint32_t position = 0;
    uint32_t id = 0;
    while (size >= 2 + TraceData::SizeWithoutData && position < RingSize) {
        const uint32_t dataLength = (data[0] | (data[1] << 8)) % (TraceData::MaxDataSize + 1);
        data += 2;
        size -= 2;
        auto& entry = *reinterpret_cast<TraceData*>(ring + position);
        std::memcpy(&entry, data, TraceData::SizeWithoutData);
        data += TraceData::SizeWithoutData;
        size -= TraceData::SizeWithoutData;
        const size_t copied = std::min<size_t>(dataLength, size);
        std::memcpy(entry.GetData(), data, copied);
        data += copied;
        size -= copied;

        const uint32_t room = std::max((dataLength + 7) & ~7u, TraceData::BinaryTraceIdSize);
        entry.Size = TraceData::SizeWithoutData + room;
        entry.TraceIndicator = TraceData::TraceIndicatorValue;
        entry.SplitMarker = (entry.SplitMarker & 1) ? TraceData::Split : TraceData::NotSplit;
        entry.TraceID = keepIds && entry.TraceID != 0 ? entry.TraceID : ++id;
        // Cut the sizes to the entry: message (or binary ID), then location, then parameters.
        const uint32_t message = entry.MessageSize % (room + 1);
        const uint32_t left = room - (message == 0 ? TraceData::BinaryTraceIdSize : message);
        entry.MessageSize = static_cast<uint16_t>(message);
        uint32_t location = entry.LocationSize % (left + 1);
        if (location < 5)
            location = 0;
        entry.LocationSize = static_cast<uint8_t>(std::min(location, 255u));
        entry.ParameterSize = static_cast<uint16_t>(entry.ParameterSize % (left - entry.LocationSize + 1));
        position += entry.Size;
    }
    return position;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Ring ring;
    if (size < 1)
        return 0;
    const uint8_t flags = data[0];
    ++data;
    --size;

    const size_t ringBytes = RingSize + TraceData::MaxSize;
    std::memset(ring.ring, 0, ringBytes);
    uint32_t writeIndex;
    if (flags & 1) {
        std::memcpy(ring.ring, data, std::min(size, ringBytes));
        writeIndex = static_cast<uint32_t>(std::min<size_t>(size, RingSize)) & ~7u;
    } else {
        writeIndex = LayOutEntries(ring.ring, data, size, (flags & 4) != 0);
    }
    ring.header->GetRingBufferWasFilled().store((flags & 2) ? 1 : 0);
    ring.header->GetAtomicWriteIndex().store(writeIndex);
    ring.header->GetAtomicTotalTraceCounter().store(writeIndex / 40);

    TraceReaderInfo info;
    if (ring.stream->ConnectReader(info, 0) != TraceStream::Ok)
        __builtin_trap();
    std::vector<std::unique_ptr<Trace>> traces;
    bool overflow = false;
    ring.stream->Read(info, traces, overflow, 64);
    size_t total = 0;
    for (const auto& trace : traces)
        total += trace->GetFormattedMessage().size() + trace->GetFileName().size();
    return total == SIZE_MAX ? -1 : 0;
}
