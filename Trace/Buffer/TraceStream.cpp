#include "Trace/Buffer/TraceStream.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Records/TraceParameter.h"
#include "Trace/Time/TraceTimer.h"
#include "platform/Clock.h"
#include "platform/EventLog.h"
#include "platform/Thread.h"

namespace Tracing {
namespace {

constexpr const char* RemovedMessage = "Trace was longer than the ring buffer! Removed.";
constexpr const char* OverflowMessage = "Trace overflow. Buffer Size: %1 MB. Error: '%2'.";
constexpr const char* UnrecoverableOverflowMessage = "Couldn't recover from trace overflow!";
constexpr const char* IncompleteTraceMessage =
    "There was a trace in buffer '%1' which wasn't completely written in 10 milliseconds.";

constexpr uint32_t MaxParameters = TraceParameter::MaxParameters;
// The location size is one byte: 4 for the line, the name, 1 for its terminator.
constexpr uint32_t MaxFileNameLength = 255 - 5;
// IDs this far apart are an ID wrap, not an old entry.
constexpr uint32_t IdWrapDistance = 0x80000000u;
// A trace whose timestamp is this much older than the previous one keeps its own.
constexpr uint64_t TimestampJitter = 1000000;
// Ring-bytes-per-MiB factor of the overflow text.
constexpr float BytesToMiB = 9.536743e-7f;
// Split assemblies in progress; a legitimate ring has about one per writing thread.
constexpr size_t MaxPendingSplitTraces = 1024;
constexpr unsigned IncompleteTraceRetries = 10;
// Resynchronisations in one read; a real ring needs one per lap the reader fell behind.
constexpr unsigned MaxResyncsPerRead = 64;
constexpr unsigned SuccessorsToAccept = 5;
// A writer holds its span for one copy of at most 2 KiB, and each read already waits 10 ms for it.
// A span still incomplete ten update cycles (500 ms) after it was first seen has a writer that died
// or is descheduled far beyond what even an overloaded machine does to a runnable thread (tens of
// ms; at 200 ms a busy two-core machine still showed false losses). Waiting longer only delays the
// buffer's later traces: a writer that laps the waiting reader is handled as an overflow anyway.
constexpr uint32_t StallLimitMs = 500;

// Types that are serialised: 1 to 12. Invalid and unknown values are left out.
inline bool IsWrittenType(uint16_t type) {
    return static_cast<uint16_t>(type - 1) < 12;
}

// The reference types are written as their copied forms.
inline uint8_t SerialisedType(uint16_t type) {
    return static_cast<uint8_t>(type >= ParameterTypes::StringRef ? type - 9 : type);
}

inline bool IsStringType(uint16_t type) {
    return type == ParameterTypes::String || type == ParameterTypes::WideString;
}

// Copies a short text without a library call; longer ones go to memcpy.
inline void CopyText(char* out, const char* in, size_t size) {
    if (size >= 16 && size <= 32) {
        std::memcpy(out, in, 16);
        std::memcpy(out + size - 16, in + size - 16, 16);
    } else if (size >= 8 && size < 16) {
        std::memcpy(out, in, 8);
        std::memcpy(out + size - 8, in + size - 8, 8);
    } else if (size >= 4 && size < 8) {
        std::memcpy(out, in, 4);
        std::memcpy(out + size - 4, in + size - 4, 4);
    } else if (size < 4) {
        for (size_t i = 0; i < size; ++i)
            out[i] = in[i];
    } else {
        std::memcpy(out, in, size);
    }
}

// Length of a zero-terminated text. Short texts (almost every message and file name) are scanned
// inline in aligned 16-byte blocks, which never cross a page, so reading past the terminator is
// harmless; longer ones go to strlen.
#if defined(__SSE2__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
inline size_t TextLength(const char* text) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(text);
    const __m128i* block = reinterpret_cast<const __m128i*>(address & ~uintptr_t{15});
    const __m128i zero = _mm_setzero_si128();
    const unsigned first =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_load_si128(block), zero))) >>
        (address & 15);
    if (first != 0) [[likely]]
        return static_cast<size_t>(__builtin_ctz(first));
    for (int i = 0; i < 3; ++i) {
        ++block;
        const unsigned mask =
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_load_si128(block), zero)));
        if (mask != 0)
            return static_cast<size_t>(reinterpret_cast<const char*>(block) - text) + __builtin_ctz(mask);
    }
    ++block;
    const char* rest = reinterpret_cast<const char*>(block);
    return static_cast<size_t>(rest - text) + std::strlen(rest);
}
#else
inline size_t TextLength(const char* text) {
    return std::strlen(text);
}
#endif

