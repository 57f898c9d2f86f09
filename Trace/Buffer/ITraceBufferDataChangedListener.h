// Told about changes of a trace buffer's header that the buffer's updater found (another process's
// modules, filters, flags and names). Calls come from the updater thread with no lock held, so a
// listener may register or unregister listeners from inside a call.
#pragma once

#include <set>
#include <string>

namespace Tracing {

class TraceBuffer;

class ITraceBufferDataChangedListener {
public:
    virtual ~ITraceBufferDataChangedListener() = default;

    virtual void OnSystemNameChanged(TraceBuffer& /*buffer*/, const std::string& /*oldName*/,
                                     const std::string& /*newName*/) {}
    virtual void OnApplicationNameChanged(TraceBuffer& /*buffer*/, const std::string& /*oldName*/,
                                          const std::string& /*newName*/) {}
    virtual void OnModulesCreated(TraceBuffer& /*buffer*/, const std::set<int>& /*moduleIDs*/) {}
    virtual void OnModuleFiltersChanged(TraceBuffer& /*buffer*/, const std::set<int>& /*moduleIDs*/) {}
    // flags: all flag bits the module has registered now.
    virtual void OnFlagsRegistered(TraceBuffer& /*buffer*/, int /*moduleID*/, unsigned /*flags*/) {}
};

}  // namespace Tracing
