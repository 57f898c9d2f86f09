#include "Trace/Buffer/TraceModuleInfo.h"

namespace Tracing {

const TraceFlagInfo* TraceModuleInfo::FindFlag(const std::string& name) const {
    for (const TraceFlagInfo& flag : Flags) {
        if (flag.Name == name)
            return &flag;
    }
    return nullptr;
}

const TraceFlagInfo* TraceModuleInfo::FindFlag(uint8_t bit) const {
    for (const TraceFlagInfo& flag : Flags) {
        if (flag.BitNo == bit)
            return &flag;
    }
    return nullptr;
}

}  // namespace Tracing
