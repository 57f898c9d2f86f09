// In-process description of one named flag of a module (a copy; nothing refers to shared memory).
#pragma once

#include <cstdint>
#include <string>

namespace Tracing {

struct TraceFlagInfo {
    // Flag bit 4-31; 0 in an empty description.
    uint8_t BitNo = 0;
    std::string Name;
    // Whether the bit is set in the module's filter state.
    bool Active = false;

    bool operator==(const TraceFlagInfo&) const = default;
};

}  // namespace Tracing
