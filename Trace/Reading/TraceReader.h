// A consumer's reader of new traces from any number of trace buffers on this machine.
//
// Per registered buffer the reader keeps its own cursor in the ring. Traces come out grouped by
// buffer, buffers in ascending ID, each buffer's traces in the order they were written; one read
// takes at most the configured number of traces from each buffer. Callers either pull them with
// ReadTraces, or register listeners: while at least one listener exists the updater thread reads
// about every 50 ms and hands the traces to the listeners. What the updater thread reads while no
// listener exists waits for the next ReadTraces.
//
// Locks: one mutex per reader guards its state. It is held while buffers are read, never while
// listeners are called, and never while the reader is removed from the updater thread (which
// waits for a running Update of this reader). Listeners are called on one thread at a time: a
// deleted buffer's last traces are delivered by the thread that learns of the deletion, after any
// delivery in progress, while the updater thread skips its cycle instead of waiting for it.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_set>
#include <vector>

#include "Trace/Buffer/TraceReaderInfo.h"
#include "Trace/Reading/ITraceReaderEventListener.h"
#include "Trace/Reading/IUpdaterItem.h"
#include "Trace/Registry/ITraceRegistryDataChangedListener.h"

namespace Tracing {

class Trace;

class TraceReader : public ITraceRegistryDataChangedListener, public IUpdaterItem {
public:
    enum ErrorType : int32_t {
        Success = 0,
        AlreadyCreated = 1,
        NotCreated = 3,
        BufferAlreadyRegistered = 5,
        // Not in the registry, or the cursor could not be connected to its ring.
        NoSuchBuffer = 6,
    };

    TraceReader();
    // Leaves the updater thread first, then the registry's listeners.
    ~TraceReader() override;
    TraceReader(const TraceReader&) = delete;
    TraceReader& operator=(const TraceReader&) = delete;

    // maxTraces: most traces one read takes from each buffer (0: the ring's own limit).
    // fillExtendedTraceData: every record carries the buffer's texts (names, severity, flags).
    ErrorType Create(unsigned maxTraces, bool registerNewBuffersAutomatically, bool fillExtendedTraceData);
    // Starts reading a consumer buffer of the registry after lastReadTraceID (0: at the oldest
    // trace still in the ring).
    ErrorType RegisterBuffer(int bufferID, unsigned lastReadTraceID);

    // Appends what the updater thread kept, then the new traces of every buffer.
    void ReadTraces(std::vector<std::unique_ptr<Trace>>& traces);

    // The first listener puts the reader on the updater thread, the last one takes it off.
    void RegisterEventListener(ITraceReaderEventListener& listener);
    void UnregisterEventListener(ITraceReaderEventListener& listener);

    // While paused nothing is read; the cursors stay where they are.
    void Pause();
    void Resume();

    // Registry notifications (updater thread).
    void OnBuffersCreated(const std::unordered_set<int>& bufferIDs) override;
    // Delivers the buffers' last traces without limit, then forgets the buffers.
    void OnBuffersDeleted(const std::unordered_set<int>& bufferIDs) override;

    // Updater thread: reads and notifies the listeners.
    void Update() override;

    // Traces delivered and lost (counted from the gaps in the trace IDs) over every buffer read,
    // deleted ones included; Overflows counts the reports of losses among the traces.
    TraceReadStatistics GetStatistics() const;

private:
    struct Private;

    // Reads into traces; readAll lifts the per-buffer limit, a non-empty set restricts the buffers.
    void Read(std::vector<std::unique_ptr<Trace>>& traces, bool readAll,
              const std::unordered_set<int>* bufferIDs);
    // Hands traces to the listeners, or keeps them for ReadTraces when there are none.
    void FireNewTraces(std::vector<std::unique_ptr<Trace>>& traces);
    uint64_t Address() const;

    std::unique_ptr<Private> m_private;
};

}  // namespace Tracing
