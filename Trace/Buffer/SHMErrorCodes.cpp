#include "Trace/Buffer/SHMErrorCodes.h"

namespace Tracing::SHMErrorCodes {

const char* ToString(unsigned code) {
    switch (code) {
        case Success:
            return "SHM access successful";
        case NotRun:
            return "operation didn't run";
        case InvalidAddress:
            return "invalid address";
        case InvalidSize:
            return "invalid size";
        case VersionConflict:
            return "version conflict";
        case NotInitialized:
            return "not initialized";
        default:
            return "invalid SHM error code";
    }
}

}  // namespace Tracing::SHMErrorCodes
