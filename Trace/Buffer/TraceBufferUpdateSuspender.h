// Keeps a buffer's updater from reporting for a scope, e.g. while a consumer rebuilds its view of
// the buffer; the resume makes the next poll a full update.
#pragma once

namespace Tracing {

class TraceBuffer;

class TraceBufferUpdateSuspender {
public:
    explicit TraceBufferUpdateSuspender(TraceBuffer& buffer);
    ~TraceBufferUpdateSuspender();
    TraceBufferUpdateSuspender(const TraceBufferUpdateSuspender&) = delete;
    TraceBufferUpdateSuspender& operator=(const TraceBufferUpdateSuspender&) = delete;

    // Explicit forms; each does something only when the guard is not already in that state.
    void Suspend();
    void Resume();

private:
    TraceBuffer& m_buffer;
    bool m_suspended = false;
};

}  // namespace Tracing
