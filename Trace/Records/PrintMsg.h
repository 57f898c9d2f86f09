// The console printer for the library's own messages.
#pragma once

#include "Trace/Records/Severity.h"

namespace Tracing {

class TraceMessage;

namespace Internal {

// Prints "<application> (<pid>): <time>, [<Severity>: ]<text>" to stderr (severities below Info)
// or stdout when print is set.
void PrintMsg(Severity::Type severity, const TraceMessage& message, bool print);

}  // namespace Internal
}  // namespace Tracing
