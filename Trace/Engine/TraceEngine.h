// The object behind the C interface's TraceEngine handle: a module slot of this process's trace
// buffer. Nothing here is owned: the registry owns the buffer (and through it the stream and the
// slot), which outlive every engine until the registry closes the buffer.
#pragma once

#include <cstdint>

#include "paxltrace.h"

namespace Tracing {
class TraceBuffer;
class TraceStream;
class TraceModuleData;
}  // namespace Tracing

struct TraceEngine {
    Tracing::TraceBuffer* buffer = nullptr;
    Tracing::TraceStream* stream = nullptr;
    Tracing::TraceModuleData* module = nullptr;
    int32_t moduleID = -1;
    // False: writes drop file and line.
    bool traceLocation = false;
};
