#include "Trace/Records/PrintMsg.h"

#include <iostream>
#include <string>

#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Records/ITraceRecordContext.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Time/TraceTimer.h"
#include "paxltrace.h"
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
    ITraceRecordContext* context = ITraceRecordContext::Get();
    TraceEngine* engine = context != nullptr ? context->GetOwnEngine() : nullptr;
    if (engine == nullptr || trace_engine_get_module_id(engine) == 0xFFFFFFFFu ||
        trace_engine_get_severity(engine) < (severity & 7u))
        return;
    // Deep copies: the write may shorten string parameters in place, and the message is const.
    ::TraceParameter parameters[TraceMessage::MaxParameters] = {};
    const uint8_t count = message.GetParameterCount();
    for (uint8_t i = 0; i < count; ++i)
        TraceParameter::Copy(parameters[i], message.GetParameters()[i]);
    trace_engine_write(engine, nullptr, 0, severity, message.GetText(), message.GetBinaryTraceID(), count,
                       parameters);
    for (uint8_t i = 0; i < count; ++i)
        TraceParameter::Clear(parameters[i]);
}

}  // namespace Tracing::Internal
