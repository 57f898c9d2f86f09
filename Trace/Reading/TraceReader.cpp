#include "Trace/Reading/TraceReader.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <mutex>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceData.h"
#include "Trace/Buffer/TraceReaderInfo.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Registry/TraceRegistry.h"

namespace Tracing {

namespace {

constexpr const char* EventSource = "TraceReader";

uint64_t AddressOf(const void* object) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(object));
}

[[gnu::cold]] void Report(const TraceMessage& message) {
    TraceDiagnostics::GetInstance().Report(DiagnosticCategory::Reader, Severity::Info, message);
}

[[gnu::cold]] void Warn(const TraceMessage& message) {
    TraceDiagnostics::GetInstance().Warning(message);
}

bool ReportsWanted() {
    return TraceDiagnostics::IsActive(DiagnosticCategory::Reader);
}

// Moves every record of from to the end of to; from is left empty.
void Append(std::vector<std::unique_ptr<Trace>>& to, std::vector<std::unique_ptr<Trace>>& from) {
    if (to.empty()) {
        to.swap(from);
    } else {
        to.insert(to.end(), std::make_move_iterator(from.begin()), std::make_move_iterator(from.end()));
    }
    from.clear();
}

}  // namespace

struct TraceReader::Private {
    struct BufferEntry {
        TraceReaderInfo info;
        bool fillExtended = false;
    };

    std::mutex mutex;
    bool created = false;
    bool paused = false;
    uint32_t maxTraces = 0;
    bool registerNewBuffersAutomatically = false;
    bool fillExtendedTraceData = false;
    // Ascending buffer ID is the delivery order.
    std::map<int32_t, BufferEntry> buffers;
    std::vector<ITraceReaderEventListener*> listeners;
    std::vector<std::unique_ptr<Trace>> pending;
    // Counts of buffers that were deleted.
    TraceReadStatistics retired;
    // Held from reading to the end of the listener calls, so that listeners are called on one
    // thread at a time and in reading order. Recursive: a listener may unregister a buffer, whose
    // last traces are then delivered from inside its call.
    std::recursive_mutex delivery;
    // One buffer's traces: the stream's limit counts what the output already holds.
    std::vector<std::unique_ptr<Trace>> scratch;
};

TraceReader::TraceReader() : m_private(std::make_unique<Private>()) {}

TraceReader::~TraceReader() {
    // Off the updater thread first: RemoveReader waits for a running Update, which needs the reader.
    TraceUpdateManager::GetInstance().RemoveReader(*this);
    bool created;
    {
        std::lock_guard<std::mutex> lock(m_private->mutex);
        created = m_private->created;
    }
    // Only a created reader is a registry listener; others need not make the registry.
    if (created)
        TraceRegistry::GetInstance().UnregisterDataChangedListener(this);
    if (ReportsWanted())
        Report(TraceMessage("Trace reader (0x%1:x) destructed.").Add(Address()));
}

uint64_t TraceReader::Address() const {
    return AddressOf(this);
}

TraceReader::ErrorType TraceReader::Create(unsigned maxTraces, bool registerNewBuffersAutomatically,
                                           bool fillExtendedTraceData) {
    {
        std::lock_guard<std::mutex> lock(m_private->mutex);
        if (ReportsWanted()) {
            Report(TraceMessage("Creating trace reader (0x%1:x). RegisterNewBuffersAutomatically: %2, "
                                "FillExtendedTraceData: %3.")
                       .Add(Address())
                       .Add(registerNewBuffersAutomatically)
                       .Add(fillExtendedTraceData));
        }
        if (m_private->created) {
            Warn(TraceMessage("Couldn't create trace reader (0x%1:x). Already created.").Add(Address()));
            return AlreadyCreated;
        }
        m_private->maxTraces = maxTraces;
        m_private->registerNewBuffersAutomatically = registerNewBuffersAutomatically;
        m_private->fillExtendedTraceData = fillExtendedTraceData;
        m_private->created = true;
    }
    // Outside the lock: the registry calls its listeners without its own lock, we must not hold ours.
    TraceRegistry::GetInstance().RegisterDataChangedListener(this);
    return Success;
}

