// A trace buffer laid out in plain memory (header, module slots, ring, spill area) with a stream
// over it, for tests of the ring without shared memory.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Trace/Buffer/TraceBufferData.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Records/TraceParameter.h"

namespace Tracing::Test {

// Deterministic clock: every read is 10 units later.
inline std::atomic<uint64_t> g_testTime{1000000};
inline uint64_t TestClock(TimestampMode::Type) {
    return g_testTime.fetch_add(10) + 10;
}

// Up to nine parameter records, freed at the end of the scope.
struct ParamList {
    ParamList() = default;
    ParamList(const ParamList&) = delete;
    ~ParamList() {
        for (uint8_t i = 0; i < count; ++i)
            TraceParameter::Clear(raw[i]);
    }
    ParamList& Add(ParameterTypes::Values type, const void* value) {
        TraceParameter::Init(raw[count++], type, value);
        return *this;
    }
    ::TraceParameter raw[TraceParameter::MaxParameters] = {};
    uint8_t count = 0;
};

class TestRing {
public:
    // Two module slots put the ring start on a 4-byte (not 8-byte) boundary, as in real buffers
    // with an even slot count.
    explicit TestRing(uint32_t ringSize, unsigned modules = 2, bool globalIds = false,
                      uint32_t* globalCounter = nullptr)
        : m_headerSize(TraceBufferData::GetSize(modules)),
          m_memory((m_headerSize + ringSize + TraceData::MaxSize + 7) / 8) {
        EXPECT_EQ(TraceBufferData::Create(header, m_memory.data(), m_headerSize, ringSize, 7, 4242,
                                          TimestampMode::PRECISE, "host", "system", "app", "sub"),
                  SHMErrorCodes::Success);
        header->SetGlobalTraceID(globalIds);
        stream.reset(TraceStream::Create(Owner(), header, Ring(), globalCounter, &TestClock));
    }

    static const TraceBuffer* Owner() { return reinterpret_cast<const TraceBuffer*>(&s_ownerTag); }
    static const TraceBuffer* OtherOwner() { return reinterpret_cast<const TraceBuffer*>(&s_otherTag); }

    char* Ring() { return reinterpret_cast<char*>(m_memory.data()) + m_headerSize; }
    size_t RingBytes() const { return header->GetRingBufferSize() + TraceData::MaxSize; }
    TraceData& EntryAt(uint32_t position) {
        return *reinterpret_cast<TraceData*>(Ring() + (position & (header->GetRingBufferSize() - 1)));
    }
    uint32_t WriteIndex() const { return header->GetAtomicWriteIndex().load(); }

    void WriteText(const char* message, uint8_t count = 0, ::TraceParameter* params = nullptr,
                   uint64_t timestamp = 0, uint32_t traceID = 0) {
        stream->Write(traceID, 1, 77, timestamp, 4, nullptr, 0, message, count, params);
    }

    void Write(const char* message, ParamList& params, const char* file = nullptr) {
        stream->Write(0, 1, 77, 0, 4, file, 9, message, params.count, params.raw);
    }

    TraceReaderInfo Connect(uint32_t startTraceID = 0) {
        TraceReaderInfo info;
        EXPECT_EQ(stream->ConnectReader(info, startTraceID), TraceStream::Ok);
        return info;
    }

    std::vector<std::unique_ptr<Trace>> Read(TraceReaderInfo& info, uint32_t maxTraces = 0,
                                             bool* overflow = nullptr) {
        std::vector<std::unique_ptr<Trace>> traces;
        bool lost = false;
        stream->Read(info, traces, lost, maxTraces);
        if (overflow != nullptr)
            *overflow = lost;
        return traces;
    }

    TraceBufferData* header = nullptr;
    std::unique_ptr<TraceStream> stream;

private:
    static inline int s_ownerTag = 0;
    static inline int s_otherTag = 0;
    uint64_t m_headerSize;
    std::vector<uint64_t> m_memory;
};

}  // namespace Tracing::Test
