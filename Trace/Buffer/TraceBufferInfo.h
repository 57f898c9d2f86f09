// In-process description of a trace buffer: the identity fields and names of its header and its
// counters at the moment it was taken (a copy; nothing refers to shared memory).
#pragma once

#include <cstdint>
#include <string>

#include "Trace/Time/TimestampMode.h"

namespace Tracing {

struct TraceBufferInfo {
    int32_t BufferID = -1;
    int64_t ProcessID = 0;
    int64_t CreatorProcessID = 0;
    // Empty for a buffer of this host.
    std::string HostName;
    // The host name under which the buffer is registered (may carry a ":k" suffix).
    std::string RegistryHostName;
    std::string SystemName;
    std::string ApplicationName;
    std::string SubSystemName;
    // The shared-memory name of the buffer.
    std::string BufferName;
    uint32_t RingBufferSize = 0;
    uint32_t SizeOfModuleArray = 0;
    // Active module slots.
    uint32_t ModuleCount = 0;
    TimestampMode::Type Mode = TimestampMode::NotSet;
    uint32_t WriteIndex = 0;
    // Traces written, counted only by a buffer that draws its own trace IDs (GlobalTraceID false).
    uint32_t TotalTraceCounter = 0;
    bool GlobalTraceID = false;
    bool ReuseFilterState = false;
    bool ConsumerAttached = false;
    bool Initialized = false;

    bool IsLocal() const { return HostName.empty(); }
    // Bit 30 of the buffer ID.
    bool IsServiceBuffer() const;

    bool operator==(const TraceBufferInfo&) const = default;
};

}  // namespace Tracing
