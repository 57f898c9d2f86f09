// The library's report of its own activity and problems.
//
// Switched on by TRACE_DIAG (1 or 2, read once per process). Reports carry a category (one flag
// bit of the library's own "Core"/"Tracing" engine) and a severity; warnings carry no category and
// are sent whenever the diagnostics are on. Text lines go to TRACE_DIAG_FILE when it is set, or to
// standard error with TRACE_DIAG=2.
//
// Life cycle: until the registry has set itself up there is no engine; IsActive then answers from
// the default categories and reports are kept (at most MaxStoredItems) for the engine. Initialize
// creates the engine, replays what was kept and from then on IsActive reads the engine's filter
// word, so a consumer switching a category in another process takes effect at once. Shutdown, run
// before the registry unmaps its buffers, leaves only the text lines.
//
// Callers test IsActive before building a message: switched off, that costs one load and one test.
#pragma once

#include <atomic>
#include <cstdint>

#include "Trace/Records/Severity.h"

namespace Tracing {

class TraceMessage;

namespace DiagnosticCategory {
// The values are the flag bits of the "Tracing" module (registered in this order: bits 4 to 10).
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
    // Reports kept before the engine exists; later ones are only counted.
    static constexpr unsigned MaxStoredItems = 100;
    static constexpr const char* BufferName = "Core";
    static constexpr const char* ModuleName = "Tracing";

    static TraceDiagnostics& GetInstance();

    // True when reports of this category are wanted now.
    static bool IsActive(DiagnosticCategory::Value category) {
        uint32_t* word = s_filterWord.load(std::memory_order_acquire);
        if (word == nullptr)
            return false;
        if (word == &s_unresolvedWord) [[unlikely]]
            return ResolveAndTest(category);
        // Relaxed: the word guards no other data; a report racing a filter change may go either way.
        return (std::atomic_ref<uint32_t>(*word).load(std::memory_order_relaxed) & category) != 0;
    }

    // Whether TRACE_DIAG switched the diagnostics on in this process.
    static bool IsSwitchedOn();

    void Report(DiagnosticCategory::Value category, Severity::Type severity, const TraceMessage& message);
    void Warning(const TraceMessage& message);

    // Creates the engine and replays the kept reports; the registry calls it once it can register
    // buffers. Does nothing when switched off or when it already ran.
    void Initialize();
    // From here on only text lines: the engine's buffer is about to be unmapped.
    void Shutdown();

    TraceDiagnostics(const TraceDiagnostics&) = delete;
    TraceDiagnostics& operator=(const TraceDiagnostics&) = delete;

private:
    TraceDiagnostics();
    ~TraceDiagnostics() = delete;

    [[gnu::cold]] static bool ResolveAndTest(DiagnosticCategory::Value category);
    // Reads TRACE_DIAG on first use; the word IsActive tests from then on (null: switched off).
    static uint32_t* Resolve();

    void Emit(uint32_t category, Severity::Type severity, const char* kind, const TraceMessage& message);

    // What IsActive tests: null when off, else the local word or the engine's filter word.
    static std::atomic<uint32_t*> s_filterWord;
    // s_filterWord points here until TRACE_DIAG was read.
    static uint32_t s_unresolvedWord;
    // The categories while there is no engine (defaults before, the last filter after it).
    static uint32_t s_localWord;

    struct Private;
    Private* m_private;
};

}  // namespace Tracing
