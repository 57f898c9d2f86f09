#include "platform/EventLog.h"

#include <windows.h>

#include <atomic>
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

// Registered once and kept for the life of the process; a failed registration is tried again on
// the next report. Two threads racing here at worst register twice.
HANDLE EventSource() {
    static std::atomic<HANDLE> source{nullptr};
    HANDLE handle = source.load(std::memory_order_acquire);
    if (handle == nullptr) {
        handle = ::RegisterEventSourceA(nullptr, "Application");
        if (handle != nullptr)
            source.store(handle, std::memory_order_release);
    }
    return handle;
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
    HANDLE handle = EventSource();
    if (handle == nullptr)
        return;
    const char* strings[3] = {entry.source.c_str(), entry.userLine.c_str(), entry.message.c_str()};
    ::ReportEventA(handle, type == EventType::Error ? EVENTLOG_ERROR_TYPE : EVENTLOG_WARNING_TYPE, 0, 0,
                   nullptr, 3, 0, strings, nullptr);
}

EventLogSink SetEventLogSink(EventLogSink sink) {
    std::lock_guard<std::mutex> lock(SinkMutex());
    EventLogSink previous = std::move(Sink());
    Sink() = std::move(sink);
    return previous;
}

}  // namespace Tracing::Platform
