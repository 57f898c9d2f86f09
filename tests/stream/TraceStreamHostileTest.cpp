// Rings that hold garbage: corrupted, torn or random entries must never crash or hang the reader,
// nor the formatting of what it returns.
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "StreamTestRing.h"

using namespace Tracing;
using namespace Tracing::Test;

namespace {

struct Written {
    uint32_t position;
    uint32_t id;
};

// A mix of every entry kind, straddling the ring's end; returns where each entry starts.
std::vector<Written> FillWithMixedTraces(TestRing& ring) {
    std::vector<Written> written;
    ring.header->GetAtomicWriteIndex().store(4096);
    const int32_t i32 = -5;
    const uint64_t u64 = 1ull << 40;
    const double dbl = 2.5;
    const bool yes = true;
    const std::string longText(2500, 'L'), midText(40, 's');
    ParamList params;
    params.Add(ParameterTypes::Int32, &i32)
        .Add(ParameterTypes::UInt64, &u64)
        .Add(ParameterTypes::Double, &dbl);
    params.Add(ParameterTypes::Bool, &yes).Add(ParameterTypes::String, midText.c_str());
    params.Add(ParameterTypes::WideString, u"wide");
    for (int n = 0; ring.WriteIndex() < 4096 + 16384 - 3 * TraceData::MaxSize; ++n) {
        const uint32_t position = ring.WriteIndex();
        if (n % 6 == 0)
            ring.Write("%1 %2:x %3 %4 %5 %{6} %7", params, "src/file.cpp");
        else if (n % 6 == 1)
            ring.stream->Write(0, 1, 2, 0, 4, nullptr, 0, uint64_t{99}, params.count, params.raw);
        else if (n % 6 == 2)
            ring.stream->Write(0, 1, 2, 0, 4, "f.c", 1, longText.c_str(), 2, params.raw);
        else if (n % 6 == 3)
            ring.WriteText("one %1", 1, params.raw);
        else if (n % 6 == 4)
            ring.stream->Write(0, 1, 2, 0, 4, nullptr, 0, uint64_t{7}, 0, nullptr);
        else
            ring.WriteText("");
        for (uint32_t p = position; p != ring.WriteIndex(); p += ring.EntryAt(p).Size)
            written.push_back({p, ring.EntryAt(p).TraceID});
    }
    return written;
}

// Changes an entry so that it stays readable (valid header, sizes within its own span) while its
// contents turn into nonsense.
void CorruptReadably(TestRing& ring, const Written& target, std::mt19937& rng) {
    TraceData& entry = ring.EntryAt(target.position);
    auto pick = [&rng](uint32_t bound) { return std::uniform_int_distribution<uint32_t>(0, bound)(rng); };
    switch (pick(3)) {
        case 0: {  // data bytes
            const uint32_t offset =
                TraceData::SizeWithoutData + pick(entry.Size - TraceData::SizeWithoutData - 1);
            reinterpret_cast<char*>(&entry)[offset] = static_cast<char>(pick(255));
            break;
        }
        case 1: {  // the sizes cut the data at other places
            const uint32_t room = entry.Size - TraceData::SizeWithoutData;
            const uint32_t message = pick(1) != 0 ? 0 : pick(std::min(room, 2008u));
            const uint32_t left = room - (message == 0 ? 8 : message);
            const uint32_t location = std::min(left, pick(1) != 0 ? 0 : 5 + pick(250));
            entry.MessageSize = static_cast<uint16_t>(message);
            entry.LocationSize = static_cast<uint8_t>(location);
            entry.ParameterSize =
                static_cast<uint16_t>(std::min(pick(left - location), 2008 - message - location));
            if (entry.LocationSize > 0 && entry.LocationSize < 5)
                entry.LocationSize = 0;
            break;
        }
        case 2:  // split parts that belong to nothing, or to the wrong trace
            entry.SplitMarker = pick(1) != 0 ? TraceData::Split : TraceData::NotSplit;
            entry.FirstPartID = pick(2) == 0 ? 0 : target.id - pick(3);
            break;
        default:  // numbers no reader can check
            entry.SetTimestamp((uint64_t{pick(UINT32_MAX)} << 32) | pick(UINT32_MAX));
            entry.ModuleID = static_cast<int32_t>(pick(UINT32_MAX));
            entry.SeverityMask = pick(UINT32_MAX);
            break;
    }
}

// Formats every record; only the formatting itself is under test (sanitizers watch the reads).
void FormatAll(const std::vector<std::unique_ptr<Trace>>& traces) {
    size_t total = 0;
    for (const auto& trace : traces)
        total += trace->GetFormattedMessage().size() + trace->GetFileName().size();
    EXPECT_LT(total, size_t{1} << 30);
}

}  // namespace