TraceReader::ErrorType TraceReader::RegisterBuffer(int bufferID, unsigned lastReadTraceID) {
    const auto message = [&](const char* text) {
        TraceMessage result(text);
        result.Add(Address()).Add(static_cast<int32_t>(bufferID)).Add(static_cast<uint32_t>(lastReadTraceID));
        return result;
    };
    if (ReportsWanted()) {
        Report(
            message("Trying to register buffer for trace reader (0x%1:x). BufferID: %2, "
                    "LastReadTraceID: %3."));
    }
    std::lock_guard<std::mutex> lock(m_private->mutex);
    if (!m_private->created) {
        Warn(
            message("Couldn't register buffer for trace reader (0x%1:x). Reader not yet created. "
                    "BufferID: %2, LastReadTraceID: %3."));
        return NotCreated;
    }
    if (m_private->buffers.contains(bufferID)) {
        Warn(
            message("Couldn't register buffer for trace reader (0x%1:x). Already contained. "
                    "BufferID: %2, LastReadTraceID: %3."));
        return BufferAlreadyRegistered;
    }
    const TraceBuffer* buffer =
        TraceRegistry::GetInstance().GetConsumerBuffer(static_cast<int32_t>(bufferID));
    if (buffer == nullptr) {
        const TraceMessage text = message(
            "Couldn't register buffer for trace reader (0x%1:x). No such "
            "buffer in registry. BufferID: %2, LastReadTraceID: %3.");
        TraceSharedMemory::writeErrorEventLog(EventSource, text.Format().c_str());
        Warn(text);
        return NoSuchBuffer;
    }
    Private::BufferEntry entry;
    buffer->ConnectReader(entry.info, lastReadTraceID);
    if (entry.info.Buffer == nullptr) {
        Warn(
            message("Couldn't register buffer for trace reader (0x%1:x). Connect reader failed. "
                    "BufferID: %2, LastReadTraceID: %3."));
        return NoSuchBuffer;
    }
    // Set after connecting, so that the traces skipped up to lastReadTraceID are not filled in vain.
    entry.fillExtended = m_private->fillExtendedTraceData;
    entry.info.AttachBuffer = entry.fillExtended;
    m_private->buffers.emplace(bufferID, entry);
    return Success;
}

void TraceReader::Read(std::vector<std::unique_ptr<Trace>>& traces, bool readAll,
                       const std::unordered_set<int>* bufferIDs) {
    Private& state = *m_private;
    std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.created) {
        Warn(TraceMessage("Couldn't read traces. Trace reader (0x%1:x) not created.").Add(Address()));
        return;
    }
    if (state.paused)
        return;
    const uint32_t limit = readAll ? 0 : state.maxTraces;
    const TraceUpdateManager& manager = TraceUpdateManager::GetInstance();
    const bool restricted = bufferIDs != nullptr && !bufferIDs->empty();
    for (auto& [id, entry] : state.buffers) {
        if (restricted && !bufferIDs->contains(id))
            continue;
        if (manager.IsStopping())
            break;
        const TraceBuffer* buffer = entry.info.Buffer;
        bool overflow = false;
        if (!readAll) {
            state.scratch.clear();
            buffer->Read(entry.info, state.scratch, overflow, limit);
            Append(traces, state.scratch);
            continue;
        }
        // One ring read stops at TraceStream::TraceReadLimit; "all" means until the ring is drained,
        // bounded by what the ring can hold so that a busy producer cannot keep us here.
        const uint64_t maxRounds =
            buffer->GetRingBufferSize() / TraceData::SizeWithoutData / TraceStream::TraceReadLimit + 1;
        for (uint64_t round = 0; round < maxRounds && !manager.IsStopping(); ++round) {
            state.scratch.clear();
            buffer->Read(entry.info, state.scratch, overflow, limit);
            const size_t count = state.scratch.size();
            Append(traces, state.scratch);
            if (count < TraceStream::TraceReadLimit)
                break;
        }
    }
}

void TraceReader::ReadTraces(std::vector<std::unique_ptr<Trace>>& traces) {
    {
        std::lock_guard<std::mutex> lock(m_private->mutex);
        Append(traces, m_private->pending);
    }
    Read(traces, false, nullptr);
}

void TraceReader::Update() {
    // A user thread delivering a deleted buffer's last traces: this cycle leaves the reading to it
    // and the next one reads on. Not waiting also keeps a listener of that thread free to take the
    // reader off the updater thread, which waits for this call to end.
    std::unique_lock<std::recursive_mutex> delivery(m_private->delivery, std::try_to_lock);
    if (!delivery.owns_lock())
        return;
    std::vector<std::unique_ptr<Trace>> traces;
    Read(traces, false, nullptr);
    if (!traces.empty())
        FireNewTraces(traces);
}

