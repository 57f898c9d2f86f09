#include "platform/EventLog.h"

#include <syslog.h>

namespace Tracing::Platform {

void WriteSystemEventLog(const EventLogEntry& entry) {
    // The three strings of the Windows event entry, joined on one line.
    ::syslog(LOG_USER | (entry.type == EventType::Error ? LOG_ERR : LOG_WARNING), "%s: %s: %s",
             entry.source.c_str(), entry.userLine.c_str(), entry.message.c_str());
}

}  // namespace Tracing::Platform
