// tail: live traces of the machine's buffers as log lines or CSV.
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Reading/TraceReader.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Records/Trace.h"
#include "Trace/Registry/TraceRegistry.h"
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

// Writes the traces that pass the module and severity filters; runs on the updater thread.
class TraceWriter : public ITraceReaderEventListener {
public:
    TraceWriter(const TailOptions& options, const TraceFilter& filter, std::ostream& out, bool colour)
        : m_options(options), m_filter(filter), m_out(out), m_colour(colour) {}

    void OnNewTraces(std::vector<std::unique_ptr<Trace>>& traces) override {
        std::lock_guard lock(m_mutex);
        for (const auto& trace : traces) {
            Write(*trace);
        }
        m_out.flush();
    }

private:
    void Write(const Trace& trace) {
        // The ring reports lost traces as records of no module.
        if (IsOverflowReport(trace)) {
            std::cerr << "overflow in buffer " << trace.GetBufferID() << ": " << trace.GetFormattedMessage()
                      << std::endl;
            return;
        }
        if (!m_filter.Passes(trace)) {
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
    std::ostream& m_out;
    bool m_colour;
    std::mutex m_mutex;
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
    std::ostream& out = options.Output.empty() ? std::cout : file;
    const bool colour = options.Output.empty() && !options.Csv && StdoutIsTerminal();
    TraceWriter writer(options, filter, out, colour);
    if (options.Csv) {
        Trace::GetTraceCsvHeader(out, Trace::CSV_SEPARATOR);
    } else {
        Trace::GetTraceHeader(out, Trace::LOG_SEPARATOR);
    }
    FollowOptions follow;
    follow.Duration = options.Duration;
    follow.Midway = options.Midway;
    // Buffers present at the start are read after the requested trace ID, later ones from their start.
    follow.StartAfter = [&options](const TraceBuffer&, bool present) { return present ? options.Since : 0u; };
    FollowTraces(options, follow, writer);
    out.flush();
    return out ? ExitOk : ExitFailure;
}

void AddTailCommand(CLI::App& app, Action& action) {
    auto options = std::make_shared<TailOptions>();
    CLI::App* tail =
        app.add_subcommand("tail", "Print new traces of all or selected buffers as they are written");
    AddSelectionOptions(*tail, *options);
    tail->add_flag("--csv", options->Csv, "CSV instead of log lines");
    tail->add_option("--output,-o", options->Output, "Write to this file instead of standard output");
    tail->add_option("--since", options->Since, "Start after this trace ID in the buffers present at start");
    tail->add_option("--duration,-d", options->Duration, "Stop after this many seconds (default: Ctrl-C)")
        ->check(CLI::NonNegativeNumber);
    tail->callback([&action, options] { action = [options] { return RunTail(*options); }; });
}

}  // namespace Tracing::Tool