// Modular ID order: a later ID, also across the wrap from 0xFFFFFFFF to 1.
inline bool IsNewerID(uint32_t id, uint32_t last) {
    return id > last || last - id >= IdWrapDistance;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction

uint64_t TraceStream::GetSize(uint32_t size) {
    if (size == 0)
        size = TraceConfigurationPrivate::GetInstance().GetTraceStreamSize();
    if (size == 0)
        return TraceData::MaxSize;
    return std::bit_ceil(static_cast<uint64_t>(size)) + TraceData::MaxSize;
}

TraceStream* TraceStream::Create(const TraceBuffer* owner, TraceBufferData* header, char* ringStart,
                                 uint32_t* globalTraceCounter, TimestampSource clock) {
    return Build(owner, header, ringStart, globalTraceCounter, clock);
}

TraceStream* TraceStream::Attach(const TraceBuffer* owner, TraceBufferData* header, char* ringStart,
                                 uint32_t* globalTraceCounter, TimestampSource clock) {
    return Build(owner, header, ringStart, globalTraceCounter, clock);
}

TraceStream* TraceStream::Build(const TraceBuffer* owner, TraceBufferData* header, char* ringStart,
                                uint32_t* globalTraceCounter, TimestampSource clock) {
    if (header == nullptr || ringStart == nullptr ||
        reinterpret_cast<uintptr_t>(ringStart) % alignof(TraceData) != 0)
        return nullptr;
    const uint32_t size = header->GetRingBufferSize();
    if (size == 0 || !std::has_single_bit(size))
        return nullptr;
    return new TraceStream(owner, header, ringStart, globalTraceCounter, clock);
}

TraceStream::TraceStream(const TraceBuffer* owner, TraceBufferData* header, char* ringStart,
                         uint32_t* globalTraceCounter, TimestampSource clock)
    : m_buffer(owner),
      m_header(header),
      m_globalTraceCounter(header->GetGlobalTraceID() ? globalTraceCounter : nullptr),
      m_clock(clock),
      m_timer(clock == nullptr ? &TraceTimer::GetInstance() : nullptr),
      m_size(header->GetRingBufferSize()),
      m_mask(m_size - 1),
      m_ringStart(ringStart),
      m_spillEnd(ringStart + m_size + TraceData::MaxSize),
      m_maxSplitLength((m_size >> 11) * (TraceData::MaxDataSize - 1)),
      m_idTolerance(m_size >> 12),
      m_writeIndex(header->GetAtomicWriteIndex()),
      m_traceIdCounter(m_globalTraceCounter != nullptr ? std::atomic_ref<uint32_t>(*m_globalTraceCounter)
                                                       : header->GetAtomicTotalTraceCounter()),
      m_totalTraceCounter(header->GetAtomicTotalTraceCounter()),
      m_ringWasFilled(header->GetRingBufferWasFilled()),
      m_counterAndIndex(m_globalTraceCounter == nullptr ? header->GetCounterAndWriteIndex() : nullptr) {}

TraceStream::~TraceStream() {
    m_splitTraces.clear();
    m_buffer = nullptr;
    m_header = nullptr;
    m_globalTraceCounter = nullptr;
    m_timer = nullptr;
    m_ringStart = nullptr;
    m_counterAndIndex = nullptr;
    m_spillEnd = nullptr;
}

// ---------------------------------------------------------------------------------------------
// Writing

inline void TraceStream::PlanLocation(EntryPlan& plan, const char* fileName) {
    plan.fileName = fileName;
    plan.fileNameLength = 0;
    plan.locationSize = 0;
    if (fileName == nullptr)
        return;
    size_t length = TextLength(fileName);
    if (length > MaxFileNameLength) [[unlikely]] {
        // The end of a path names the file; keep that.
        plan.fileName = fileName + (length - MaxFileNameLength);
        length = MaxFileNameLength;
    }
    plan.fileNameLength = static_cast<uint32_t>(length);
    plan.locationSize = plan.fileNameLength + 5;
}

void TraceStream::Write(uint32_t traceID, int32_t moduleID, uint32_t threadID, uint64_t timestamp,
                        uint32_t severityMask, const char* fileName, uint32_t lineNumber, const char* message,
                        uint8_t parameterCount, ::TraceParameter* parameters, uint32_t firstPartID) {
    // One relaxed load, no lock: a deleted stream's memory stays mapped while engines hold it, so a
    // writer that races the deletion still writes into valid memory; the flag only stops writes
    // that come after it.
    if (IsDeleted()) [[unlikely]] {
        ReportWriteToDeletedStream(message);
        return;
    }
    if (message == nullptr) [[unlikely]]
        message = "";
    EntryPlan plan;
    plan.traceID = traceID;
    plan.moduleID = moduleID;
    plan.threadID = threadID;
    plan.timestamp = timestamp;
    plan.severityMask = severityMask;
    plan.firstPartID = firstPartID;
    plan.message = message;
    plan.binaryTraceId = nullptr;
    plan.lineNumber = lineNumber;
    PlanLocation(plan, fileName);
    plan.parameters = PlanParameters(plan.locationSize, parameterCount, parameters);
    plan.splitMarker = TraceData::NotSplit;

    const size_t messageSize = TextLength(message) + 1;
    if (messageSize + plan.parameters.size + plan.locationSize > TraceData::MaxDataSize) [[unlikely]] {
        WriteLongMessage(plan, static_cast<uint32_t>(std::min<size_t>(messageSize, UINT32_MAX)));
        return;
    }
    plan.messageSize = static_cast<uint32_t>(messageSize);
    WriteEntry(plan);
}

void TraceStream::Write(uint32_t traceID, int32_t moduleID, uint32_t threadID, uint64_t timestamp,
                        uint32_t severityMask, const char* fileName, uint32_t lineNumber,
                        const uint64_t& binaryTraceId, uint8_t parameterCount, ::TraceParameter* parameters) {
    if (IsDeleted()) [[unlikely]] {
        ReportWriteToDeletedStream(binaryTraceId);
        return;
    }
    EntryPlan plan;
    plan.traceID = traceID;
    plan.moduleID = moduleID;
    plan.threadID = threadID;
    plan.timestamp = timestamp;
    plan.severityMask = severityMask;
    plan.firstPartID = 0;
    plan.message = nullptr;
    plan.messageSize = 0;
    plan.binaryTraceId = &binaryTraceId;
    plan.lineNumber = lineNumber;
    PlanLocation(plan, fileName);
    // Parameters and location never pass MaxParameterSize, so the entry stays within MaxSize.
    plan.parameters = PlanParameters(plan.locationSize, parameterCount, parameters);
    plan.splitMarker = TraceData::NotSplit;
    WriteEntry(plan);
}

inline TraceStream::ParameterPlan TraceStream::PlanParameters(uint32_t locationSize, uint8_t count,
                                                              ::TraceParameter* params) {
    if (params == nullptr)
        count = 0;
    count = static_cast<uint8_t>(std::min<uint32_t>(count, MaxParameters));
    uint64_t size = 0;
    for (uint8_t i = 0; i < count; ++i) {
        if (!IsWrittenType(params[i].type))
            continue;
        size += static_cast<uint64_t>(params[i].size) + 1;
        if (size + locationSize > TraceData::MaxParameterSize) [[unlikely]]
            return TruncateParameters(locationSize, count, params);
    }
    return {params, count, static_cast<uint32_t>(size)};
}

TraceStream::ParameterPlan TraceStream::TruncateParameters(uint32_t locationSize, uint8_t count,
                                                           ::TraceParameter* params) {
    uint64_t size = doParamTruncation(locationSize, count, params);
    // Only parameters that are not cut (the reference types) were too long: none are written.
    if (size == 0)
        return {params, 0, 0};
    // Wide strings keep twice their byte budget, and references are never cut; the entry must
    // still fit.
    if (size + locationSize > TraceData::MaxParameterSize)
        size = ShrinkParameters(locationSize, count, params);
    return {params, count, static_cast<uint32_t>(size)};
}

uint64_t TraceStream::doParamTruncation(uint32_t locationSize, uint8_t count, ::TraceParameter* params) {
    const unsigned considered = std::min<unsigned>(count, MaxParameters);
    uint64_t total = locationSize;
    uint64_t length[MaxParameters] = {};
    for (unsigned i = 0; i < considered; ++i) {
        if (!IsWrittenType(params[i].type))
            continue;
        total += 1;
        if (IsStringType(params[i].type)) {
            total += params[i].size;
            length[i] = params[i].size;
        }
    }
    if (total <= TraceData::MaxParameterSize || total <= locationSize)
        return 0;

    while (total > TraceData::MaxParameterSize) {
        unsigned longest = 0;
        for (unsigned i = 1; i < considered; ++i) {
            if (length[i] > length[longest])
                longest = i;
        }
        if (length[longest] == 0)
            break;
        const uint64_t halved = length[longest] / 2;
        total -= length[longest] - halved;
        length[longest] = halved;
    }

    uint64_t size = 0;
    for (unsigned i = 0; i < considered; ++i) {
        if (!IsWrittenType(params[i].type))
            continue;
        if (length[i] < params[i].size)
            TraceParameter::SetTruncated(params[i], static_cast<unsigned>(length[i]));
        size += 1 + static_cast<uint64_t>(params[i].size);
    }
    return size;
}

uint32_t TraceStream::ShrinkParameters(uint32_t locationSize, uint8_t count, ::TraceParameter* params) {
    // Each round halves or removes the largest parameter; nine parameters need few rounds.
    for (int round = 0; round < 64 * static_cast<int>(MaxParameters); ++round) {
        uint64_t size = 0;
        int largest = -1;
        for (unsigned i = 0; i < count; ++i) {
            if (!IsWrittenType(params[i].type))
                continue;
            size += 1 + static_cast<uint64_t>(params[i].size);
            if (largest < 0 || params[i].size > params[largest].size)
                largest = static_cast<int>(i);
        }
        if (size + locationSize <= TraceData::MaxParameterSize || largest < 0)
            return static_cast<uint32_t>(size);
        ::TraceParameter& param = params[largest];
        const uint32_t before = param.size;
        if (param.type == ParameterTypes::String)
            TraceParameter::SetTruncated(param, before / 2);
        else if (param.type == ParameterTypes::WideString)
            TraceParameter::SetTruncated(param, before / 4);
        if (param.size >= before)
            TraceParameter::SetToTooLong(param);
    }
    // Unreachable with at most nine parameters; drop them all rather than overrun the entry.
    return 0;
}

void TraceStream::WriteLongMessage(EntryPlan plan, uint32_t messageSize) {
    const uint64_t wholeSize = static_cast<uint64_t>(messageSize) + plan.parameters.size + plan.locationSize;
    if (wholeSize > m_maxSplitLength) {
        plan.message = RemovedMessage;
        plan.messageSize = static_cast<uint32_t>(std::strlen(RemovedMessage) + 1);
        plan.parameters = {plan.parameters.params, 0, 0};
        WriteEntry(plan);
        return;
    }
    // Every part but the last is a full entry; the first carries parameters and location.
    while (static_cast<uint64_t>(messageSize) + plan.parameters.size + plan.locationSize >
           TraceData::MaxDataSize) {
        const uint32_t partSize = TraceData::MaxDataSize - plan.parameters.size - plan.locationSize;
        plan.messageSize = partSize;
        plan.splitMarker = TraceData::Split;
        const uint32_t id = WriteEntry(plan);
        if (plan.firstPartID == 0)
            plan.firstPartID = id;
        plan.message += partSize - 1;
        messageSize -= partSize - 1;
        plan.parameters = {plan.parameters.params, 0, 0};
        plan.fileName = nullptr;
        plan.fileNameLength = 0;
        plan.locationSize = 0;
        plan.traceID = 0;
    }
    plan.messageSize = messageSize;
    plan.splitMarker = TraceData::NotSplit;
    WriteEntry(plan);
}

inline TraceData& TraceStream::Reserve(uint32_t entrySize, uint32_t& id) {
    uint32_t position;
    if (id == 0 && m_counterAndIndex != nullptr) [[likely]] {
        // Per-buffer IDs: one addition reserves the span and draws the ID. When the counter wraps
        // to 0 it carries 1 into the write index until TakeBackCounterCarry removes it again; the
        // spans are multiples of 8, so rounding down gives every writer its exact position.
        const uint64_t old = std::atomic_ref<uint64_t>(*m_counterAndIndex)
                                 .fetch_add((uint64_t{entrySize} << 32) | 1u, std::memory_order_seq_cst);
        position = static_cast<uint32_t>(old >> 32) & ~7u;
        id = static_cast<uint32_t>(old) + 1;
        if (id == 0) [[unlikely]]
            id = TakeBackCounterCarry();
    } else {
        position = m_writeIndex.fetch_add(entrySize, std::memory_order_seq_cst);
        if (id == 0) [[likely]] {
            id = m_traceIdCounter.fetch_add(1, std::memory_order_seq_cst) + 1;
            if (id == 0) [[unlikely]]
                id = m_traceIdCounter.fetch_add(1, std::memory_order_seq_cst) + 1;
        } else {
            // Automatic IDs continue from a given one.
            m_totalTraceCounter.exchange(id, std::memory_order_seq_cst);
        }
    }

    // The write index now stands at least at the end of our span: testing that end saves a
    // second load of a word every writer is changing.
    if (m_ringWasFilled.load(std::memory_order_seq_cst) == 0 &&
        static_cast<uint64_t>(position) + entrySize > m_mask) [[unlikely]]
        m_ringWasFilled.store(1, std::memory_order_seq_cst);
    return *reinterpret_cast<TraceData*>(m_ringStart + (position & m_mask));
}

inline uint64_t TraceStream::TakeTimestamp() const {
    const TimestampMode::Type mode = m_header->GetTimestampMode();
    return m_clock != nullptr ? m_clock(mode) : m_timer->GetTimestamp(mode);
}

namespace {

// Type byte and value of each written parameter; returns the end of the copy.
inline char* CopyParameters(char* out, const ::TraceParameter* params, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
        // Read before storing: the char stores could alias the record and force reloads.
        const uint16_t type = params[i].type;
        const uint32_t size = params[i].size;
        if (!IsWrittenType(type))
            continue;
        *out++ = static_cast<char>(SerialisedType(type));
        // Numbers: fixed-size copies instead of a library call each.
        switch (size) {
            case 4:
                std::memcpy(out, params[i].data.bytes, 4);
                break;
            case 8:
                std::memcpy(out, params[i].data.bytes, 8);
                break;
            case 1:
                *out = static_cast<char>(params[i].data.bytes[0]);
                break;
            default:
                std::memcpy(out, TraceParameter::GetData(params[i]), size);
                break;
        }
        out += size;
    }
    return out;
}

inline void CopyLocation(char* out, uint32_t lineNumber, const char* fileName, uint32_t fileNameLength) {
    std::memcpy(out, &lineNumber, sizeof lineNumber);
    CopyText(out + 4, fileName, fileNameLength);
    out[4 + fileNameLength] = '\0';
}

}  // namespace

