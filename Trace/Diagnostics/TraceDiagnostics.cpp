#include "Trace/Diagnostics/TraceDiagnostics.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "Trace/Records/TraceMessage.h"
#include "Trace/Records/TraceParameter.h"
#include "platform/Process.h"

namespace Tracing {
namespace {

// Every category but Heartbeat, which is too chatty to be on by default.
constexpr uint32_t kDefaultCategories = DiagnosticCategory::General | DiagnosticCategory::Buffer |
                                        DiagnosticCategory::Reader | DiagnosticCategory::Notify |
                                        DiagnosticCategory::Connection | DiagnosticCategory::Profile;

bool SwitchedOnByEnvironment() {
    const char* value = std::getenv("TRACE_DIAG");
    int level = 0;
    return value != nullptr && std::sscanf(value, "%d", &level) == 1 && (level == 1 || level == 2);
}

const char* CategoryName(DiagnosticCategory::Value category) {
    switch (category) {
        case DiagnosticCategory::General:
            return "General";
        case DiagnosticCategory::Buffer:
            return "Buffer";
        case DiagnosticCategory::Reader:
            return "Reader";
        case DiagnosticCategory::Notify:
            return "Notify";
        case DiagnosticCategory::Connection:
            return "Connection";
        case DiagnosticCategory::Heartbeat:
            return "Heartbeat";
        case DiagnosticCategory::Profile:
            return "Profile";
    }
    return "Unknown";
}

}  // namespace

struct TraceDiagnostics::Private {
    std::mutex mutex;
    FILE* file = nullptr;
};

std::atomic<uint32_t>& TraceDiagnostics::ActiveCategories() {
    static std::atomic<uint32_t> active{SwitchedOnByEnvironment() ? kDefaultCategories : 0u};
    return active;
}

TraceDiagnostics& TraceDiagnostics::GetInstance() {
    // Never destroyed: the updater thread and exit-time destructors may still report.
    static TraceDiagnostics* const instance = new TraceDiagnostics;
    return *instance;
}

TraceDiagnostics::TraceDiagnostics() : m_private(new Private) {
    if (const char* path = std::getenv("TRACE_DIAG_FILE"); path != nullptr && *path != '\0') {
        m_private->file = std::fopen(path, "a");
    }
}

TraceDiagnostics::~TraceDiagnostics() {
    if (m_private->file != nullptr)
        std::fclose(m_private->file);
    delete m_private;
}

namespace {

void WriteLine(FILE* file, const char* kind, Severity::Type severity, const TraceMessage& message) {
    std::string text;
    if (message.HasFormattedText()) {
        text = message.GetFormattedText();
    } else {
        TraceParameter::FormatString(text, message.GetText(), message.GetBinaryTraceID(),
                                     message.GetParameterCount(), message.GetParameters());
    }
    std::fprintf(file, "PAXLtrace (%lld) [%s] %s: %s\n", static_cast<long long>(Platform::CurrentProcessId()),
                 kind, Severity::Name(severity), text.c_str());
    std::fflush(file);
}

}  // namespace

void TraceDiagnostics::Report(DiagnosticCategory::Value category, Severity::Type severity,
                              const TraceMessage& message) {
    if (!IsActive(category))
        return;
    std::lock_guard<std::mutex> lock(m_private->mutex);
    WriteLine(m_private->file != nullptr ? m_private->file : stderr, CategoryName(category), severity,
              message);
}

void TraceDiagnostics::Warning(const TraceMessage& message) {
    if (ActiveCategories().load(std::memory_order_relaxed) == 0)
        return;
    std::lock_guard<std::mutex> lock(m_private->mutex);
    WriteLine(m_private->file != nullptr ? m_private->file : stderr, "Warning", Severity::Warning, message);
}

}  // namespace Tracing
