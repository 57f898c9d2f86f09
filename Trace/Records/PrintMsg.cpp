#include "Trace/Records/PrintMsg.h"

#include <iostream>
#include <string>

#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Time/TraceTimer.h"
#include "platform/Process.h"

namespace Tracing::Internal {

void PrintMsg(Severity::Type severity, const TraceMessage& message, bool print) {
    if (print) {
        const bool problem = severity < Severity::Info;
        std::string time;
        TraceTimer::FormatTime(TraceTimer::GetInstance().GetTimestamp(TimestampMode::OPTIMAL), time,
                               TimestampMode::OPTIMAL);
        const char* application = TraceConfigurationPrivate::GetInstance().GetApplicationName();
        // One write per line, so that lines of concurrent threads do not interleave.
        std::string line = application != nullptr ? application : "";
        line += " (";
        line += std::to_string(Platform::CurrentProcessId());
        line += "): ";
        line += time;
        line += ", ";
        if (problem) {
            line += Severity::Name(severity);
            line += ": ";
        }
        line += message.Format();
        line += '\n';
        std::ostream& out = problem ? std::cerr : std::cout;
        out << line << std::flush;
    }
    // The trace through the library's own engine joins once the engine exists.
}

}  // namespace Tracing::Internal