void TraceStream::WriteText(int32_t moduleID, uint32_t severityMask, const char* fileName,
                            uint32_t lineNumber, const char* message, uint8_t parameterCount,
                            ::TraceParameter* parameters) {
    // Sizes are taken once; whatever needs cutting, splitting or a long file name takes Write.
    const unsigned count = parameters != nullptr ? std::min<unsigned>(parameterCount, MaxParameters) : 0;
    const size_t fileNameLength = fileName != nullptr ? TextLength(fileName) : 0;
    const size_t locationSize = fileName != nullptr ? fileNameLength + 5 : 0;
    uint64_t parameterSize = 0;
    for (unsigned i = 0; i < count; ++i) {
        if (IsWrittenType(parameters[i].type))
            parameterSize += static_cast<uint64_t>(parameters[i].size) + 1;
    }
    const size_t messageLength = message != nullptr ? TextLength(message) : 0;
    if (message == nullptr || fileNameLength > MaxFileNameLength ||
        parameterSize + locationSize > TraceData::MaxParameterSize ||
        messageLength + 1 + parameterSize + locationSize > TraceData::MaxDataSize) [[unlikely]] {
        Write(0, moduleID, Platform::CurrentThreadId(), 0, severityMask, fileName, lineNumber, message,
              parameterCount, parameters);
        return;
    }
    const uint32_t dataSize = static_cast<uint32_t>(messageLength + 1 + parameterSize + locationSize);
    const uint32_t entrySize = ((dataSize + 7) & ~7u) + TraceData::SizeWithoutData;

    uint32_t id = 0;
    TraceData& entry = Reserve(entrySize, id);
    const uint64_t timestamp = TakeTimestamp();

    TraceData::BeginWrite(entry);
    TraceData fields;
    fields.Size = entrySize;
    fields.TraceID = id;
    fields.FirstPartID = 0;
    fields.ModuleID = moduleID;
    fields.SetTimestamp(timestamp);
    fields.ThreadID = Platform::CurrentThreadId();
    fields.SeverityMask = severityMask;
    fields.MessageSize = static_cast<uint16_t>(messageLength + 1);
    fields.TraceIndicator = 0;
    fields.ParameterSize = static_cast<uint16_t>(parameterSize);
    fields.LocationSize = static_cast<uint8_t>(locationSize);
    fields.SplitMarker = TraceData::NotSplit;
    TraceData::StoreHeader(entry, fields);

    // Plain copies: this span is ours until Publish; readers re-check the entry after copying.
    char* out = entry.GetData();
    CopyText(out, message, messageLength);
    out[messageLength] = '\0';
    out = CopyParameters(out + messageLength + 1, parameters, count);
    if (fileName != nullptr)
        CopyLocation(out, lineNumber, fileName, static_cast<uint32_t>(fileNameLength));
    TraceData::Publish(entry);
}

