// tail: live traces of the machine's buffers as log lines or CSV.
#include <chrono>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Reading/TraceReader.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Records/Trace.h"
#include "Trace/Registry/TraceRegistry.h"
#include "tools/BatchedOutput.h"
#include "tools/Commands.h"
#include "tools/DeliveryStats.h"
#include "tools/ToolOs.h"

namespace Tracing::Tool {

namespace {

const char* ColourOf(unsigned severity) {
    switch (severity) {
        case Severity::Fatal:
        case Severity::Error:
            return "\033[31m";
        case Severity::Warning:
            return "\033[33m";
        case Severity::Info:
            return "";
        default:
            return "\033[2m";
    }
}

// Chooses the buffers to read and registers them with the reader as they appear.
class BufferSelector : public ITraceRegistryDataChangedListener {
public:
    BufferSelector(const TailOptions& options, TraceReader& reader) : m_options(options), m_reader(reader) {}

    void OnBuffersCreated(const std::unordered_set<int>& bufferIDs) override {
        for (int id : bufferIDs) {
            Consider(id);
        }
    }
    void OnBuffersDeleted(const std::unordered_set<int>&) override {}

    // Buffers present at the start are read after the requested trace ID, later ones from their start.
    void RegisterPresentBuffers() {
        std::vector<std::unique_ptr<TraceBufferInfo>> infos;
        TraceRegistry::GetInstance().ConsumerBrowse(infos);
        for (const auto& info : infos) {
            Consider(info->BufferID);
        }
        m_started.store(true, std::memory_order_seq_cst);
    }

private:
    void Consider(int id) {
        TraceBuffer* buffer = TraceRegistry::GetInstance().GetConsumerBuffer(id);
        if (buffer == nullptr || !Selected(*buffer)) {
            return;
        }
        m_reader.RegisterBuffer(id, m_started.load(std::memory_order_seq_cst) ? 0 : m_options.Since);
    }

    bool Selected(const TraceBuffer& buffer) const {
        if (buffer.GetProcessID() == CurrentProcess() ||
            (m_options.ProcessID != 0 && buffer.GetProcessID() != m_options.ProcessID)) {
            return false;
        }
        if (m_options.Buffers.empty()) {
            return true;
        }
        for (const std::string& which : m_options.Buffers) {
            if (which == buffer.GetSubSystemName() || which == std::to_string(buffer.GetBufferID())) {
                return true;
            }
        }
        return false;
    }

    const TailOptions& m_options;
    TraceReader& m_reader;
    std::atomic<bool> m_started{false};
};

void ReportLoss(const DeliveryStats::Loss& loss) {
    std::cerr << "paxltrace: overflow in buffer " << loss.BufferID << ": " << loss.Reason;
    if (loss.Lost != 0) {
        std::cerr << " " << loss.Lost << " traces lost (IDs " << loss.LastBefore + 1 << " to "
                  << loss.FirstAfter - 1 << ").";
    }
    std::cerr << " The reader fell behind the ring";
    if (const TraceBuffer* buffer = TraceRegistry::GetInstance().GetConsumerBuffer(loss.BufferID)) {
        std::cerr << " of " << buffer->GetRingBufferSize() << " bytes";
    }
    std::cerr << ": give the producer a larger one (environment TRACE_STREAM_SIZE, or the stream size of its "
                 "profile).\n";
}

// A live tail shows new traces within this time.
constexpr unsigned UpdateCycleMs = 50;

// Writes the traces that pass the module and severity filters. Each delivered batch reaches the
// output in one write.
class TraceWriter {
public:
    TraceWriter(const TailOptions& options, BatchedOutput& out, bool colour, Severity::Type minSeverity)
        : m_options(options), m_out(out), m_colour(colour), m_minSeverity(minSeverity) {}

    void OnNewTraces(std::vector<std::unique_ptr<Trace>>& traces) {
        std::lock_guard lock(m_mutex);
        for (const auto& trace : traces) {
            Write(*trace);
        }
        m_out.Commit();
    }

    // Reports the losses still open and returns the totals.
    std::string Finish() {
        std::lock_guard lock(m_mutex);
        m_stats.FlushPending(ReportLoss);
        return m_stats.Summary();
    }
    std::string Summary() {
        std::lock_guard lock(m_mutex);
        return m_stats.Summary();
    }

private:
    void Write(const Trace& trace) {
        DeliveryStats::Loss loss;
        if (m_stats.Observe(trace, loss)) {
            ReportLoss(loss);
        }
        // The ring reports lost traces as records of no module.
        if (trace.GetModuleID() == -1) {
            return;
        }
        if (trace.GetSeverity() > m_minSeverity || !ModuleSelected(trace)) {
            return;
        }
        if (m_options.Csv) {
            trace.WriteCsvToStream(m_out, Trace::CSV_SEPARATOR);
        } else if (!m_colour || *ColourOf(trace.GetSeverity()) == '\0') {
            trace.WriteToStream(m_out, Trace::LOG_SEPARATOR);
        } else {
            std::ostringstream line;
            trace.WriteToStream(line, Trace::LOG_SEPARATOR);
            std::string text = line.str();
            if (!text.empty() && text.back() == '\n') {
                text.pop_back();
            }
            m_out << ColourOf(trace.GetSeverity()) << text << "\033[0m\n";
        }
    }

