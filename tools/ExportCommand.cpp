// export: traces as trace-event JSON for timeline viewers, from a log or CSV file or live.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "Trace/Records/Trace.h"
#include "tools/Commands.h"
#include "tools/TraceFollower.h"
#include "tools/TraceText.h"

namespace Tracing::Tool {

namespace {

struct ExportOptions : TraceSelection {
    std::string Chrome;
    std::string Input;
    std::string From;
    double Duration = 0;
};

void AppendJsonString(std::string& out, std::string_view text) {
    out += '"';
    for (char c : ValidUtf8(text)) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
            out += escaped;
        } else {
            out += c;
        }
    }
    out += '"';
}

// One instant event per trace; the names of processes and threads follow as metadata events.
class TraceEventWriter : public ITraceReaderEventListener {
public:
    TraceEventWriter(std::ostream& out, const TraceFilter& filter) : m_out(out), m_filter(filter) {
        m_out << "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[";
    }

    void OnNewTraces(std::vector<std::unique_ptr<Trace>>& traces) override {
        std::lock_guard lock(m_mutex);
        std::string text;
        for (const auto& trace : traces) {
            trace->ExtractOverrideValuesFromMessage();
            if (IsOverflowReport(*trace) || m_filter.Passes(*trace)) {
                Add(*trace, text);
            }
        }
        m_out << text;
    }

    // Closes the document; false when writing failed.
    bool Finish() {
        std::string text;
        for (const auto& [pid, name] : m_processes) {
            Separate(text);
            text += "{\"ph\":\"M\",\"name\":\"process_name\",\"pid\":" + std::to_string(pid) +
                    ",\"args\":{\"name\":";
            AppendJsonString(text, name);
            text += "}}";
        }
        for (const auto& [pid, tid] : m_threads) {
            char name[32];
            std::snprintf(name, sizeof name, "thread 0x%x", tid);
            Separate(text);
            text += "{\"ph\":\"M\",\"name\":\"thread_name\",\"pid\":" + std::to_string(pid) +
                    ",\"tid\":" + std::to_string(tid) + ",\"args\":{\"name\":\"" + name + "\"}}";
        }
        m_out << text << "\n]}\n";
        m_out.flush();
        return static_cast<bool>(m_out);
    }

    uint64_t Count() const { return m_count; }

private:
    void Separate(std::string& text) {
        text += m_first ? "\n" : ",\n";
        m_first = false;
    }

    void Add(const Trace& trace, std::string& text) {
        const auto time = UnixMicroseconds(trace);
        char ts[32];
        // Without time (sequence-number stamps) the sequence keeps at least the order.
        std::snprintf(ts, sizeof ts, "%.1f", time ? *time : static_cast<double>(trace.GetTimestamp()));
        Separate(text);
        text += "{\"ph\":\"i\",\"s\":\"t\",\"pid\":" + std::to_string(trace.GetProcessID()) +
                ",\"tid\":" + std::to_string(trace.GetThreadID()) + ",\"ts\":" + ts + ",\"name\":";
        AppendJsonString(text, trace.GetFormattedMessage());
        text += ",\"cat\":";
        AppendJsonString(text, trace.GetModuleName().empty() ? "(none)" : trace.GetModuleName());
        text += ",\"args\":{\"severity\":";
        AppendJsonString(text, trace.GetSeverityText());
        text += ",\"flags\":";
        AppendJsonString(text, trace.GetFlags());
        text += ",\"id\":" + std::to_string(trace.GetID()) + ",\"buffer\":";
        AppendJsonString(text, trace.GetSubSystemName());
        text += ",\"file\":";
        AppendJsonString(text, trace.GetFileName());
        text += ",\"line\":" + std::to_string(trace.GetLineNumber()) + "}}";
        ++m_count;

        std::string& process = m_processes[trace.GetProcessID()];
        if (process.empty()) {
            process = (trace.GetApplicationName().empty() ? "process" : trace.GetApplicationName()) + " (" +
                      std::to_string(trace.GetProcessID()) + ")";
        }
        m_threads.emplace(trace.GetProcessID(), trace.GetThreadID());
    }

    std::ostream& m_out;
    const TraceFilter& m_filter;
    std::mutex m_mutex;
    bool m_first = true;
    uint64_t m_count = 0;
    std::map<int64_t, std::string> m_processes;
    std::set<std::pair<int64_t, unsigned>> m_threads;
};

int RunExport(const ExportOptions& options) {
    TraceFilter filter;
    if (!filter.Init(options)) {
        return ExitUsage;
    }
    if (options.Input.empty() == (options.Duration <= 0)) {
        std::cerr << "paxltrace: export needs either an input file or --duration for live traces\n";
        return ExitUsage;
    }
    std::vector<std::unique_ptr<Trace>> traces;
    if (!options.Input.empty()) {
        if (const int code = ReadTraceFile(options.Input, options.From, traces); code != ExitOk) {
            return code;
        }
    }
    std::ofstream out(options.Chrome, std::ios::binary | std::ios::trunc);
    if (!out) {
        std::cerr << "paxltrace: cannot write " << options.Chrome << '\n';
        return ExitFailure;
    }
    TraceEventWriter writer(out, filter);
    if (options.Input.empty()) {
        FollowOptions follow;
        follow.Duration = options.Duration;
        FollowTraces(options, follow, writer);
    } else {
        writer.OnNewTraces(traces);
    }
    if (!writer.Finish()) {
        std::cerr << "paxltrace: writing " << options.Chrome << " failed\n";
        return ExitFailure;
    }
    std::cerr << writer.Count() << " traces exported\n";
    return ExitOk;
}

}  // namespace

void AddExportCommand(CLI::App& app, Action& action) {
    auto options = std::make_shared<ExportOptions>();
    CLI::App* command = app.add_subcommand(
        "export",
        "Write traces of a log or CSV file, or live ones, as trace-event JSON for timeline viewers");
    command->add_option("--chrome", options->Chrome, "JSON file to write")->required();
    command->add_option("input", options->Input,
                        "Log or CSV file (format from the extension: .csv, else log)");
    command->add_option("--from", options->From, "Input format")->check(CLI::IsMember({"log", "csv"}));
    command
        ->add_option("--duration,-d", options->Duration, "Export live traces for this many seconds instead")
        ->check(CLI::NonNegativeNumber);
    AddSelectionOptions(*command, *options);
    command->footer("-b and -p choose buffers of live traces; -m and -s apply to files too.");
    command->callback([&action, options] { action = [options] { return RunExport(*options); }; });
}

}  // namespace Tracing::Tool
