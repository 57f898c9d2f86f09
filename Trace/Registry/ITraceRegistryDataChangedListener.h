// Told by the registry which buffers appeared and which went away. Calls come after the registry
// has released its locks, so a listener may call back into the registry.
#pragma once

#include <unordered_set>

namespace Tracing {

class ITraceRegistryDataChangedListener {
public:
    virtual ~ITraceRegistryDataChangedListener() = default;

    virtual void OnBuffersCreated(const std::unordered_set<int>& bufferIDs) = 0;
    virtual void OnBuffersDeleted(const std::unordered_set<int>& bufferIDs) = 0;
};

}  // namespace Tracing
