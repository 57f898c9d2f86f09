// record: keeps the machine's traces in rotated log or CSV files, across restarts.
//
// After every batch the recorder saves, beside the files, which file it writes, how long it is
// and the last trace ID it read of each buffer. Started again, it cuts the newest file back to
// the saved length and resumes each buffer that is still the same one (same ID, same process,
// same process start) after the saved trace ID, so nothing is written twice.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Ipc/TraceProcessData.h"
#include "Trace/Records/Trace.h"
#include "tools/Commands.h"
#include "tools/RotatingFiles.h"
#include "tools/TraceFollower.h"

namespace Tracing::Tool {

namespace {

namespace fs = std::filesystem;

constexpr const char* StateFileName = ".paxltrace-record.state";

struct RecordOptions : TraceSelection {
    std::string Directory;
    bool Csv = false;
    std::string RotateSize = "64MiB";
    unsigned Keep = 20;
    double Duration = 0;
};

// What identifies a buffer across restarts of the recorder: a buffer ID can come back in a new
// registry, a process ID in a new process, but not both with the same process start.
struct BufferIdentity {
    int32_t BufferID = -1;
    int64_t ProcessID = 0;
    uint64_t ProcessStart = 0;
    auto operator<=>(const BufferIdentity&) const = default;
};

struct SavedState {
    std::string File;
    uint64_t Length = 0;
    std::map<BufferIdentity, uint32_t> LastIDs;
};

SavedState LoadState(const fs::path& path) {
    SavedState state;
    std::ifstream in(path);
    std::string kind;
    while (in >> kind) {
        if (kind == "file") {
            in >> state.File >> state.Length;
        } else if (kind == "buffer") {
            BufferIdentity identity;
            uint32_t last = 0;
            if (in >> identity.BufferID >> identity.ProcessID >> identity.ProcessStart >> last) {
                state.LastIDs[identity] = last;
            }
        } else {
            in.ignore(1 << 20, '\n');
        }
    }
    return state;
}

// Whether ID a came after b, across the wrap-around of 32-bit trace IDs.
bool After(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b) > 0;
}

std::optional<uint64_t> ParseSize(const std::string& text) {
    size_t end = 0;
    uint64_t value = 0;
    try {
        value = std::stoull(text, &end);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    static const std::pair<const char*, uint64_t> units[] = {
        {"", 1},           {"k", 1 << 10},     {"K", 1 << 10},     {"KB", 1 << 10},
        {"KiB", 1 << 10},  {"M", 1 << 20},     {"MB", 1 << 20},    {"MiB", 1 << 20},
        {"G", 1ull << 30}, {"GB", 1ull << 30}, {"GiB", 1ull << 30}};
    for (const auto& [unit, factor] : units) {
        if (text.compare(end, std::string::npos, unit) == 0 && value <= UINT64_MAX / factor) {
            return value * factor;
        }
    }
    return std::nullopt;
}

class Recorder : public ITraceReaderEventListener {
public:
    Recorder(const RecordOptions& options, const TraceFilter& filter, RotatingFiles& files, SavedState saved)
        : m_options(options), m_filter(filter), m_files(files), m_saved(std::move(saved)) {}

    // Where to start in a buffer: after what an earlier run wrote of the same buffer, otherwise at
    // the oldest trace its ring still holds.
    uint32_t StartAfter(const TraceBuffer& buffer) {
        TraceProcessData process;
        process.Fill(buffer.GetProcessID());
        const BufferIdentity identity{buffer.GetBufferID(), buffer.GetProcessID(), process.GetCreationTime()};
        std::lock_guard lock(m_mutex);
        // A buffer can be announced twice (present at the start and newly created): the first
        // announcement counts, and what was read since must not be forgotten.
        auto [followed, added] = m_buffers.try_emplace(identity.BufferID);
        if (added || followed->second.Identity != identity) {
            auto saved = m_saved.LastIDs.find(identity);
            followed->second.Identity = identity;
            followed->second.LastID = followed->second.ResumeAfter =
                saved != m_saved.LastIDs.end() ? saved->second : 0;
        }
        return followed->second.LastID;
    }

    void OnNewTraces(std::vector<std::unique_ptr<Trace>>& traces) override {
        std::lock_guard lock(m_mutex);
        for (const auto& trace : traces) {
            Write(*trace);
        }
        std::string error;
        if (!m_files.Flush(error)) {
            if (!m_failed) {
                std::cerr << "paxltrace: " << error << std::endl;
            }
            m_failed = true;
            return;
        }
        SaveState();
    }

    uint64_t Written() const { return m_written; }
    bool Failed() const { return m_failed; }

private:
    struct Followed {
        BufferIdentity Identity;
        uint32_t LastID = 0;
        // Traces up to this one were written by an earlier run (writers publish slightly out of
        // order, so the reader's own start position does not exclude them all).
        uint32_t ResumeAfter = 0;
    };

    void Write(const Trace& trace) {
        auto followed = m_buffers.find(trace.GetBufferID());
        if (!IsOverflowReport(trace) && followed != m_buffers.end()) {
            Followed& buffer = followed->second;
            if (buffer.ResumeAfter != 0 && !After(trace.GetID(), buffer.ResumeAfter)) {
                return;
            }
            if (After(trace.GetID(), buffer.LastID)) {
                buffer.LastID = trace.GetID();
            }
        }
        if (!IsOverflowReport(trace) && !m_filter.Passes(trace)) {
            return;
        }
        m_line.str(std::string());
        if (m_options.Csv) {
            trace.WriteCsvToStream(m_line, Trace::CSV_SEPARATOR);
        } else {
            trace.WriteToStream(m_line, Trace::LOG_SEPARATOR);
        }
        m_files.Add(m_line.view());
        ++m_written;
    }

    // Written beside the files and renamed over the old state, so that a crash leaves one or the other.
    void SaveState() {
        const fs::path path = fs::path(m_files.Directory()) / StateFileName;
        const fs::path temporary = path.string() + ".new";
        {
            std::ofstream out(temporary, std::ios::trunc);
            out << "file " << m_files.Name() << ' ' << m_files.Length() << '\n';
            for (const auto& [id, buffer] : m_buffers) {
                out << "buffer " << id << ' ' << buffer.Identity.ProcessID << ' '
                    << buffer.Identity.ProcessStart << ' ' << buffer.LastID << '\n';
            }
            if (!out.flush()) {
                return;
            }
        }
        std::error_code error;
        fs::rename(temporary, path, error);
    }

    const RecordOptions& m_options;
    const TraceFilter& m_filter;
    RotatingFiles& m_files;
    SavedState m_saved;
    std::mutex m_mutex;
    std::map<int32_t, Followed> m_buffers;
    std::ostringstream m_line;
    uint64_t m_written = 0;
    bool m_failed = false;
};

int RunRecord(const RecordOptions& options) {
    TraceFilter filter;
    if (!filter.Init(options)) {
        return ExitUsage;
    }
    const auto rotateSize = ParseSize(options.RotateSize);
    if (!rotateSize || *rotateSize < 4096) {
        std::cerr
            << "paxltrace: rotation size '" << options.RotateSize
            << "' must be a number of bytes of at least 4096, with k, M or G (KiB, MiB, GiB) after it\n";
        return ExitUsage;
    }
    std::ostringstream header;
    if (options.Csv) {
        Trace::GetTraceCsvHeader(header, Trace::CSV_SEPARATOR);
    } else {
        Trace::GetTraceHeader(header, Trace::LOG_SEPARATOR);
    }
    RotatingFiles files(options.Directory, options.Csv ? ".csv" : ".log", header.str(), *rotateSize,
                        options.Keep);
    SavedState saved = LoadState(fs::path(options.Directory) / StateFileName);
    std::string error;
    if (!files.Open(saved.File, saved.Length, error)) {
        std::cerr << "paxltrace: " << error << '\n';
        return ExitFailure;
    }
    std::cerr << "paxltrace: recording into " << (fs::path(options.Directory) / files.Name()).string()
              << std::endl;
    Recorder recorder(options, filter, files, std::move(saved));
    FollowOptions follow;
    follow.Duration = options.Duration;
    follow.StartAfter = [&recorder](const TraceBuffer& buffer, bool) { return recorder.StartAfter(buffer); };
    const DeliveryStats stats = FollowTraces(options, follow, recorder);
    std::cerr << "paxltrace: recorded " << recorder.Written() << " traces; " << stats.Summary() << std::endl;
    return recorder.Failed() ? ExitFailure : ExitOk;
}

}  // namespace

void AddRecordCommand(CLI::App& app, Action& action) {
    auto options = std::make_shared<RecordOptions>();
    CLI::App* record = app.add_subcommand(
        "record", "Keep new traces of all or selected buffers in rotated files until stopped");
    record->add_option("--output,-o", options->Directory, "Directory of the files (created when missing)")
        ->required();
    record->add_flag("--csv", options->Csv, "CSV instead of log lines");
    record->add_option("--rotate-size", options->RotateSize, "Begin a new file at this size (default 64MiB)");
    record->add_option("--keep", options->Keep, "Files kept; older ones are removed (default 20)")
        ->check(CLI::Range(1u, 1000000u));
    AddSelectionOptions(*record, *options);
    record
        ->add_option("--duration,-d", options->Duration,
                     "Stop after this many seconds (default: until stopped)")
        ->check(CLI::NonNegativeNumber);
    record->footer(
        "Files are named paxltrace-000001.log (or .csv) and so on; a record started again on the same "
        "directory appends to the newest without repeating traces it wrote. Ctrl-C or SIGTERM ends it "
        "after everything read is written.");
    record->callback([&action, options] { action = [options] { return RunRecord(*options); }; });
}

}  // namespace Tracing::Tool
