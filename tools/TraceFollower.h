// Following the machine's buffers live: which buffers and traces to take, and the loop that runs a
// reader until its time is up or a stop is requested. Shared by tail, record, forward and export.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Trace/Reading/ITraceReaderEventListener.h"
#include "Trace/Records/Severity.h"
#include "tools/DeliveryStats.h"

namespace CLI {
class App;
}

namespace Tracing {
class Trace;
class TraceBuffer;
}  // namespace Tracing

namespace Tracing::Tool {

struct TraceSelection {
    std::vector<std::string> Buffers;  // IDs or subsystem names; empty = all
    int64_t ProcessID = 0;
    std::vector<std::string> Modules;
    std::string MinSeverity;  // empty = all
};

// The module and severity part of a selection, applied to each trace.
class TraceFilter {
public:
    // False, with a message on standard error, for an unknown severity.
    bool Init(const TraceSelection& selection);
    bool Passes(const Trace& trace) const;

private:
    std::vector<std::string> m_modules;
    Severity::Type m_minSeverity = Severity::Call;
};

// Adds the -b/-p/-m/-s options of a selection to a subcommand.
void AddSelectionOptions(CLI::App& command, TraceSelection& selection);

struct FollowOptions {
    double Duration = 0;  // seconds; 0 = until stopped
    // Called once at half the duration.
    std::function<void()> Midway;
    // The trace ID after which to start reading a selected buffer; present is true for buffers
    // that existed when following began. Called on the updater thread for later buffers.
    std::function<uint32_t(const TraceBuffer& buffer, bool present)> StartAfter;
    // The delivered and lost totals on standard error every second.
    bool Stats = false;
};

// Reads the new traces of the selected buffers on this thread and hands them to the listener
// until the duration passed or a stop was requested, then what the producers wrote until then.
// Each loss is reported on standard error with its count and how to avoid it; the totals are
// returned.
DeliveryStats FollowTraces(const TraceSelection& selection, const FollowOptions& options,
                           ITraceReaderEventListener& listener);

// True for the records by which the reader reports lost traces (they belong to no module).
bool IsOverflowReport(const Trace& trace);

}  // namespace Tracing::Tool
