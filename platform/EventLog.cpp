#include "platform/EventLog.h"

#include <mutex>
#include <utility>

namespace Tracing::Platform {
namespace {

std::mutex& SinkMutex() {
    static std::mutex mutex;
    return mutex;
}

EventLogSink& Sink() {
    static EventLogSink sink;
    return sink;
}

}  // namespace

void WriteEventLog(EventType type, const char* source, const char* userLine, const char* message) {
    EventLogEntry entry{type, source ? source : "", userLine ? userLine : "", message ? message : ""};
    {
        std::lock_guard<std::mutex> lock(SinkMutex());
        if (Sink()) {
            Sink()(entry);
            return;
        }
    }
    WriteSystemEventLog(entry);
}

EventLogSink SetEventLogSink(EventLogSink sink) {
    std::lock_guard<std::mutex> lock(SinkMutex());
    EventLogSink previous = std::move(Sink());
    Sink() = std::move(sink);
    return previous;
}

}  // namespace Tracing::Platform
