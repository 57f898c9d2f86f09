#include "platform/EventLog.h"

#include <syslog.h>

#include <mutex>
#include <string>

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
    // The three strings of the Windows event entry, joined on one line.
    ::syslog(LOG_USER | (type == EventType::Error ? LOG_ERR : LOG_WARNING), "%s: %s: %s",
             entry.source.c_str(), entry.userLine.c_str(), entry.message.c_str());
}

EventLogSink SetEventLogSink(EventLogSink sink) {
    std::lock_guard<std::mutex> lock(SinkMutex());
    EventLogSink previous = std::move(Sink());
    Sink() = std::move(sink);
    return previous;
}

}  // namespace Tracing::Platform