inline uint32_t TraceStream::WriteEntry(const EntryPlan& plan) {
    const uint32_t payload = plan.binaryTraceId != nullptr ? TraceData::BinaryTraceIdSize : plan.messageSize;
    const uint32_t dataSize = payload + plan.parameters.size + plan.locationSize;
    const uint32_t entrySize = ((dataSize + 7) & ~7u) + TraceData::SizeWithoutData;

    uint32_t id = plan.traceID;
    TraceData& entry = Reserve(entrySize, id);
    uint64_t timestamp = plan.timestamp;
    if (timestamp == 0)
        timestamp = TakeTimestamp();

    TraceData::BeginWrite(entry);
    TraceData fields;
    fields.Size = entrySize;
    fields.TraceID = id;
    fields.FirstPartID = plan.firstPartID;
    fields.ModuleID = plan.moduleID;
    fields.SetTimestamp(timestamp);
    fields.ThreadID = plan.threadID;
    fields.SeverityMask = plan.severityMask;
    fields.MessageSize = static_cast<uint16_t>(plan.messageSize);
    fields.TraceIndicator = 0;
    fields.ParameterSize = static_cast<uint16_t>(plan.parameters.size);
    fields.LocationSize = static_cast<uint8_t>(plan.locationSize);
    fields.SplitMarker = plan.splitMarker;
    TraceData::StoreHeader(entry, fields);

    // Plain copies: this span is ours until Publish; readers re-check the entry after copying.
    char* out = entry.GetData();
    if (plan.binaryTraceId != nullptr) {
        std::memcpy(out, plan.binaryTraceId, TraceData::BinaryTraceIdSize);
        out += TraceData::BinaryTraceIdSize;
    } else {
        CopyText(out, plan.message, plan.messageSize - 1);
        out[plan.messageSize - 1] = '\0';
        out += plan.messageSize;
    }
    out = CopyParameters(out, plan.parameters.params, plan.parameters.count);
    if (plan.locationSize >= 4)
        CopyLocation(out, plan.lineNumber, plan.fileName, plan.fileNameLength);
    TraceData::Publish(entry);
    return id;
}

