// The system's application event log (Windows event log; syslog on POSIX).
//
// An entry carries three strings: the reporting source, a user line and the message. Tests
// install a sink to capture entries instead of writing them to the system log.
#pragma once

#include <functional>
#include <string>

namespace Tracing::Platform {

enum class EventType { Error = 1, Warning = 2 };

struct EventLogEntry {
    EventType type;
    std::string source;
    std::string userLine;
    std::string message;
};

void WriteEventLog(EventType type, const char* source, const char* userLine, const char* message);

// Replaces the system log by `sink` (an empty function restores the system log). Returns the
// previous sink.
using EventLogSink = std::function<void(const EventLogEntry&)>;
EventLogSink SetEventLogSink(EventLogSink sink);

// The system log itself, whatever the sink (each system's layer has its own).
void WriteSystemEventLog(const EventLogEntry& entry);

}  // namespace Tracing::Platform
