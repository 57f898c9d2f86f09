// Told once per poll that a trace buffer's write index moved, however many traces were written.
#pragma once

namespace Tracing {

class TraceBuffer;

class INewTracesListener {
public:
    virtual ~INewTracesListener() = default;

    virtual void OnNewTraces(TraceBuffer& buffer) = 0;
};

}  // namespace Tracing
