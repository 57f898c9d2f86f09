// Something the trace updater thread calls about every 50 ms.
#pragma once

namespace Tracing {

class IUpdaterItem {
public:
    virtual ~IUpdaterItem() = default;

    // Called on the updater thread only, never concurrently with itself.
    virtual void Update() = 0;
};

}  // namespace Tracing
