// The library's report of its own activity and problems.
//
// Switched on by TRACE_DIAG (1 or 2). Reports carry a category (one flag bit of the library's own
// "Core"/"Tracing" engine) and a severity; warnings carry no category. Callers test IsActive before
// building a message, so a switched-off diagnostics costs one load and one test.
#pragma once

#include <atomic>
#include <cstdint>

#include "Trace/Records/Severity.h"

namespace Tracing {

class TraceMessage;

namespace DiagnosticCategory {
enum Value : uint32_t {
    General = 16,
    Buffer = 32,
    Reader = 64,
    Notify = 128,
    Connection = 256,
    Heartbeat = 512,
    Profile = 1024,
};
}  // namespace DiagnosticCategory

class TraceDiagnostics {
public:
    static TraceDiagnostics& GetInstance();

    // True when reports of this category are wanted now.
    static bool IsActive(DiagnosticCategory::Value category) {
        return (ActiveCategories().load(std::memory_order_relaxed) & category) != 0;
    }

    void Report(DiagnosticCategory::Value category, Severity::Type severity, const TraceMessage& message);
    void Warning(const TraceMessage& message);

    TraceDiagnostics(const TraceDiagnostics&) = delete;
    TraceDiagnostics& operator=(const TraceDiagnostics&) = delete;

private:
    TraceDiagnostics();
    ~TraceDiagnostics();

    // Categories switched on; relaxed: a report that races a filter change may go either way.
    static std::atomic<uint32_t>& ActiveCategories();

    struct Private;
    Private* m_private;
};

}  // namespace Tracing
