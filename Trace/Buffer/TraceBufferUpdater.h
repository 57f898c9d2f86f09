// Polls one trace buffer's header for changes made elsewhere. The updater thread calls Update about
// every 50 ms: a moved change counter (or a pending resume) runs the buffer's full comparison, a
// moved write index tells the new-traces listeners.
//
// The mutex guards the fields only; it is never held while the buffer compares or listeners run,
// so a listener may suspend, resume or change filters from inside its call.
#pragma once

#include <cstdint>
#include <mutex>

#include "Trace/Reading/IUpdaterItem.h"

namespace Tracing {

class TraceBuffer;

class TraceBufferUpdater : public IUpdaterItem {
public:
    // Starts from the header's present counters and registers with the update manager.
    explicit TraceBufferUpdater(TraceBuffer& buffer);
    // Returns once the updater thread no longer calls this item; the caller must not hold a lock
    // that the buffer's Update takes.
    ~TraceBufferUpdater() override;
    TraceBufferUpdater(const TraceBufferUpdater&) = delete;
    TraceBufferUpdater& operator=(const TraceBufferUpdater&) = delete;

    void Update() override;
    void Suspend();
    // The next poll runs a full update even if nothing moved: changes may have been missed meanwhile.
    void Resume();
    // This process's own change: moves the header's counter for other processes, but not for us.
    void IncHeaderChangeCounter();

private:
    TraceBuffer& m_buffer;
    std::mutex m_mutex;
    bool m_suspended = false;
    bool m_pending = false;
    uint32_t m_lastChangeCounter = 0;
    uint32_t m_lastWriteIndex = 0;
};

}  // namespace Tracing
