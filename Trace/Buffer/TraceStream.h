// The ring of trace entries inside a trace buffer's shared memory.
//
// Ring layout: R bytes (a power of two) followed by a 2048-byte spill area. Entries (TraceData)
// start 8-byte aligned at (position AND R - 1); an entry that starts near the end runs on into the
// spill area, so no entry is ever wrapped. Nothing is erased: a writer reserves its span with one
// fetch-and-add on the free-running write index of the buffer header and overwrites what lay
// there. Readers keep their own cursor (TraceReaderInfo) and tell complete, torn and stale entries
// apart from the entry header, the write index and the ID counter (sampled together, they show
// which IDs an earlier lap left behind).
//
// Shared words used (all in TraceBufferData): write index, total trace counter, ring-was-filled
// flag, timestamp mode and the global-trace-ID bit. With global trace IDs the trace-ID counter is
// the machine-wide one that the owner supplies.
//
// The owner, the trace-ID counter and the clock are supplied, so the stream works over any block
// of memory laid out as header + module array + ring.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "Trace/Buffer/TraceBufferData.h"
#include "Trace/Buffer/TraceData.h"
#include "Trace/Buffer/TraceReaderInfo.h"
#include "Trace/Records/Trace.h"
#include "Trace/Time/TimestampMode.h"
#include "paxltrace.h"

namespace Tracing {

class TraceBuffer;
class TraceTimer;

class TraceStream {
public:
    enum ErrorType {
        Ok = 0,
        NoNewTraces = 1,
        ReaderAlreadyConnected = 2,
        IncompleteTrace = 3,
        // Overflows: callers test for >= OverflowUnknown.
        OverflowUnknown = 20,
        OverflowTracesOverwritten = 21,
        OverflowTraceUnreadable = 22,
        OverflowTraceIDChanged = 23,
    };

    // Most traces one Read returns.
    static constexpr uint32_t TraceReadLimit = 50000;

    // Timestamp of "now" in a mode; null means the trace timer.
    using TimestampSource = uint64_t (*)(TimestampMode::Type mode);

    // Shared-memory bytes of a ring of this size: rounded up to a power of two, plus the spill
    // area. 0 means the configured stream size.
    static uint64_t GetSize(uint32_t size);

    // Build a stream over a header and ring that are already mapped; the ring's bytes are not
    // touched. Null when the header's ring size is 0 or not a power of two. The global counter is
    // used only when the header's global-trace-ID bit is set.
    static TraceStream* Create(const TraceBuffer* owner, TraceBufferData* header, char* ringStart,
                               uint32_t* globalTraceCounter = nullptr, TimestampSource clock = nullptr);
    static TraceStream* Attach(const TraceBuffer* owner, TraceBufferData* header, char* ringStart,
                               uint32_t* globalTraceCounter = nullptr, TimestampSource clock = nullptr);

    ~TraceStream();
    TraceStream(const TraceStream&) = delete;
    TraceStream& operator=(const TraceStream&) = delete;

    // Writes a text trace. traceID 0 draws the next ID, timestamp 0 reads the clock, a null file
    // name writes no location. Parameters may be shortened in place when they do not fit.
    // Lock-free, allocation-free; messages longer than one entry are split.
    void Write(uint32_t traceID, int32_t moduleID, uint32_t threadID, uint64_t timestamp,
               uint32_t severityMask, const char* fileName, uint32_t lineNumber, const char* message,
               uint8_t parameterCount, ::TraceParameter* parameters, uint32_t firstPartID = 0);

    // Writes a text trace of the calling thread with the next ID and the buffer's clock: the
    // producer's common case, sized once and copied straight into the ring; traces that need
    // cutting or splitting go on to Write.
    void WriteText(int32_t moduleID, uint32_t severityMask, const char* fileName, uint32_t lineNumber,
                   const char* message, uint8_t parameterCount, ::TraceParameter* parameters);

    // Writes a binary trace (an ID whose text the reader looks up instead of a message).
    void Write(uint32_t traceID, int32_t moduleID, uint32_t threadID, uint64_t timestamp,
               uint32_t severityMask, const char* fileName, uint32_t lineNumber,
               const uint64_t& binaryTraceId, uint8_t parameterCount, ::TraceParameter* parameters);

