// info and convert.
#include <fstream>
#include <iostream>
#include <memory>

#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Records/Trace.h"
#include "tools/BatchedOutput.h"
#include "tools/Commands.h"
#include "tools/ToolOs.h"
#include "tools/TraceFileReader.h"

namespace Tracing::Tool {

namespace {

int RunInfo() {
    TraceConfigurationPrivate& config = TraceConfigurationPrivate::GetInstance();
    const char* mode = TimestampMode::ToString(config.GetTimestampMode());
    std::cout << "PAXLtrace " << PAXLTRACE_VERSION << '\n'
              << "Shared-memory prefix: "
              << (config.GetShmPrefix().empty() ? "(none)" : config.GetShmPrefix()) << '\n'
              << "Severity:             " << Severity::Name(config.GetSeverityFilter()) << '\n'
              << "Timestamp mode:       " << (mode != nullptr ? mode : "not set") << '\n'
              << "Stream size:          " << config.GetTraceStreamSize() << " bytes\n"
              << "Max buffers:          " << config.GetMaxNumberOfBuffers() << '\n'
              << "Max modules:          " << config.GetMaxNumberOfModules() << '\n'
              << "Buffer close wait:    " << config.GetBufferCloseWaitMs() << " ms\n"
              << "Global trace IDs:     " << (config.GetGlobalTraceID() ? "on" : "off") << '\n'
              << "Trace location:       " << (config.GetTraceLocation() ? "on" : "off") << '\n'
              << "Shared memory:\n";
    TraceConfigurationPrivate::PrintSHMConsumption(std::cout);
    std::cout.flush();
    return ExitOk;
}

struct ConvertOptions {
    std::string Input;
    std::string Output;
    std::string From;
    std::string To;
};

std::string FormatOf(const std::string& path, const std::string& given) {
    if (!given.empty()) {
        return given;
    }
    auto dot = path.rfind('.');
    return dot != std::string::npos && path.substr(dot) == ".csv" ? "csv" : "log";
}

int RunConvert(const ConvertOptions& options) {
    std::ifstream in(options.Input, std::ios::binary);
    if (!in) {
        std::cerr << "paxltrace: cannot read " << options.Input << '\n';
        return ExitFailure;
    }
    std::ofstream file(options.Output, std::ios::binary | std::ios::trunc);
    if (!file) {
        std::cerr << "paxltrace: cannot write " << options.Output << '\n';
        return ExitFailure;
    }
    InstallStopHandler();
    const bool csvIn = FormatOf(options.Input, options.From) == "csv";
    const bool csv = FormatOf(options.Output, options.To) == "csv";
    TraceFileReader reader(in, csvIn ? TraceFileReader::Format::Csv : TraceFileReader::Format::Log,
                           csvIn ? Trace::CSV_SEPARATOR : Trace::LOG_SEPARATOR);
    BatchedOutput out(file);
    if (csv) {
        Trace::GetTraceCsvHeader(out, Trace::CSV_SEPARATOR);
    } else {
        Trace::GetTraceHeader(out, Trace::LOG_SEPARATOR);
    }
    // Batches keep the memory flat whatever the file's size.
    constexpr std::size_t BatchLines = 8192;
    uint64_t converted = 0;
    std::vector<std::unique_ptr<Trace>> traces;
    while (reader.ReadBatch(traces, BatchLines) && !StopRequested()) {
        for (const auto& trace : traces) {
            if (csv) {
                trace->WriteCsvToStream(out, Trace::CSV_SEPARATOR);
            } else {
                trace->WriteToStream(out, Trace::LOG_SEPARATOR);
            }
        }
        converted += traces.size();
        traces.clear();
        out.Commit();
    }
    if (!out.Commit() || !file.flush()) {
        std::cerr << "paxltrace: writing " << options.Output << " failed\n";
        return ExitFailure;
    }
    std::cerr << converted << " traces converted\n";
    if (reader.GetSkippedLines() != 0) {
        std::cerr << "paxltrace: " << reader.GetSkippedLines() << " lines of " << options.Input
                  << " are not traces and were skipped\n";
        // Nothing but such lines: not a trace file.
        if (converted == 0) {
            return ExitUsage;
        }
    }
    return ExitOk;
}

}  // namespace

void AddInfoCommand(CLI::App& app, Action& action) {
    app.add_subcommand("info", "Version, configuration in force and shared-memory consumption")
        ->callback([&action] { action = [] { return RunInfo(); }; });
}

void AddConvertCommand(CLI::App& app, Action& action) {
    auto options = std::make_shared<ConvertOptions>();
    CLI::App* convert = app.add_subcommand(
        "convert", "Convert trace files between log and CSV (format from the extension: .csv, else log)");
    convert->add_option("input", options->Input, "File to read")->required();
    convert->add_option("output", options->Output, "File to write")->required();
    convert->add_option("--from", options->From, "Input format")->check(CLI::IsMember({"log", "csv"}));
    convert->add_option("--to", options->To, "Output format")->check(CLI::IsMember({"log", "csv"}));
    convert->callback([&action, options] { action = [options] { return RunConvert(*options); }; });
}

}  // namespace Tracing::Tool
