// What records need from the layers above them: the buffers that traces come from (for their
// names and flag texts) and the library's own engine (for printed messages). The runtime hands its
// implementation over when it is made; before that there are no buffers and no engine to find.
#pragma once

#include <atomic>
#include <cstdint>

struct TraceEngine;

namespace Tracing {

class TraceBuffer;

class ITraceRecordContext {
public:
    virtual ~ITraceRecordContext() = default;

    // Null when this process has no such buffer.
    virtual const TraceBuffer* FindProducerBuffer(int32_t bufferID) = 0;
    virtual const TraceBuffer* FindConsumerBuffer(int32_t bufferID) = 0;
    // Null before the library's own engine exists.
    virtual TraceEngine* GetOwnEngine() = 0;

    // Null until the runtime is made.
    static ITraceRecordContext* Get() { return s_context.load(std::memory_order_acquire); }
    static void Set(ITraceRecordContext* context) { s_context.store(context, std::memory_order_release); }

private:
    static inline std::atomic<ITraceRecordContext*> s_context{nullptr};
};

}  // namespace Tracing