    // The buffer was unregistered while engines still hold the stream: the memory stays mapped
    // for them, but every further write is dropped, and the first one reported to the event log.
    void MarkDeleted() { m_deleted.store(true, std::memory_order_relaxed); }
    bool IsDeleted() const { return m_deleted.load(std::memory_order_relaxed); }
    // The event-log report of a write through a deleted stream; only the first one is reported.
    [[gnu::cold]] void ReportWriteToDeletedStream(const char* message);
    [[gnu::cold]] void ReportWriteToDeletedStream(uint64_t binaryTraceId);

    // Connects a cursor: positions it on the oldest intact entry, or behind startTraceID when that
    // is given. ReaderAlreadyConnected when the cursor belongs to another buffer.
    ErrorType ConnectReader(TraceReaderInfo& info, uint32_t startTraceID) const;

    // Appends up to maxTraces new traces (0 or more than TraceReadLimit: TraceReadLimit), sorted
    // by ID. overflow tells that traces were lost; the output then holds a trace saying so, and
    // info.Statistics counts them (from the gap in the IDs).
    void Read(TraceReaderInfo& info, std::vector<std::unique_ptr<Trace>>& traces, bool& overflow,
              uint32_t maxTraces) const;

    bool AreNewTracesAvailable(const TraceReaderInfo& info) const;
    bool AreAnyTracesAvailable() const;
    // The trace-ID counter in use (the global one with global trace IDs).
    uint32_t GetTotalTraceCounter() const;
    uint32_t GetTraceBufferSize() const { return m_size; }

    static const char* ErrorText(ErrorType error);

private:
    // Parameters as they will be serialised: the first count records of params whose type is
    // written, size bytes in all.
    struct ParameterPlan {
        const ::TraceParameter* params;
        uint8_t count;
        uint32_t size;
    };

    // Everything one entry carries.
    struct EntryPlan {
        uint32_t traceID;
        int32_t moduleID;
        uint32_t threadID;
        uint64_t timestamp;
        uint32_t severityMask;
        uint32_t firstPartID;
        const char* message;            // text traces: messageSize - 1 characters are written
        uint32_t messageSize;           // with the terminator; 0 for a binary trace
        const uint64_t* binaryTraceId;  // binary traces only
        ParameterPlan parameters;
        const char* fileName;
        uint32_t fileNameLength;
        uint32_t lineNumber;
        uint32_t locationSize;
        uint8_t splitMarker;
    };

    struct Fnv1aHash {
        size_t operator()(uint32_t key) const noexcept {
            uint32_t hash = 2166136261u;
            for (int i = 0; i < 4; ++i) {
                hash ^= (key >> (8 * i)) & 0xFFu;
                hash *= 16777619u;
            }
            return hash;
        }
    };

    TraceStream(const TraceBuffer* owner, TraceBufferData* header, char* ringStart,
                uint32_t* globalTraceCounter, TimestampSource clock);
    static TraceStream* Build(const TraceBuffer* owner, TraceBufferData* header, char* ringStart,
                              uint32_t* globalTraceCounter, TimestampSource clock);

    std::atomic_ref<uint32_t> TraceIdCounter() const { return m_traceIdCounter; }

    // --- writing
    // The location block of an entry: the file name, cut to its last MaxFileNameLength characters.
    [[gnu::always_inline]] static void PlanLocation(EntryPlan& plan, const char* fileName);
    [[gnu::always_inline]] static ParameterPlan PlanParameters(uint32_t locationSize, uint8_t count,
                                                               ::TraceParameter* params);
    [[gnu::cold]] static ParameterPlan TruncateParameters(uint32_t locationSize, uint8_t count,
                                                          ::TraceParameter* params);
    // Cuts the longest string parameters until parameters and location fit into
    // TraceData::MaxParameterSize; returns 0 when only parameters that cannot be cut are too long.
    static uint64_t doParamTruncation(uint32_t locationSize, uint8_t count, ::TraceParameter* params);
    [[gnu::cold]] static uint32_t ShrinkParameters(uint32_t locationSize, uint8_t count,
                                                   ::TraceParameter* params);
    // Reserves entrySize bytes and numbers them: id 0 draws the next ID, another one is used and
    // continued from.
    [[gnu::always_inline]] TraceData& Reserve(uint32_t entrySize, uint32_t& id);
    [[gnu::always_inline]] uint64_t TakeTimestamp() const;
    // Reserves, numbers and fills one entry; returns its TraceID.
    [[gnu::always_inline]] uint32_t WriteEntry(const EntryPlan& plan);
    [[gnu::cold]] void WriteLongMessage(EntryPlan plan, uint32_t messageSize);
    // After the per-buffer counter wrapped to 0: removes its carry from the write index and
    // returns the next ID.
    [[gnu::cold]] uint32_t TakeBackCounterCarry();