uint32_t TraceStream::TakeBackCounterCarry() {
    // Write index - 1 and counter + 1 in one step: the carry goes, and the ID 0 is skipped.
    const uint64_t old = std::atomic_ref<uint64_t>(*m_counterAndIndex)
                             .fetch_add(~uint64_t{0} << 32 | 1u, std::memory_order_seq_cst);
    return static_cast<uint32_t>(old) + 1;
}

void TraceStream::ReportWriteToDeletedStream(const char* message) {
    if (m_deletedReported.exchange(true, std::memory_order_relaxed))
        return;
    TraceMessage text("Failed to write trace message to stream. Object is already deleted.\n%1");
    text.Add(message != nullptr ? message : "");
    Platform::WriteEventLog(Platform::EventType::Warning, "TraceStream", "", text.Format().c_str());
}

void TraceStream::ReportWriteToDeletedStream(uint64_t binaryTraceId) {
    if (m_deletedReported.exchange(true, std::memory_order_relaxed))
        return;
    TraceMessage text("Failed to write binary trace message (%1) to stream. Object is already deleted.");
    text.Add(binaryTraceId);
    Platform::WriteEventLog(Platform::EventType::Warning, "TraceStream", "", text.Format().c_str());
}

// ---------------------------------------------------------------------------------------------
// Reading

bool TraceStream::LoadEntry(uint32_t index, TraceData& entry) const {
    // Positions of real entries are multiples of 8; others come only from a corrupt write index.
    if (index % 8 != 0)
        return false;
    entry = TraceData::Load(EntryAt(index));
    return true;
}

bool TraceStream::IsValidTraceData(const TraceData& entry) {
    return entry.TraceID != 0 && entry.Size <= TraceData::MaxSize &&
           static_cast<uint32_t>(entry.MessageSize) + entry.ParameterSize + entry.LocationSize <=
               TraceData::MaxDataSize &&
           entry.TraceIndicator == TraceData::TraceIndicatorValue &&
           (entry.SplitMarker == TraceData::Split || entry.SplitMarker == TraceData::NotSplit);
}

bool TraceStream::IsUsableTraceData(const TraceData& entry) {
    // A size below its own data or off the 8-byte steps would stall or misalign the cursor.
    return IsValidTraceData(entry) && entry.Size % 8 == 0 &&
           entry.Size >= TraceData::SizeWithoutData + entry.GetRequiredDataSize();
}

// Further behind than concurrent writers explain; 2^31 or more behind is the ID wrap (newer).
bool TraceStream::IsOldTraceData(const TraceData& entry, uint32_t counter) const {
    const uint32_t age = counter - entry.TraceID;
    return counter > entry.TraceID && age > m_idTolerance && age < IdWrapDistance;
}

// Counter first, then the write index: a writer that reserves at or after the sampled index draws
// its ID after the counter was read, so every entry there has a newer ID than the sample.
uint32_t TraceStream::SampleFloor(TraceReaderInfo& info) const {
    const uint32_t counter = GetTotalTraceCounter();
    const uint32_t writeIndex = m_writeIndex.load(std::memory_order_seq_cst);
    if (!info.NextFloorValid) {
        info.NextFloorPosition = writeIndex;
        info.NextFloorID = counter;
        info.NextFloorValid = true;
    }
    return writeIndex;
}

