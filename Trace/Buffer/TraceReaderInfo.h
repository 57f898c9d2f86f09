// A reader's cursor in the ring of one trace buffer (owned by the reader, not shared).
#pragma once

#include <cstdint>

namespace Tracing {

class TraceBuffer;

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
};

}  // namespace Tracing
