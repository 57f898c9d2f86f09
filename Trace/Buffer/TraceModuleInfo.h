// In-process description of one module slot of a trace buffer (a copy; nothing refers to shared
// memory).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Trace/Buffer/TraceFlagInfo.h"
#include "Trace/Records/Severity.h"

namespace Tracing {

struct TraceModuleInfo {
    int32_t BufferID = -1;
    int32_t ModuleID = -1;
    std::string Name;
    // The whole filter word: severity in bits 0-2, active flags in bits 4-31.
    uint32_t FilterState = 0;
    Severity::Type SeverityValue = Severity::None;
    // Bit b set when flag bit b is registered.
    uint32_t RegisteredFlags = 0;
    // The registered flags in slot order.
    std::vector<TraceFlagInfo> Flags;

    // The flag with exactly this name, or null.
    const TraceFlagInfo* FindFlag(const std::string& name) const;
    // The flag with this bit, or null.
    const TraceFlagInfo* FindFlag(uint8_t bit) const;

    bool operator==(const TraceModuleInfo&) const = default;
};

}  // namespace Tracing
