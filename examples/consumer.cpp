// Example consumer: prints every trace of every buffer on this machine as it arrives.
//
//   consumer [--csv] [--duration SECONDS] [--max-traces N] [--until-eof]
//
// Traces go to standard output (log lines, or CSV lines with --csv); "consumer ready" and the
// buffers that come and go are reported on standard error. Runs until the duration has passed
// (0: no limit) or an interrupt arrives, or with --until-eof until its standard input ends (how
// a script stops it where no console sends Ctrl-C).
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "Trace/Buffer/TraceBufferInfo.h"
#include "Trace/Reading/ITraceReaderEventListener.h"
#include "Trace/Reading/TraceReader.h"
#include "Trace/Records/Trace.h"
#include "Trace/Registry/ITraceRegistryDataChangedListener.h"
#include "Trace/Registry/TraceRegistry.h"

namespace {

// Lock-free, so a signal handler may set it too.
std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void OnSignal(int) {
    g_stop.store(true);
}

// One whole line at a time: the updater thread reports buffers while main reports its own state.
void Say(const std::string& line) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    std::cerr << (line + '\n') << std::flush;
}

class Printer : public Tracing::ITraceReaderEventListener {
public:
    explicit Printer(bool csv) : m_csv(csv) {}

    void OnNewTraces(std::vector<std::unique_ptr<Tracing::Trace>>& traces) override { Print(traces); }

    // Also used for the last traces after the listener is gone, hence the lock.
    void Print(const std::vector<std::unique_ptr<Tracing::Trace>>& traces) {
        std::lock_guard lock(m_mutex);
        for (const auto& trace : traces) {
            if (m_csv)
                trace->WriteCsvToStream(std::cout, Tracing::Trace::CSV_SEPARATOR);
            else
                trace->WriteToStream(std::cout, Tracing::Trace::LOG_SEPARATOR);
        }
        std::cout.flush();
        m_count += traces.size();
    }

    size_t GetCount() {
        std::lock_guard lock(m_mutex);
        return m_count;
    }

private:
    std::mutex m_mutex;
    bool m_csv;
    size_t m_count = 0;
};

// Reports buffers that appear and vanish; the reader picks them up on its own.
class BufferWatcher : public Tracing::ITraceRegistryDataChangedListener {
public:
    void OnBuffersCreated(const std::unordered_set<int>& bufferIDs) override { Report("created", bufferIDs); }
    void OnBuffersDeleted(const std::unordered_set<int>& bufferIDs) override { Report("deleted", bufferIDs); }

private:
    static void Report(const char* what, const std::unordered_set<int>& bufferIDs) {
        for (int id : bufferIDs)
            Say(std::string("buffer ") + what + ' ' + std::to_string(id));
    }
};

int Usage() {
    Say("usage: consumer [--csv] [--duration SECONDS] [--max-traces N] [--until-eof]");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    bool csv = false;
    double duration = 0;
    unsigned maxTraces = 0;
    bool untilEof = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--csv") == 0)
            csv = true;
        else if (std::strcmp(argv[i], "--duration") == 0 && i + 1 < argc)
            duration = std::atof(argv[++i]);
        else if (std::strcmp(argv[i], "--max-traces") == 0 && i + 1 < argc)
            maxTraces = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (std::strcmp(argv[i], "--until-eof") == 0)
            untilEof = true;
        else
            return Usage();
    }
    std::signal(SIGINT, OnSignal);
    std::signal(SIGTERM, OnSignal);
    if (untilEof) {
        // Left blocked in the read when the consumer ends otherwise; the exit takes it along.
        std::thread([] {
            for (std::string line; std::getline(std::cin, line);) {
            }
            g_stop.store(true);
        }).detach();
    }

    Printer printer(csv);
    BufferWatcher watcher;
    Tracing::TraceRegistry& registry = Tracing::TraceRegistry::GetInstance();
    registry.RegisterDataChangedListener(&watcher);
    {
        Tracing::TraceReader reader;
        if (reader.Create(maxTraces, true, true) != Tracing::TraceReader::Success)
            return 1;
        // Buffers that existed before us are never reported as created.
        std::vector<std::unique_ptr<Tracing::TraceBufferInfo>> existing;
        registry.ConsumerBrowse(existing);
        for (const auto& info : existing) {
            if (reader.RegisterBuffer(info->BufferID, 0) == Tracing::TraceReader::Success)
                Say("buffer existing " + std::to_string(info->BufferID));
        }
        if (csv)
            Tracing::Trace::GetTraceCsvHeader(std::cout, Tracing::Trace::CSV_SEPARATOR);
        reader.RegisterEventListener(printer);
        Say("consumer ready");

        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(duration);
        while (!g_stop.load() && (duration <= 0 || std::chrono::steady_clock::now() < end))
            std::this_thread::sleep_for(std::chrono::milliseconds(20));

        reader.UnregisterEventListener(printer);
        std::vector<std::unique_ptr<Tracing::Trace>> rest;
        reader.ReadTraces(rest);
        printer.Print(rest);
    }
    registry.UnregisterDataChangedListener(&watcher);
    Say("consumer received " + std::to_string(printer.GetCount()) + " traces");
    return 0;
}
