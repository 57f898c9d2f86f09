// tail: live traces of the machine's buffers as log lines or CSV.
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "Trace/Records/Trace.h"
#include "tools/BatchedOutput.h"
#include "tools/Commands.h"
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

// Writes the traces that pass the module and severity filters. Each delivered batch reaches the
// output in one write.
class TraceWriter : public ITraceReaderEventListener {
public:
    TraceWriter(const TailOptions& options, const TraceFilter& filter, BatchedOutput& out, bool colour)
        : m_options(options), m_filter(filter), m_out(out), m_colour(colour) {}

    void OnNewTraces(std::vector<std::unique_ptr<Trace>>& traces) override {
        for (const auto& trace : traces) {
            Write(*trace);
        }
        m_out.Commit();
    }

private:
    void Write(const Trace& trace) {
        // Losses are reported on standard error by the follower.
        if (IsOverflowReport(trace) || !m_filter.Passes(trace)) {
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

    const TailOptions& m_options;
    const TraceFilter& m_filter;
    BatchedOutput& m_out;
    bool m_colour;
};

}  // namespace

int RunTail(const TailOptions& options) {
    TraceFilter filter;
    if (!filter.Init(options)) {
        return ExitUsage;
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
    TraceWriter writer(options, filter, out, colour);
    if (options.Csv) {
        Trace::GetTraceCsvHeader(out, Trace::CSV_SEPARATOR);
    } else {
        Trace::GetTraceHeader(out, Trace::LOG_SEPARATOR);
    }
    out.Commit();
    FollowOptions follow;
    follow.Duration = options.Duration;
    follow.Midway = options.Midway;
    follow.Stats = options.Stats;
    // Buffers present at the start are read after the requested trace ID, later ones from their start.
    follow.StartAfter = [&options](const TraceBuffer&, bool present) { return present ? options.Since : 0u; };
    const DeliveryStats stats = FollowTraces(options, follow, writer);
    std::cerr << "paxltrace: " << stats.Summary() << '\n';
    return out.Commit() ? ExitOk : ExitFailure;
}

void AddTailCommand(CLI::App& app, Action& action) {
    auto options = std::make_shared<TailOptions>();
    CLI::App* tail =
        app.add_subcommand("tail", "Print new traces of all or selected buffers as they are written");
    AddSelectionOptions(*tail, *options);
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
