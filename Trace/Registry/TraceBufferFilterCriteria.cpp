#include "Trace/Registry/TraceBufferFilterCriteria.h"

#include <string_view>

#include "Trace/Buffer/TraceBuffer.h"

namespace Tracing {

TraceBufferFilterCriteria::TraceBufferFilterCriteria(const char* hostName) {
    if (hostName != nullptr)
        m_hostName = hostName;
}

bool TraceBufferFilterCriteria::Matches(const TraceBuffer& buffer) const {
    if (m_hostName && std::string_view(buffer.GetHostName()) != *m_hostName)
        return false;
    return m_processID == 0 || buffer.GetProcessID() == m_processID;
}

}  // namespace Tracing