// The floor tells a lap apart by position, which the highest ID read cannot: a writer preempted
// between reserving and numbering publishes an ID far ahead of its neighbours, and the entries
// after it would all look old. An entry of the earlier lap at position p was reserved at p - size
// or before; while p lies less than half a ring behind the floor's position, it was numbered before
// the floor was sampled (give or take the writers then in flight, far fewer than half a ring of
// entries). In the first lap nothing is older; elsewhere only the ID tolerance against the
// highest ID read is left.
bool TraceStream::IsStale(const TraceReaderInfo& info, const TraceData& entry, uint32_t position) const {
    // The flag is set before the first write past the ring's end, read here after the entry.
    if (position < m_size && m_ringWasFilled.load(std::memory_order_seq_cst) == 0)
        return false;
    if (info.FloorValid && position - info.FloorPosition < m_size / 2)
        return !IsNewerID(entry.TraceID, info.FloorID);
    return IsOldTraceData(entry, info.LastTraceID);
}

// Writes of a later lap reach the span only with a reservation that ends more than one ring past
// its position, so a write index loaded after the copy and no further away proves the copy whole.
bool TraceStream::IsCopyWhole(const TraceData& shared, const TraceData& entry, uint32_t position) const {
    return TraceData::IsUnchanged(shared, entry) &&
           m_writeIndex.load(std::memory_order_seq_cst) - position <= m_size;
}

bool TraceStream::StallOutlasted(TraceReaderInfo& info) const {
    const uint32_t now = Platform::TickMs();
    if (!info.Stalled || info.StallPosition != info.ReadIndex) {
        info.Stalled = true;
        info.StallPosition = info.ReadIndex;
        info.StallSince = now;
        return false;
    }
    return now - info.StallSince >= StallLimitMs;
}

// Successors of the current lap that follow on from the entry, up to the write index.
bool TraceStream::IsChainIntact(const TraceReaderInfo& info, uint32_t position, uint32_t size,
                                uint32_t writeIndex) const {
    for (unsigned successors = 0; successors < SuccessorsToAccept; ++successors) {
        position += size;
        if (position == writeIndex)
            return true;
        if (writeIndex - position > m_size)
            return false;
        TraceData next;
        if (!LoadEntry(position, next) || !IsUsableTraceData(next) || IsStale(info, next, position))
            return false;
        size = next.Size;
    }
    return true;
}

bool TraceStream::Resync(TraceReaderInfo& info, uint32_t from, uint64_t& timestamp) const {
    // Counter before index: entries from the index on have newer IDs than the counter.
    const uint32_t counter = GetTotalTraceCounter();
    const uint32_t writeIndex = m_writeIndex.load(std::memory_order_seq_cst);
    from = (from + 7) & ~7u;
    if (writeIndex - from > m_size)
        from = from - writeIndex < IdWrapDistance ? writeIndex : writeIndex - m_size;
    for (uint32_t position = from; position != writeIndex && writeIndex - position <= m_size; position += 8) {
        TraceData candidate;
        if (!LoadEntry(position, candidate) || !IsUsableTraceData(candidate) ||
            IsStale(info, candidate, position) || !IsChainIntact(info, position, candidate.Size, writeIndex))
            continue;
        info.ReadIndex = position;
        if (IsNewerID(candidate.TraceID - 1, info.LastTraceID))
            info.LastTraceID = candidate.TraceID - 1;
        timestamp = candidate.GetTimestamp();
        return true;
    }
    info.ReadIndex = writeIndex;
    if (IsNewerID(counter, info.LastTraceID))
        info.LastTraceID = counter;
    timestamp = 0;
    return false;
}

uint64_t TraceStream::FindFirstUnreadTraceEntry(TraceReaderInfo& info) const {
    info.LastTimestamp = 0;
    if (m_header->GetRingBufferWasFilled().load(std::memory_order_seq_cst) == 0) {
        info.ReadIndex = 0;
        info.LastTraceID = 0;
        return 0;
    }
    const uint32_t writeIndex = m_header->GetAtomicWriteIndex().load(std::memory_order_seq_cst);
    const uint32_t start = writeIndex - m_size;
    for (uint32_t offset = 0; offset < m_size - 1; offset += 8) {
        const uint32_t candidatePosition = start + offset;
        TraceData candidate;
        if (!LoadEntry(candidatePosition, candidate) || !IsUsableTraceData(candidate))
            continue;
        uint32_t position = candidatePosition;
        uint32_t size = candidate.Size;
        unsigned successors = 0;
        for (; successors < SuccessorsToAccept; ++successors) {
            position += size;
            TraceData next;
            if (!LoadEntry(position, next) || !IsUsableTraceData(next))
                break;
            size = next.Size;
        }
        if (successors == SuccessorsToAccept) {
            info.ReadIndex = candidatePosition;
            info.LastTraceID = candidate.TraceID - 1;
            return candidate.GetTimestamp();
        }
    }
    info.ReadIndex = writeIndex;
    info.LastTraceID = GetTotalTraceCounter();
    return 0;
}

TraceStream::ErrorType TraceStream::ConnectReader(TraceReaderInfo& info, uint32_t startTraceID) const {
    if (info.Buffer != nullptr)
        return info.Buffer == m_buffer ? Ok : ReaderAlreadyConnected;
    info.Buffer = m_buffer;
    FindFirstUnreadTraceEntry(info);
    if (startTraceID != 0)
        SkipTo(info, startTraceID);
    // What was skipped to get here is neither delivered nor lost.
    info.Statistics = {};
    info.CountedTraceID = info.LastTraceID;
    info.EntriesSinceCounted = 0;
    return Ok;
}