    // --- reading
    const TraceData& EntryAt(uint32_t index) const {
        return *reinterpret_cast<const TraceData*>(m_ringStart + (index & m_mask));
    }
    // Copies the header at index into entry; false when the position cannot hold an entry.
    bool LoadEntry(uint32_t index, TraceData& entry) const;
    static bool IsValidTraceData(const TraceData& entry);
    // Valid and large enough for its own data, in steps of 8: a reader may advance by its Size.
    static bool IsUsableTraceData(const TraceData& entry);
    bool IsOldTraceData(const TraceData& entry, uint32_t counter) const;
    // Samples the ID counter and then the write index as the cursor's next floor; returns the index.
    uint32_t SampleFloor(TraceReaderInfo& info) const;
    // Whether the complete entry at position is left from an earlier lap.
    bool IsStale(const TraceReaderInfo& info, const TraceData& entry, uint32_t position) const;
    // Whether the copy of the entry at position (header copy in entry) can be trusted.
    bool IsCopyWhole(const TraceData& shared, const TraceData& entry, uint32_t position) const;
    bool IsChainIntact(const TraceReaderInfo& info, uint32_t position, uint32_t size,
                       uint32_t writeIndex) const;
    // Whether the entry at the cursor has stayed incomplete for longer than a writer can take.
    bool StallOutlasted(TraceReaderInfo& info) const;
    // Moves the cursor forward to the first intact entry of the current lap at or after from.
    // False when there is none: the cursor then stands at the write index.
    bool Resync(TraceReaderInfo& info, uint32_t from, uint64_t& timestamp) const;
    uint64_t FindFirstUnreadTraceEntry(TraceReaderInfo& info) const;
    void SkipTo(TraceReaderInfo& info, uint32_t startTraceID) const;
    ErrorType ReadOneTrace(TraceReaderInfo& info, std::vector<std::unique_ptr<Trace>>& pending,
                           uint32_t writeIndexSnapshot) const;
    ErrorType ReadContinuation(TraceReaderInfo& info, const TraceData& entry, const TraceData& shared,
                               std::vector<std::unique_ptr<Trace>>& pending) const;
    void AddSyntheticTrace(const TraceReaderInfo& info, std::vector<std::unique_ptr<Trace>>& traces,
                           const std::string& text, uint64_t timestamp) const;
    uint64_t Now() const;

    const TraceBuffer* m_buffer;
    TraceBufferData* m_header;
    uint32_t* m_globalTraceCounter;  // null: the header's total trace counter numbers the traces
    TimestampSource m_clock;         // null: m_timer
    TraceTimer* m_timer;             // looked up once, not on every write
    uint32_t m_size;
    uint32_t m_mask;
    char* m_ringStart;
    const char* m_spillEnd;
    uint32_t m_maxSplitLength;  // longest message (with parameters and location) that is split
    uint32_t m_idTolerance;     // how far behind the cursor a concurrently written entry may be
    std::atomic<bool> m_deleted{false};
    std::atomic<bool> m_deletedReported{false};
    // The shared words a write touches, resolved once so that a write does not chase the header.
    std::atomic_ref<uint32_t> m_writeIndex;
    std::atomic_ref<uint32_t> m_traceIdCounter;
    std::atomic_ref<uint32_t> m_totalTraceCounter;
    std::atomic_ref<uint8_t> m_ringWasFilled;
    // Per-buffer IDs: the header's counter and write index as one word; null with global IDs.
    uint64_t* m_counterAndIndex;

    // First parts of split messages waiting for their remaining parts, by first-part TraceID.
    mutable std::unordered_map<uint32_t, std::unique_ptr<Trace>, Fnv1aHash> m_splitTraces;
    mutable std::mutex m_readMutex;
};

}  // namespace Tracing
