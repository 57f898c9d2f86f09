#include "Trace/Buffer/TraceBufferInfo.h"

#include "Trace/Buffer/TraceBuffer.h"

namespace Tracing {

bool TraceBufferInfo::IsServiceBuffer() const {
    return TraceBuffer::IsServiceID(BufferID);
}

}  // namespace Tracing