TEST(TraceStreamHostile, CorruptedEntriesAreReadBoundedInManyRounds) {
    TestRing ring(16384);
    const std::vector<Written> written = FillWithMixedTraces(ring);
    ASSERT_GT(written.size(), 20u);
    const std::vector<char> pristine(ring.Ring(), ring.Ring() + ring.RingBytes());

    std::mt19937 rng(20240611);
    for (int round = 0; round < 5000; ++round) {
        std::memcpy(ring.Ring(), pristine.data(), pristine.size());
        const size_t first = std::uniform_int_distribution<size_t>(0, written.size() - 1)(rng);
        // Wild bytes anywhere are the next test's business: here every entry stays readable.
        for (int k = 1 + rng() % 3; k > 0; --k)
            CorruptReadably(ring, written[std::min(written.size() - 1, first + rng() % 4)], rng);
        TraceReaderInfo info;
        info.Buffer = TestRing::Owner();
        info.ReadIndex = written[first].position;
        info.LastTraceID = written[first].id - 1;
        bool overflow = false;
        auto traces = ring.Read(info, 4, &overflow);
        ASSERT_LE(traces.size(), 4u);
        ASSERT_FALSE(overflow) << "round " << round << ": readable entries are no overflow";
        FormatAll(traces);
    }
}

TEST(TraceStreamHostile, RandomRingsNeverHangTheReader) {
    TestRing ring(16384);
    std::mt19937 rng(77);
    for (int round = 0; round < 20; ++round) {
        for (size_t i = 0; i < ring.RingBytes(); ++i)
            ring.Ring()[i] = static_cast<char>(rng());
        uint32_t writeIndex = static_cast<uint32_t>(rng());
        if (round % 2 == 1) {
            // A chain of headers that pass the validity test, with sizes mostly right and sometimes
            // nonsense, IDs mostly rising, the odd torn entry.
            const uint32_t start = (rng() % 2048) * 8;
            uint32_t length = 0;
            uint32_t id = rng();
            while (length < 14000) {
                TraceData& entry = ring.EntryAt(start + length);
                entry.MessageSize = static_cast<uint16_t>(rng() % 60);
                entry.ParameterSize = static_cast<uint16_t>(rng() % 60);
                entry.LocationSize = static_cast<uint8_t>(rng() % 2 == 0 ? 0 : rng() % 20);
                const uint32_t fits = TraceData::SizeWithoutData + ((entry.GetRequiredDataSize() + 7) & ~7u);
                entry.Size = rng() % 20 == 0 ? rng() % 2049 : fits;
                entry.TraceID = rng() % 20 == 0 ? rng() : ++id;
                entry.FirstPartID = rng() % 5 == 0 ? id - rng() % 4 : 0;
                entry.SplitMarker = rng() % 3 == 0 ? TraceData::Split : TraceData::NotSplit;
                entry.TraceIndicator = rng() % 50 == 0 ? 0 : TraceData::TraceIndicatorValue;
                length += fits;
            }
            writeIndex = (writeIndex & ~16383u) + start + length;
        } else if (round % 4 == 0) {
            writeIndex &= ~7u;
        }
        ring.header->GetRingBufferWasFilled().store(1);
        ring.header->GetAtomicWriteIndex().store(writeIndex);
        ring.header->GetAtomicTotalTraceCounter().store(static_cast<uint32_t>(rng()));

        TraceReaderInfo info = ring.Connect();
        for (int read = 0; read < 3; ++read)
            FormatAll(ring.Read(info, 0));
        // A cursor somewhere in the garbage.
        TraceReaderInfo lost;
        lost.Buffer = TestRing::Owner();
        lost.ReadIndex = writeIndex - 8 * (rng() % 2048);
        lost.LastTraceID = static_cast<uint32_t>(rng());
        FormatAll(ring.Read(lost, 50));
        TraceReaderInfo fromId = ring.Connect(static_cast<uint32_t>(rng()));
        FormatAll(ring.Read(fromId, 100));
    }
}