TraceReadStatistics TraceReader::GetStatistics() const {
    std::lock_guard<std::mutex> lock(m_private->mutex);
    TraceReadStatistics total = m_private->retired;
    for (const auto& [id, entry] : m_private->buffers)
        total += entry.info.Statistics;
    return total;
}

void TraceReader::FireNewTraces(std::vector<std::unique_ptr<Trace>>& traces) {
    std::vector<ITraceReaderEventListener*> snapshot;
    {
        std::lock_guard<std::mutex> lock(m_private->mutex);
        if (m_private->listeners.empty()) {
            Append(m_private->pending, traces);
            return;
        }
        snapshot = m_private->listeners;
    }
    // Without the lock, so that a listener may unregister itself or read again.
    for (ITraceReaderEventListener* listener : snapshot)
        listener->OnNewTraces(traces);
}

void TraceReader::RegisterEventListener(ITraceReaderEventListener& listener) {
    std::lock_guard<std::mutex> lock(m_private->mutex);
    auto& listeners = m_private->listeners;
    if (listeners.empty())
        TraceUpdateManager::GetInstance().AddReader(*this);
    if (std::find(listeners.begin(), listeners.end(), &listener) != listeners.end()) {
        Warn(TraceMessage("Couldn't register event listener (0x%1:x) to trace reader (0x%2:x). Already "
                          "contained.")
                 .Add(AddressOf(&listener))
                 .Add(Address()));
        return;
    }
    listeners.push_back(&listener);
    if (ReportsWanted()) {
        Report(TraceMessage("Registering ITraceReaderEventListener (0x%1:x) to trace reader (0x%2:x).")
                   .Add(AddressOf(&listener))
                   .Add(Address()));
    }
}

void TraceReader::UnregisterEventListener(ITraceReaderEventListener& listener) {
    {
        std::lock_guard<std::mutex> lock(m_private->mutex);
        auto& listeners = m_private->listeners;
        const auto it = std::find(listeners.begin(), listeners.end(), &listener);
        if (it == listeners.end()) {
            Warn(TraceMessage("Couldn't unregister event listener (0x%1:x) from trace reader (0x%2:x). "
                              "Not contained.")
                     .Add(AddressOf(&listener))
                     .Add(Address()));
            return;
        }
        listeners.erase(it);
        if (ReportsWanted()) {
            Report(TraceMessage("Unregistered ITraceReaderEventListener (0x%1:x) from trace reader (0x%2:x).")
                       .Add(AddressOf(&listener))
                       .Add(Address()));
        }
        if (!listeners.empty())
            return;
    }
    // Without our lock: RemoveReader waits for a running Update, which takes it.
    TraceUpdateManager::GetInstance().RemoveReader(*this);
    // A listener registered meanwhile found the reader still on the thread and did not add it.
    std::lock_guard<std::mutex> lock(m_private->mutex);
    if (!m_private->listeners.empty())
        TraceUpdateManager::GetInstance().AddReader(*this);
}

void TraceReader::Pause() {
    std::lock_guard<std::mutex> lock(m_private->mutex);
    m_private->paused = true;
}

void TraceReader::Resume() {
    std::lock_guard<std::mutex> lock(m_private->mutex);
    m_private->paused = false;
}

void TraceReader::OnBuffersCreated(const std::unordered_set<int>& bufferIDs) {
    {
        std::lock_guard<std::mutex> lock(m_private->mutex);
        if (!m_private->registerNewBuffersAutomatically)
            return;
    }
    for (int id : bufferIDs)
        RegisterBuffer(id, 0);
}

void TraceReader::OnBuffersDeleted(const std::unordered_set<int>& bufferIDs) {
    if (bufferIDs.empty())
        return;
    // The last traces are delivered before this returns (the buffer's owner may be about to
    // unmap it), serialised with the updater thread's deliveries rather than handed to it.
    std::lock_guard<std::recursive_mutex> delivery(m_private->delivery);
    std::vector<std::unique_ptr<Trace>> traces;
    Read(traces, true, &bufferIDs);
    {
        std::lock_guard<std::mutex> lock(m_private->mutex);
        for (int id : bufferIDs) {
            const auto it = m_private->buffers.find(id);
            if (it == m_private->buffers.end())
                continue;
            m_private->retired += it->second.info.Statistics;
            m_private->buffers.erase(it);
        }
    }
    if (!traces.empty())
        FireNewTraces(traces);
}

}  // namespace Tracing
