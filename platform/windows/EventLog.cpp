#include "platform/EventLog.h"

#include <windows.h>

#include <atomic>

namespace Tracing::Platform {
namespace {

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

void WriteSystemEventLog(const EventLogEntry& entry) {
    HANDLE handle = EventSource();
    if (handle == nullptr)
        return;
    const char* strings[3] = {entry.source.c_str(), entry.userLine.c_str(), entry.message.c_str()};
    ::ReportEventA(handle, entry.type == EventType::Error ? EVENTLOG_ERROR_TYPE : EVENTLOG_WARNING_TYPE, 0, 0,
                   nullptr, 3, 0, strings, nullptr);
}

}  // namespace Tracing::Platform
