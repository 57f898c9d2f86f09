// Timestamp modes and their names.
#pragma once

#include <cstdint>

namespace Tracing::TimestampMode {

enum Type : uint32_t {
    NotSet = 0,  // use the configured mode
    SEQ_ID = 1,
    FAST = 2,
    PRECISE = 3,
    OPTIMAL = 4,
};

// Case-insensitive; null and unknown names give NotSet.
Type FromString(const char* text);

// The name of modes 1-4, null for any other value.
const char* ToString(Type mode);

}  // namespace Tracing::TimestampMode
