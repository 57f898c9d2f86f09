#include "Trace/Buffer/TraceBufferUpdateSuspender.h"

#include "Trace/Buffer/TraceBuffer.h"

namespace Tracing {

TraceBufferUpdateSuspender::TraceBufferUpdateSuspender(TraceBuffer& buffer) : m_buffer(buffer) {
    Suspend();
}

TraceBufferUpdateSuspender::~TraceBufferUpdateSuspender() {
    Resume();
}

void TraceBufferUpdateSuspender::Suspend() {
    if (m_suspended)
        return;
    m_buffer.SuspendUpdate();
    m_suspended = true;
}

void TraceBufferUpdateSuspender::Resume() {
    if (!m_suspended)
        return;
    m_buffer.ResumeUpdate();
    m_suspended = false;
}

}  // namespace Tracing
