#include "tools/TraceFollower.h"

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceBufferInfo.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Reading/TraceReader.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Records/Trace.h"
#include "Trace/Registry/TraceRegistry.h"
#include "tools/Commands.h"
#include "tools/ToolOs.h"

namespace Tracing::Tool {

namespace {

// Chooses the buffers to read and registers them with the reader as they appear.
class BufferSelector : public ITraceRegistryDataChangedListener {
public:
    BufferSelector(const TraceSelection& selection, const FollowOptions& options, TraceReader& reader)
        : m_selection(selection), m_options(options), m_reader(reader) {}

    void OnBuffersCreated(const std::unordered_set<int>& bufferIDs) override {
        for (int id : bufferIDs) {
            Consider(id);
        }
    }
    void OnBuffersDeleted(const std::unordered_set<int>&) override {}

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
        const bool present = !m_started.load(std::memory_order_seq_cst);
        m_reader.RegisterBuffer(id, m_options.StartAfter ? m_options.StartAfter(*buffer, present) : 0);
    }

    bool Selected(const TraceBuffer& buffer) const {
        if (buffer.GetProcessID() == CurrentProcess() ||
            (m_selection.ProcessID != 0 && buffer.GetProcessID() != m_selection.ProcessID)) {
            return false;
        }
        if (m_selection.Buffers.empty()) {
            return true;
        }
        for (const std::string& which : m_selection.Buffers) {
            if (which == buffer.GetSubSystemName() || which == std::to_string(buffer.GetBufferID())) {
                return true;
            }
        }
        return false;
    }

    const TraceSelection& m_selection;
    const FollowOptions& m_options;
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

// A live reader shows new traces within this time.
constexpr unsigned UpdateCycleMs = 50;

}  // namespace

bool TraceFilter::Init(const TraceSelection& selection) {
    m_modules = selection.Modules;
    m_minSeverity = Severity::Call;
    if (!selection.MinSeverity.empty()) {
        auto parsed = ParseSeverity(selection.MinSeverity);
        if (!parsed) {
            std::cerr << "paxltrace: unknown severity '" << selection.MinSeverity << "'\n";
            return false;
        }
        m_minSeverity = *parsed;
    }
    return true;
}

bool TraceFilter::Passes(const Trace& trace) const {
    if (trace.GetSeverity() > m_minSeverity) {
        return false;
    }
    if (m_modules.empty()) {
        return true;
    }
    for (const std::string& module : m_modules) {
        if (module == trace.GetModuleName() || module == std::to_string(trace.GetModuleID())) {
            return true;
        }
    }
    return false;
}

void AddSelectionOptions(CLI::App& command, TraceSelection& selection) {
    command.add_option("--buffer,-b", selection.Buffers, "Buffer ID or subsystem name (repeatable)");
    command.add_option("--pid,-p", selection.ProcessID, "Only buffers of this process");
    command.add_option("--module,-m", selection.Modules, "Module name or ID (repeatable)");
    command.add_option("--severity,-s", selection.MinSeverity, "Least severe severity taken, e.g. Warning");
}

bool IsOverflowReport(const Trace& trace) {
    return trace.GetModuleID() == -1;
}

DeliveryStats FollowTraces(const TraceSelection& selection, const FollowOptions& options,
                           ITraceReaderEventListener& listener) {
    InstallStopHandler();
    TraceRegistry& registry = TraceRegistry::GetInstance();
    auto reader = std::make_unique<TraceReader>();
    reader->Create(0, false, true);
    BufferSelector selector(selection, options, *reader);
    registry.RegisterDataChangedListener(&selector);
    TraceUpdateManager::GetInstance().WaitForAllUpdates();
    selector.RegisterPresentBuffers();

    DeliveryStats stats;
    const auto deliver = [&](std::vector<std::unique_ptr<Trace>>& traces) {
        DeliveryStats::Loss loss;
        for (const auto& trace : traces) {
            if (stats.Observe(*trace, loss)) {
                ReportLoss(loss);
            }
        }
        listener.OnNewTraces(traces);
    };

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
            std::cerr << "paxltrace: " << stats.Summary() << '\n';
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
            deliver(traces);
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
        deliver(rest);
    }
    reader.reset();
    stats.FlushPending(ReportLoss);
    return stats;
}

}  // namespace Tracing::Tool
