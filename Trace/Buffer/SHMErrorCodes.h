// Results of placing or attaching a shared-memory record (buffer header, registry header).
#pragma once

#include <cstdint>

namespace Tracing::SHMErrorCodes {

enum Values : uint32_t {
    Success = 0,
    NotRun = 1,
    InvalidAddress = 2,
    InvalidSize = 3,
    VersionConflict = 4,
    NotInitialized = 5,
};

// The text of a code; "invalid SHM error code" for values above 5.
const char* ToString(unsigned code);

}  // namespace Tracing::SHMErrorCodes