void TraceStream::SkipTo(TraceReaderInfo& info, uint32_t startTraceID) const {
    const uint32_t counter = GetTotalTraceCounter();
    if (startTraceID >= counter) {
        info.ReadIndex = m_header->GetAtomicWriteIndex().load(std::memory_order_seq_cst);
        info.LastTraceID = counter;
        return;
    }
    // Skip what the caller has seen. Stop when a read moves nothing (the rest is not there yet),
    // and after as many reads as the ring holds entries: a corrupt ring can send the cursor round
    // between resynchronisation points for ever.
    std::vector<std::unique_ptr<Trace>> skipped;
    for (uint32_t reads = 0; info.LastTraceID < startTraceID && reads <= m_size / TraceData::SizeWithoutData;
         ++reads) {
        const uint32_t readIndex = info.ReadIndex;
        const uint32_t lastTraceID = info.LastTraceID;
        bool overflow = false;
        skipped.clear();
        Read(info, skipped, overflow, 1);
        if (info.ReadIndex == readIndex && info.LastTraceID == lastTraceID)
            break;
    }
}

TraceStream::ErrorType TraceStream::ReadContinuation(TraceReaderInfo& info, const TraceData& entry,
                                                     const TraceData& shared,
                                                     std::vector<std::unique_ptr<Trace>>& pending) const {
    const auto found = m_splitTraces.find(entry.FirstPartID);
    if (found != m_splitTraces.end()) {
        // The part's text may lack its terminator: copy at most MessageSize - 1 bytes.
        char text[TraceData::MaxDataSize + 1];
        const size_t length = entry.MessageSize > 0 ? entry.MessageSize - 1u : 0u;
        std::memcpy(text, shared.GetData(), length);
        text[length] = '\0';
        if (!IsCopyWhole(shared, entry, info.ReadIndex))
            return OverflowTraceIDChanged;
        Trace& trace = *found->second;
        // No legitimate message grows beyond the longest split one.
        if (trace.GetMessageString().size() + length > m_maxSplitLength) {
            m_splitTraces.erase(found);
        } else {
            trace.AppendMessage(text);
            if (entry.SplitMarker == TraceData::NotSplit) {
                pending.push_back(std::move(found->second));
                m_splitTraces.erase(found);
            }
        }
    }
    if (IsNewerID(entry.TraceID, info.LastTraceID))
        info.LastTraceID = entry.TraceID;
    ++info.EntriesSinceCounted;
    info.ReadIndex += entry.Size;
    return Ok;
}

TraceStream::ErrorType TraceStream::ReadOneTrace(TraceReaderInfo& info,
                                                 std::vector<std::unique_ptr<Trace>>& pending,
                                                 uint32_t writeIndexSnapshot) const {
    if (writeIndexSnapshot == info.ReadIndex)
        return NoNewTraces;
    uint32_t distance = writeIndexSnapshot - info.ReadIndex;
    if (writeIndexSnapshot < info.ReadIndex)
        --distance;
    if (distance > m_size)
        return OverflowTracesOverwritten;
    if (info.NextFloorValid && info.ReadIndex - info.NextFloorPosition < IdWrapDistance) [[unlikely]] {
        info.FloorPosition = info.NextFloorPosition;
        info.FloorID = info.NextFloorID;
        info.FloorValid = true;
        info.NextFloorValid = false;
    }

    TraceData entry;
    if (!LoadEntry(info.ReadIndex, entry))
        return OverflowTraceUnreadable;
    const TraceData& shared = EntryAt(info.ReadIndex);
    // A writer may still be filling the entry, or may not yet have cleared the earlier lap's one.
    for (unsigned retries = 0; !IsValidTraceData(entry) || IsStale(info, entry, info.ReadIndex); ++retries) {
        if (retries == IncompleteTraceRetries)
            return IncompleteTrace;
        Platform::SleepMs(1);
        if (m_writeIndex.load(std::memory_order_seq_cst) - info.ReadIndex > m_size)
            return OverflowTracesOverwritten;
        entry = TraceData::Load(shared);
    }
    if (!IsUsableTraceData(entry))
        return OverflowTraceUnreadable;
    info.Stalled = false;

    if (entry.FirstPartID != 0)
        return ReadContinuation(info, entry, shared, pending);

    uint64_t timestamp = entry.GetTimestamp();
    uint64_t lastTimestamp = info.LastTimestamp;
    if (timestamp == 0) {
        timestamp = entry.TraceID;
    } else if (lastTimestamp <= timestamp || lastTimestamp - timestamp > TimestampJitter) {
        lastTimestamp = timestamp;
    } else {
        timestamp = lastTimestamp;
    }

    // The data bytes are copied as they stand (bounded by the spill end) and trusted only once
    // IsCopyWhole shows that no writer can have reached them meanwhile.
    // Default- not value-initialised: make_unique would first zero the whole record.
    std::unique_ptr<Trace> trace(new Trace);
    const bool created = trace->Create(entry.TraceID, m_header->GetBufferID(), entry.ModuleID, timestamp,
                                       m_header->GetProcessID(), entry.ThreadID, entry.SeverityMask,
                                       entry.MessageSize, entry.ParameterSize, entry.LocationSize,
                                       shared.GetData(), info.AttachBuffer ? m_buffer : nullptr, m_spillEnd);
    if (!IsCopyWhole(shared, entry, info.ReadIndex))
        return OverflowTraceIDChanged;
    if (!created)
        return OverflowTraceUnreadable;

    if (entry.SplitMarker == TraceData::Split) {
        if (m_splitTraces.size() >= MaxPendingSplitTraces && !m_splitTraces.contains(entry.TraceID))
            [[unlikely]]
            m_splitTraces.clear();
        m_splitTraces[entry.TraceID] = std::move(trace);
    } else {
        pending.push_back(std::move(trace));
    }
    if (IsNewerID(entry.TraceID, info.LastTraceID))
        info.LastTraceID = entry.TraceID;
    info.LastTimestamp = lastTimestamp;
    ++info.EntriesSinceCounted;
    info.ReadIndex += entry.Size;
    return Ok;
}

