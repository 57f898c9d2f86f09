// The one owner of the library's process-wide state.
//
// Made on first use, it makes the configuration, diagnostics, timer, update manager, profile
// handler and registry in the order in which they need each other, hands the lower layers what
// they need of the upper ones (the registry hands down its block's counters and time reference
// itself), and is never destroyed: a host may trace from atexit handlers, from the destructors of
// its own static objects or from threads that outlive main, in any order with the library's own
// end. At exit only two things happen: the updater thread is stopped, and the names of this
// process's shared memory go as if it had detached (a POSIX name stays until it is unlinked),
// while the memory itself stays mapped until the process is gone. Calls made after that find no
// new buffers and create none; writes through existing engines still land in mapped memory.
#pragma once

#include <atomic>

namespace Tracing {

class TraceRegistry;

class TraceRuntime {
public:
    static TraceRuntime& Get();

    // Not yet set up: TraceRegistry::GetInstance finishes that.
    TraceRegistry& Registry() { return *m_registry; }

    // True once the exit steps have run.
    static bool IsShutDown() { return s_shutDown.load(std::memory_order_seq_cst); }

    TraceRuntime(const TraceRuntime&) = delete;
    TraceRuntime& operator=(const TraceRuntime&) = delete;

private:
    class RecordContext;
    class ExitSteps;

    TraceRuntime();
    ~TraceRuntime() = delete;

    TraceRegistry* m_registry;
    static inline std::atomic<bool> s_shutDown{false};
};

}  // namespace Tracing
