// A reader's cursor in the ring of one trace buffer (owned by the reader, not shared).
#pragma once

#include <cstdint>

namespace Tracing {

class TraceBuffer;

// What a cursor delivered and lost. Losses are counted from the gaps in the trace IDs.
struct TraceReadStatistics {
    uint64_t Delivered = 0;
    uint64_t Lost = 0;
    // Overflows and skipped incomplete entries, each reported by a synthetic trace.
    uint64_t Overflows = 0;
    uint64_t LargestGap = 0;

    TraceReadStatistics& operator+=(const TraceReadStatistics& other) {
        Delivered += other.Delivered;
        Lost += other.Lost;
        Overflows += other.Overflows;
        LargestGap = LargestGap > other.LargestGap ? LargestGap : other.LargestGap;
        return *this;
    }
};

struct TraceReaderInfo {
    // The buffer this cursor is connected to; null while not connected.
    const TraceBuffer* Buffer = nullptr;
    // Free-running ring position of the next entry to read (same scale as the write index).
    uint32_t ReadIndex = 0;
    // Highest TraceID read so far.
    uint32_t LastTraceID = 0;
    // Timestamp of the last whole trace read; keeps timestamps from running back by small amounts.
    uint64_t LastTimestamp = 0;
    // When true every Trace read carries the buffer (and fills its names from it).
    bool AttachBuffer = false;

    // --- kept by the stream between reads.
    // Every entry reserved at or after FloorPosition has an ID newer than FloorID (the ID counter
    // was read before the write index). Entries there with older IDs are left from an earlier lap.
    uint32_t FloorPosition = 0;
    uint32_t FloorID = 0;
    bool FloorValid = false;
    // The latest such sample, in force once the cursor has reached its position.
    uint32_t NextFloorPosition = 0;
    uint32_t NextFloorID = 0;
    bool NextFloorValid = false;
    // Since when (ms tick) the entry at StallPosition has stayed incomplete.
    uint32_t StallPosition = 0;
    uint32_t StallSince = 0;
    bool Stalled = false;
    // The highest ID when traces were last counted as lost, and the entries read since: a loss is
    // the IDs passed since then that no entry accounts for.
    uint32_t CountedTraceID = 0;
    uint32_t EntriesSinceCounted = 0;
    TraceReadStatistics Statistics;
};

}  // namespace Tracing