uint64_t TraceStream::Now() const {
    const TimestampMode::Type mode = m_header->GetTimestampMode();
    return m_clock != nullptr ? m_clock(mode) : m_timer->GetTimestamp(mode);
}

void TraceStream::AddSyntheticTrace(const TraceReaderInfo& info, std::vector<std::unique_ptr<Trace>>& traces,
                                    const std::string& text, uint64_t timestamp) const {
    std::unique_ptr<Trace> trace(new Trace);
    if (trace->Create(info.LastTraceID, m_header->GetBufferID(), -1, timestamp, m_header->GetProcessID(), 0,
                      Severity::Warning, static_cast<unsigned>(text.size() + 1), 0, 0, text.c_str(),
                      info.AttachBuffer ? m_buffer : nullptr, nullptr))
        traces.push_back(std::move(trace));
}

void TraceStream::Read(TraceReaderInfo& info, std::vector<std::unique_ptr<Trace>>& traces, bool& overflow,
                       uint32_t maxTraces) const {
    std::lock_guard<std::mutex> lock(m_readMutex);
    overflow = false;
    if (info.Buffer != m_buffer)
        return;
    const size_t limit = (maxTraces == 0 || maxTraces > TraceReadLimit) ? TraceReadLimit : maxTraces;
    if (traces.size() >= limit)
        return;
    const size_t wanted = limit - traces.size();

    uint32_t snapshot = SampleFloor(info);
    size_t synthetic = 0;
    unsigned resyncs = 0;
    std::vector<std::unique_ptr<Trace>> collected;
    while (collected.size() < wanted) {
        const ErrorType result = ReadOneTrace(info, collected, snapshot);
        if (result == Ok)
            continue;
        if (result == NoNewTraces)
            break;
        if (result == IncompleteTrace && !StallOutlasted(info)) {
            if (TraceDiagnostics::IsActive(DiagnosticCategory::Buffer))
                TraceDiagnostics::GetInstance().Report(
                    DiagnosticCategory::Buffer, Severity::Warning,
                    TraceMessage(IncompleteTraceMessage).Add(m_header->GetBufferID()));
            break;
        }
        // Only a ring of garbage resynchronises without end; the next read goes on from here.
        if (++resyncs > MaxResyncsPerRead)
            break;

        // Lapped, torn, unreadable or stalled: go on at the next intact entry of this lap. What
        // lies between is lost; its number is the gap in the IDs.
        overflow = true;
        m_splitTraces.clear();
        info.Stalled = false;
        uint64_t timestamp = 0;
        const bool found = Resync(info, info.ReadIndex + 8, timestamp);
        const uint32_t passed =
            IsNewerID(info.LastTraceID, info.CountedTraceID) ? info.LastTraceID - info.CountedTraceID : 0;
        const uint32_t gap = passed > info.EntriesSinceCounted ? passed - info.EntriesSinceCounted : 0;
        info.CountedTraceID = info.LastTraceID;
        info.EntriesSinceCounted = 0;
        // A stalled writer may not have drawn its ID yet: the span it holds is one trace.
        const uint64_t lost = result == IncompleteTrace ? std::max<uint32_t>(gap, 1) : gap;
        info.Statistics.Lost += lost;
        info.Statistics.LargestGap = std::max(info.Statistics.LargestGap, lost);
        ++info.Statistics.Overflows;
        if (timestamp == 0)
            timestamp = Now();
        if (found) {
            TraceMessage text(OverflowMessage);
            text.Add(static_cast<float>(m_size) * BytesToMiB).Add(ErrorText(result));
            AddSyntheticTrace(info, collected, text.Format(), timestamp);
        } else {
            AddSyntheticTrace(info, collected, UnrecoverableOverflowMessage, timestamp);
        }
        ++synthetic;
        // Taken after the cursor moved, so that the cursor never lies beyond the snapshot.
        snapshot = m_writeIndex.load(std::memory_order_seq_cst);
    }
    info.Statistics.Delivered += collected.size() - std::min(synthetic, collected.size());

    // Concurrent writers publish slightly out of ID order; usually there is nothing to sort.
    if (!std::is_sorted(collected.begin(), collected.end(), Trace::LessById))
        std::stable_sort(collected.begin(), collected.end(), Trace::LessById);
    traces.reserve(traces.size() + collected.size());
    for (auto& trace : collected)
        traces.push_back(std::move(trace));
}

bool TraceStream::AreNewTracesAvailable(const TraceReaderInfo& info) const {
    return info.Buffer == m_buffer &&
           m_header->GetAtomicWriteIndex().load(std::memory_order_seq_cst) != info.ReadIndex;
}

bool TraceStream::AreAnyTracesAvailable() const {
    return m_header->GetAtomicWriteIndex().load(std::memory_order_seq_cst) != 0;
}

uint32_t TraceStream::GetTotalTraceCounter() const {
    return TraceIdCounter().load(std::memory_order_seq_cst);
}

const char* TraceStream::ErrorText(ErrorType error) {
    switch (error) {
        case Ok:
            return "Ok";
        case NoNewTraces:
            return "There are no new traces";
        case ReaderAlreadyConnected:
            return "The reader is already connected";
        case IncompleteTrace:
            return "There's a not completely written trace in the buffer";
        case OverflowUnknown:
            return "Overflow, reason: unknown";
        case OverflowTracesOverwritten:
            return "Buffer is full, unread traces were overwritten";
        case OverflowTraceUnreadable:
            return "Buffer is full, couldn't read the current trace";
        case OverflowTraceIDChanged:
            return "Buffer is full, the ID of the current trace changed during reading";
    }
    return "Unknown error";
}

}  // namespace Tracing