    bool ModuleSelected(const Trace& trace) const {
        if (m_options.Modules.empty()) {
            return true;
        }
        for (const std::string& module : m_options.Modules) {
            if (module == trace.GetModuleName() || module == std::to_string(trace.GetModuleID())) {
                return true;
            }
        }
        return false;
    }

    const TailOptions& m_options;
    BatchedOutput& m_out;
    bool m_colour;
    Severity::Type m_minSeverity;
    std::mutex m_mutex;
    DeliveryStats m_stats;
};

}  // namespace

int RunTail(const TailOptions& options) {
    Severity::Type minSeverity = Severity::Call;
    if (!options.MinSeverity.empty()) {
        auto parsed = ParseSeverity(options.MinSeverity);
        if (!parsed) {
            std::cerr << "paxltrace: unknown severity '" << options.MinSeverity << "'\n";
            return ExitUsage;
        }
        minSeverity = *parsed;
    }
    std::ofstream file;
    if (!options.Output.empty()) {
        file.open(options.Output, std::ios::binary | std::ios::trunc);
        if (!file) {
            std::cerr << "paxltrace: cannot write " << options.Output << '\n';
            return ExitFailure;
        }
    }
    BatchedOutput out(options.Output.empty() ? std::cout : static_cast<std::ostream&>(file));
    const bool colour = options.Output.empty() && !options.Csv && StdoutIsTerminal();
    InstallStopHandler();

    TraceRegistry& registry = TraceRegistry::GetInstance();
    auto reader = std::make_unique<TraceReader>();
    reader->Create(0, false, true);
    BufferSelector selector(options, *reader);
    TraceWriter writer(options, out, colour, minSeverity);
    if (options.Csv) {
        Trace::GetTraceCsvHeader(out, Trace::CSV_SEPARATOR);
    } else {
        Trace::GetTraceHeader(out, Trace::LOG_SEPARATOR);
    }
    out.Commit();
    registry.RegisterDataChangedListener(&selector);
    TraceUpdateManager::GetInstance().WaitForAllUpdates();
    selector.RegisterPresentBuffers();

    // This thread reads, not the updater: one update reads at most TraceReadLimit traces of a
    // buffer, which caps a reader at 1 M traces/s; a reader that is behind reads again at once.
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    bool midwayDone = !options.Midway;
    double statsDue = 1;
    while (!StopRequested()) {
        const auto cycleStart = Clock::now();
        const double elapsed = std::chrono::duration<double>(cycleStart - start).count();
        if (options.Stats && elapsed >= statsDue) {
            std::cerr << "paxltrace: " << writer.Summary() << '\n';
            statsDue += 1;
        }
        if (options.Duration > 0 && elapsed >= options.Duration) {
            break;
        }
        if (!midwayDone && elapsed >= options.Duration / 2) {
            options.Midway();
            midwayDone = true;
        }
        std::vector<std::unique_ptr<Trace>> traces;
        reader->ReadTraces(traces);
        const bool behind = traces.size() >= TraceStream::TraceReadLimit;
        if (!traces.empty()) {
            writer.OnNewTraces(traces);
        }
        if (!behind) {
            const auto spent =
                std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - cycleStart);
            SleepUnlessStopped(
                spent.count() < UpdateCycleMs ? UpdateCycleMs - static_cast<unsigned>(spent.count()) : 1);
        }
    }

    registry.UnregisterDataChangedListener(&selector);
    // What the producers wrote up to now, bounded so that a busy one cannot keep us here.
    for (int round = 0; round < 64; ++round) {
        std::vector<std::unique_ptr<Trace>> rest;
        reader->ReadTraces(rest);
        if (rest.empty()) {
            break;
        }
        writer.OnNewTraces(rest);
    }
    reader.reset();
    std::cerr << "paxltrace: " << writer.Finish() << '\n';
    return out.Commit() ? ExitOk : ExitFailure;
}

void AddTailCommand(CLI::App& app, Action& action) {
    auto options = std::make_shared<TailOptions>();
    CLI::App* tail =
        app.add_subcommand("tail", "Print new traces of all or selected buffers as they are written");
    tail->add_option("--buffer,-b", options->Buffers, "Buffer ID or subsystem name (repeatable)");
    tail->add_option("--pid,-p", options->ProcessID, "Only buffers of this process");
    tail->add_option("--module,-m", options->Modules, "Module name or ID (repeatable)");
    tail->add_option("--severity,-s", options->MinSeverity, "Least severe severity shown, e.g. Warning");
    tail->add_flag("--csv", options->Csv, "CSV instead of log lines");
    tail->add_option("--output,-o", options->Output, "Write to this file instead of standard output");
    tail->add_option("--since", options->Since, "Start after this trace ID in the buffers present at start");
    tail->add_flag("--stats", options->Stats,
                   "Every second, show on standard error the traces delivered and lost so far (the totals "
                   "are always shown at the end)");
    tail->add_option("--duration,-d", options->Duration, "Stop after this many seconds (default: Ctrl-C)")
        ->check(CLI::NonNegativeNumber);
    tail->callback([&action, options] { action = [options] { return RunTail(*options); }; });
}

}  // namespace Tracing::Tool
