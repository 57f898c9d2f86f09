// TRACE_DIAG is read once per process, so every case runs in a child started with its own
// variables; the child checks what it can see from inside and the parent checks the file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceModuleInfo.h"
#include "Trace/Buffer/TraceReaderInfo.h"
#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Registry/TraceRegistry.h"
#include "paxltrace.h"
#include "tests/support/TestSupport.h"

using namespace Tracing;
using namespace Tracing::Test;

#define CHILD_CHECK(condition)                                                                 \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            return 1;                                                                          \
        }                                                                                      \
    } while (0)

namespace {

using Traces = std::vector<std::unique_ptr<Trace>>;

std::string TempPath(const std::string& what) {
    return "/tmp/paxl-diag-" + what + "-" + std::to_string(getpid()) + ".txt";
}

// The file's content; it is removed after reading when `remove` is set.
std::string ReadFile(const std::string& path, bool remove = false) {
    std::stringstream content;
    content << std::ifstream(path).rdbuf();
    if (remove)
        std::remove(path.c_str());
    return content.str();
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

size_t LineCount(const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// Runs `role` in a child that alone gets TRACE_DIAG=diag (unset when null) and TRACE_DIAG_FILE=file.
int RunChild(const char* diag, const std::string& file, const std::string& role,
             const std::vector<std::string>& args = {}) {
    std::remove(file.c_str());
    diag != nullptr ? setenv("TRACE_DIAG", diag, 1) : unsetenv("TRACE_DIAG");
    file.empty() ? unsetenv("TRACE_DIAG_FILE") : setenv("TRACE_DIAG_FILE", file.c_str(), 1);
    const pid_t child = SpawnChild(role, args);
    unsetenv("TRACE_DIAG");
    unsetenv("TRACE_DIAG_FILE");
    return WaitChild(child);
}

// Standard error of this process into a file, for a child that checks it is silent or not.
class StandardErrorToFile {
public:
    explicit StandardErrorToFile(const std::string& path) : m_path(path) {
        std::fflush(stderr);
        m_saved = dup(2);
        const int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        dup2(fd, 2);
        close(fd);
    }
    std::string Restore() {
        std::fflush(stderr);
        dup2(m_saved, 2);
        close(m_saved);
        return ReadFile(m_path, true);
    }

private:
    std::string m_path;
    int m_saved = -1;
};

TraceBuffer* CoreBuffer() {
    return TraceRegistry::GetInstance().GetProducerBuffer(
        static_cast<int32_t>(trace_engine_get_buffer_id(TraceRegistry::GetEngine())));
}

// Every trace of the "Tracing" module in the buffer, oldest first.
Traces DiagnosticTraces(TraceBuffer& core) {
    const int32_t module = core.GetModuleID("Tracing");
    TraceReaderInfo cursor;
    cursor.AttachBuffer = true;
    Traces traces;
    bool overflow = false;
    if (core.ConnectReader(cursor, 0) == TraceStream::Ok)
        core.Read(cursor, traces, overflow, 0);
    std::erase_if(traces, [module](const auto& trace) { return trace->GetModuleID() != module; });
    return traces;
}

// The severity mask of the trace with this text, or 0 without one.
uint32_t MaskOf(const Traces& traces, const std::string& text) {
    for (const auto& trace : traces) {
        if (trace->GetFormattedMessage() == text)
            return trace->GetSeverityMask();
    }
    return 0;
}

// The count of the lost-items report, or -1 without one.
long LostCount(const Traces& traces) {
    for (const auto& trace : traces) {
        const std::string& text = trace->GetFormattedMessage();
        if (Contains(text, " diagnostic items were lost before the diagnostics were initialised."))
            return trace->GetSeverityMask() == Severity::Warning ? std::atol(text.c_str()) : -2;
    }
    return -1;
}

constexpr uint32_t Word(DiagnosticCategory::Value category, Severity::Type severity) {
    return static_cast<uint32_t>(category) | static_cast<uint32_t>(severity);
}

// Reports in every category and a warning; true when any category was active.
bool ReportAll(const char* text) {
    TraceDiagnostics& diagnostics = TraceDiagnostics::GetInstance();
    bool active = false;
    for (uint32_t bit = DiagnosticCategory::General; bit <= DiagnosticCategory::Profile; bit <<= 1) {
        const auto category = static_cast<DiagnosticCategory::Value>(bit);
        active = active || TraceDiagnostics::IsActive(category);
        diagnostics.Report(category, Severity::Info, TraceMessage(text));
    }
    diagnostics.Warning(TraceMessage(text));
    return active;
}

}  // namespace

PAXLTRACE_CHILD_ROLE(SwitchedOff) {
    StandardErrorToFile capture(TempPath("stderr"));
    bool anyActive = TraceDiagnostics::IsSwitchedOn() || ReportAll("before");
    TraceEngine* engine = nullptr;
    const int created = trace_engine_create("App", "Mod", 0, 0, false, &engine, nullptr);
    anyActive = anyActive || ReportAll("after");
    TraceBuffer* core = CoreBuffer();
    CHILD_CHECK(capture.Restore().empty());
    CHILD_CHECK(!anyActive);
    CHILD_CHECK(created == TRACE_ENGINE_OK);
    // No engine is made at all.
    CHILD_CHECK(core != nullptr && core->GetModuleID("Tracing") < 0);
    trace_engine_destroy(engine);
    return 0;
}

TEST(TraceDiagnostics, SwitchedOffUnlessOneOrTwo) {
    const std::string file = TempPath("off");
    for (const char* value : {static_cast<const char*>(nullptr), "0", "3", "junk", ""}) {
        const char* shown = value != nullptr ? value : "unset";
        EXPECT_EQ(RunChild(value, file, "SwitchedOff"), 0) << shown;
        EXPECT_NE(access(file.c_str(), F_OK), 0) << "file written with TRACE_DIAG=" << shown;
    }
    std::remove(file.c_str());
}

// Reports before the registry exists are kept (100 of them) and replayed; then the engine's filter
// word decides.
PAXLTRACE_CHILD_ROLE(KeptReplayedAndFiltered) {
    TraceDiagnostics& diagnostics = TraceDiagnostics::GetInstance();
    CHILD_CHECK(TraceDiagnostics::IsActive(DiagnosticCategory::General));
    CHILD_CHECK(TraceDiagnostics::IsActive(DiagnosticCategory::Profile));
    CHILD_CHECK(!TraceDiagnostics::IsActive(DiagnosticCategory::Heartbeat));
    for (int i = 0; i < 150; ++i)
        diagnostics.Report(DiagnosticCategory::General, Severity::Info, TraceMessage("early %1").Add(i));
    diagnostics.Warning(TraceMessage("early warning"));

    TraceBuffer* core = CoreBuffer();
    CHILD_CHECK(core != nullptr);
    TraceModuleInfo module;
    CHILD_CHECK(core->GetModuleInfo("Tracing", module));
    const char* const names[] = {"General",    "Buffer",    "Reader", "Notify",
                                 "Connection", "Heartbeat", "Profile"};
    CHILD_CHECK(module.Flags.size() == 7);
    for (unsigned i = 0; i < 7; ++i)
        CHILD_CHECK(module.Flags[i].BitNo == 4 + i && module.Flags[i].Name == names[i] &&
                    module.Flags[i].Active == (i != 5));

    Traces traces = DiagnosticTraces(*core);
    CHILD_CHECK(traces.size() > 100);
    for (int i = 0; i < 100; ++i)
        CHILD_CHECK(traces[i]->GetFormattedMessage() == "early " + std::to_string(i) &&
                    traces[i]->GetSeverityMask() == Word(DiagnosticCategory::General, Severity::Info) &&
                    traces[i]->GetThreadID() == trace_current_thread_id());
    // Our last 50 and the warning at least, and never more than went into the file before it.
    const long lost = LostCount(traces);
    CHILD_CHECK(lost >= 51);
    CHILD_CHECK(static_cast<size_t>(lost) + 100 <= LineCount(ReadFile(std::getenv("TRACE_DIAG_FILE"))));
    CHILD_CHECK(MaskOf(traces, "early warning") == 0);

    diagnostics.Report(DiagnosticCategory::Buffer, Severity::Verbose,
                       TraceMessage("live %1 of %2").Add(7).Add("seven"));
    diagnostics.Report(DiagnosticCategory::Heartbeat, Severity::Info, TraceMessage("beat 1"));
    diagnostics.Warning(TraceMessage("live warning"));
    // Switched in the shared filter word, as a consumer in another process would.
    CHILD_CHECK(core->SetFlag(module.ModuleID, false, 5));
    CHILD_CHECK(!TraceDiagnostics::IsActive(DiagnosticCategory::Buffer));
    diagnostics.Report(DiagnosticCategory::Buffer, Severity::Info, TraceMessage("silenced"));
    CHILD_CHECK(trace_set_flag("Core", "Tracing", "Heartbeat", true));
    CHILD_CHECK(TraceDiagnostics::IsActive(DiagnosticCategory::Heartbeat));
    diagnostics.Report(DiagnosticCategory::Heartbeat, Severity::Info, TraceMessage("beat 2"));
    // Warnings pass whatever the flags say.
    CHILD_CHECK(core->SetSeverityMask(module.ModuleID, 0));
    diagnostics.Warning(TraceMessage("warning without flags"));

    traces = DiagnosticTraces(*core);
    CHILD_CHECK(MaskOf(traces, "live 7 of seven") == Word(DiagnosticCategory::Buffer, Severity::Verbose));
    CHILD_CHECK(MaskOf(traces, "live warning") == Severity::Warning);
    CHILD_CHECK(MaskOf(traces, "beat 2") == Word(DiagnosticCategory::Heartbeat, Severity::Info));
    CHILD_CHECK(MaskOf(traces, "warning without flags") == Severity::Warning);
    CHILD_CHECK(MaskOf(traces, "beat 1") == 0 && MaskOf(traces, "silenced") == 0);
    // Sent with its parameters, not as a flattened text.
    CHILD_CHECK(std::any_of(traces.begin(), traces.end(),
                            [](const auto& t) { return t->GetMessageString() == "live %1 of %2"; }));
    return 0;
}

// Threads report while the registry sets itself up: nothing is lost uncounted, nothing reordered.
PAXLTRACE_CHILD_ROLE(ConcurrentReports) {
    constexpr int Threads = 4;
    // Bounded so that the ring keeps them all.
    constexpr int MostBeforeReady = 2000;
    constexpr int AfterReady = 200;
    std::atomic<int> started{0};
    std::atomic<bool> ready{false};
    int made[Threads] = {};
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t) {
        threads.emplace_back([t, &started, &ready, &made] {
            started.fetch_add(1);
            int i = 0;
            for (int after = 0; after < AfterReady;) {
                if (ready.load()) {
                    ++after;
                } else if (i >= MostBeforeReady) {
                    std::this_thread::yield();
                    continue;
                } else {
                    std::this_thread::sleep_for(std::chrono::microseconds(20));
                }
                TraceDiagnostics::GetInstance().Report(DiagnosticCategory::Reader, Severity::Debug,
                                                       TraceMessage("thread %1 item %2").Add(t).Add(i++));
            }
            made[t] = i;
        });
    }
    WaitFor([&] { return started.load() == Threads; }, 10000);
    TraceBuffer* core = CoreBuffer();
    ready.store(true);
    for (std::thread& thread : threads)
        thread.join();
    CHILD_CHECK(core != nullptr);
    int total = 0;
    for (int count : made)
        total += count;

    const Traces traces = DiagnosticTraces(*core);
    int seen = 0;
    int next[Threads] = {};
    for (const auto& trace : traces) {
        int t = -1;
        int i = -1;
        if (std::sscanf(trace->GetFormattedMessage().c_str(), "thread %d item %d", &t, &i) != 2)
            continue;
        CHILD_CHECK(t >= 0 && t < Threads && i >= next[t]);
        next[t] = i + 1;
        ++seen;
    }
    CHILD_CHECK(seen + std::max(LostCount(traces), 0L) >= total);
    CHILD_CHECK(seen >= Threads * AfterReady);
    CHILD_CHECK(LineCount(ReadFile(std::getenv("TRACE_DIAG_FILE"))) >= static_cast<size_t>(total));
    return 0;
}

TEST(TraceDiagnostics, EarlyReportsAreKeptOrCountedAndTheFilterWordDecides) {
    const std::string file = TempPath("on");
    EXPECT_EQ(RunChild("1", file, "KeptReplayedAndFiltered"), 0);
    const std::string text = ReadFile(file, true);
    // Every report reaches the file when it is made, kept or not.
    for (const char* line : {") [General] Info: early 0\n", ") [General] Info: early 149\n",
                             ") [Warning] Warning: early warning\n", ") [Buffer] Verbose: live 7 of seven\n",
                             ") [Heartbeat] Info: beat 2\n", "PAXLtrace ("})
        EXPECT_TRUE(Contains(text, line)) << line << text;
    EXPECT_FALSE(Contains(text, "beat 1") || Contains(text, "silenced"));

    EXPECT_EQ(RunChild("2", file, "ConcurrentReports"), 0);
    std::remove(file.c_str());
}

// Without a file: TRACE_DIAG=2 prints the lines, TRACE_DIAG=1 only traces.
PAXLTRACE_CHILD_ROLE(Console) {
    const bool expectLines = args.at(0) == "lines";
    StandardErrorToFile capture(TempPath("console"));
    TraceBuffer* core = CoreBuffer();
    TraceDiagnostics::GetInstance().Report(DiagnosticCategory::Profile, Severity::Error,
                                           TraceMessage("console %1").Add(1));
    const std::string printed = capture.Restore();
    CHILD_CHECK(core != nullptr);
    const Traces traces = DiagnosticTraces(*core);
    CHILD_CHECK(MaskOf(traces, "console 1") != 0);
    // Reported while the diagnostics made their own engine, and kept for it.
    CHILD_CHECK(MaskOf(traces, "Engine successfully created: 'Core.Tracing' (Trace location: false).") != 0);
    CHILD_CHECK(LostCount(traces) == -1);
    const std::string line = "PAXLtrace (" + std::to_string(getpid()) + ") [Profile] Error: console 1\n";
    CHILD_CHECK(expectLines ? Contains(printed, line) : printed.empty());
    return 0;
}

// Reports from destructors that run after the registry's must not reach its unmapped buffers.
PAXLTRACE_CHILD_ROLE(ReportsAtExit) {
    struct LateReporter {
        ~LateReporter() {
            TraceDiagnostics::GetInstance().Report(DiagnosticCategory::Buffer, Severity::Info,
                                                   TraceMessage("after the registry"));
            TraceDiagnostics::GetInstance().Warning(TraceMessage("warning after the registry"));
        }
    };
    static LateReporter reporter;
    TraceEngine* engine = nullptr;
    CHILD_CHECK(trace_engine_create("App", "Mod", 0, 0, false, &engine, nullptr) == TRACE_ENGINE_OK);
    trace_engine_destroy(engine);
    return 0;
}

TEST(TraceDiagnostics, ConsoleLinesAndReportsAtExit) {
    EXPECT_EQ(RunChild("2", "", "Console", {"lines"}), 0);
    EXPECT_EQ(RunChild("1", "", "Console", {"none"}), 0);

    const std::string file = TempPath("exit");
    EXPECT_EQ(RunChild("1", file, "ReportsAtExit"), 0);
    const std::string text = ReadFile(file, true);
    EXPECT_TRUE(Contains(text, ") [Buffer] Info: after the registry\n")) << text;
    EXPECT_TRUE(Contains(text, ") [Warning] Warning: warning after the registry\n"));

    // A file that cannot be opened is said once on standard error; the rest still works.
    EXPECT_EQ(RunChild("1", "/nonexistent-dir/diag.txt", "ReportsAtExit"), 0);
}
