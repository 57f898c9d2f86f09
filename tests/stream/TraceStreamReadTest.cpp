// Reading: connecting cursors, resynchronisation after a wrap, overflow recovery, limits,
// timestamps, torn entries and concurrent writers.
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "StreamTestRing.h"

using namespace Tracing;
using namespace Tracing::Test;

TEST(TraceStreamRead, ConnectReaderOnceAndFromAGivenTrace) {
    TestRing ring(16384);
    for (int i = 0; i < 100; ++i)
        ring.WriteText("trace");

    TraceReaderInfo info = ring.Connect();
    EXPECT_EQ(ring.stream->ConnectReader(info, 0), TraceStream::Ok) << "same buffer again";
    TraceReaderInfo foreign;
    foreign.Buffer = TestRing::OtherOwner();
    EXPECT_EQ(ring.stream->ConnectReader(foreign, 0), TraceStream::ReaderAlreadyConnected);
    EXPECT_FALSE(ring.stream->AreNewTracesAvailable(foreign));
    EXPECT_TRUE(ring.Read(foreign).empty());

    TraceReaderInfo fromId = ring.Connect(40);
    auto traces = ring.Read(fromId);
    ASSERT_EQ(traces.size(), 60u);
    EXPECT_EQ(traces.front()->GetID(), 41u);

    TraceReaderInfo fromFuture = ring.Connect(100);
    EXPECT_FALSE(ring.stream->AreNewTracesAvailable(fromFuture));
    ring.WriteText("new");
    traces = ring.Read(fromFuture);
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0]->GetID(), 101u);
}

TEST(TraceStreamRead, ConnectAfterAWrapStartsAtTheOldestIntactEntry) {
    TestRing ring(16384);
    const std::string message(31, 'm');  // 72-byte entries: the oldest one is cut by the newest
    for (int i = 0; i < 300; ++i)
        ring.WriteText(message.c_str());
    // The oldest whole entry starts at or after write index - size: 72 * 73 >= 21600 - 16384.
    TraceReaderInfo info = ring.Connect();
    EXPECT_EQ(info.ReadIndex, 72u * 73);
    EXPECT_EQ(info.LastTraceID, 73u);
    auto traces = ring.Read(info);
    ASSERT_EQ(traces.size(), 300u - 73);
    for (size_t i = 0; i < traces.size(); ++i)
        ASSERT_EQ(traces[i]->GetID(), 74u + i);

    // Nothing intact in a filled ring: start at the write index.
    std::memset(ring.Ring(), 0, ring.RingBytes());
    TraceReaderInfo late = ring.Connect();
    EXPECT_EQ(late.ReadIndex, ring.WriteIndex());
    EXPECT_EQ(late.LastTraceID, 300u);
}

TEST(TraceStreamRead, AReaderLeftBehindGetsAnOverflowTraceAndReadsOn) {
    TestRing ring(1 << 20);
    TraceReaderInfo info = ring.Connect();
    const std::string message(23, 'o');
    for (int i = 0; i < 20000; ++i)  // 1.28 MB into a 1 MiB ring
        ring.WriteText(message.c_str());

    bool overflow = false;
    auto traces = ring.Read(info, 0, &overflow);
    EXPECT_TRUE(overflow);
    ASSERT_GT(traces.size(), 2u);
    const Trace& lost = *traces[0];
    EXPECT_EQ(lost.GetMessageString(),
              "Trace overflow. Buffer Size: 1 MB. Error: 'Buffer is full, unread traces were overwritten'.");
    EXPECT_EQ(lost.GetSeverityMask(), 3u);
    for (size_t i = 2; i < traces.size(); ++i)
        ASSERT_EQ(traces[i]->GetID(), traces[i - 1]->GetID() + 1);
    EXPECT_EQ(traces.back()->GetID(), 20000u);

    ring.WriteText("later");
    traces = ring.Read(info, 0, &overflow);
    EXPECT_FALSE(overflow);
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0]->GetID(), 20001u);
}

TEST(TraceStreamRead, LimitsAndTraceIdWrap) {
    TestRing ring(4 << 20);
    TraceReaderInfo info = ring.Connect();
    for (int i = 0; i < 60000; ++i)
        ring.WriteText("x");
    EXPECT_EQ(ring.Read(info, 0).size(), TraceStream::TraceReadLimit);
    EXPECT_EQ(ring.Read(info, 7).size(), 7u);
    EXPECT_EQ(ring.Read(info, 100000).size(), 60000u - 50007u);

    // A reader keeps reading when the IDs wrap from 0xFFFFFFFF to 1.
    TestRing wrapping(16384);
    wrapping.header->GetAtomicTotalTraceCounter().store(0xFFFFFFF0u);
    TraceReaderInfo cursor = wrapping.Connect();
    for (int i = 0; i < 40; ++i)
        wrapping.WriteText("w");
    bool overflow = true;
    EXPECT_EQ(wrapping.Read(cursor, 0, &overflow).size(), 40u);
    EXPECT_FALSE(overflow);
    for (int i = 0; i < 10; ++i)
        wrapping.WriteText("w");
    auto traces = wrapping.Read(cursor);
    ASSERT_EQ(traces.size(), 10u);
    EXPECT_EQ(traces[0]->GetID(), 26u);
}

TEST(TraceStreamRead, TimestampsDoNotRunBackBySmallAmounts) {
    TestRing ring(16384);
    TraceReaderInfo info = ring.Connect();
    for (uint64_t timestamp : {50000000, 49500000, 10000000, 0})  // jitter, far back, from the clock
        ring.WriteText("t", 0, nullptr, timestamp);
    auto traces = ring.Read(info);
    ASSERT_EQ(traces.size(), 4u);
    EXPECT_EQ(traces[0]->GetTimestamp(), 50000000u);
    EXPECT_EQ(traces[1]->GetTimestamp(), 50000000u);
    EXPECT_EQ(traces[2]->GetTimestamp(), 10000000u);
    EXPECT_GT(traces[3]->GetTimestamp(), 1000000u);

    // SEQ_ID buffers store no time (the trace timer gives 0): the reader uses the ID.
    ring.header->SetTimestampMode(TimestampMode::SEQ_ID);
    std::unique_ptr<TraceStream> untimed(TraceStream::Create(TestRing::Owner(), ring.header, ring.Ring()));
    const uint32_t position = ring.WriteIndex();
    untimed->Write(0, 1, 2, 0, 4, nullptr, 0, "s", 0, nullptr);
    EXPECT_EQ(ring.EntryAt(position).GetTimestamp(), 0u);
    traces = ring.Read(info);
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0]->GetTimestamp(), 5u);
}

TEST(TraceStreamRead, AnEntryBeingWrittenHoldsTheCursor) {
    TestRing ring(16384);
    TraceReaderInfo info = ring.Connect();
    ring.WriteText("first");
    const uint32_t torn = ring.WriteIndex();
    ring.WriteText("second");
    TraceData& entry = ring.EntryAt(torn);
    entry.TraceIndicator = 0;  // a writer between clearing and publishing
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ring.Read(info).size(), 1u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10)) << "waited for it";
    EXPECT_EQ(info.ReadIndex, torn);
    TraceData::Publish(entry);
    ASSERT_EQ(ring.Read(info).size(), 1u);
}

namespace {

// Reads until want traces of writers came or a few seconds passed; synthetic traces are counted.
struct Delivery {
    std::vector<uint32_t> ids;
    std::vector<std::string> reports;
};
void ReadInto(TestRing& ring, TraceReaderInfo& info, Delivery& out, size_t want) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (out.ids.size() < want && std::chrono::steady_clock::now() < deadline) {
        for (const auto& trace : ring.Read(info)) {
            if (trace->GetModuleID() == -1)
                out.reports.push_back(trace->GetMessageString());
            else
                out.ids.push_back(trace->GetID());
        }
    }
}

// Fills a 16 KiB ring with 64-byte entries past one lap, every trace read.
void FillALap(TestRing& ring, TraceReaderInfo& info, Delivery& out, bool shiftTheLap) {
    const std::string message(23, 's');
    for (int i = 0; i < 300; ++i) {
        ring.WriteText(message.c_str());
        if (i % 100 == 99)
            ReadInto(ring, info, out, out.ids.size() + 100);
    }
    if (shiftTheLap)  // one 72-byte entry: from here on the earlier lap's entries start elsewhere
        ring.WriteText(std::string(31, 'x').c_str());
    ReadInto(ring, info, out, out.ids.size() + (shiftTheLap ? 1 : 0));
}

}  // namespace

// A writer that reserved its span and stalls (or died) leaves the earlier lap's bytes there: an
// old entry (aligned) or the middle of one. The reader never delivers them, waits a bounded time,
// reports the span as lost and reads on; a late completion of the span is never delivered.
TEST(TraceStreamRead, AStalledSpanIsSkippedAsALossNeverReadFromTheEarlierLap) {
    struct Case {
        const char* name;
        bool shiftTheLap;
        bool idDrawn;
    };
    for (const Case& c :
         {Case{"old entry under the span", false, true}, Case{"old data under the span", true, true},
          Case{"not yet numbered", false, false}}) {
        SCOPED_TRACE(c.name);
        TestRing ring(16384);
        TraceReaderInfo info = ring.Connect();
        Delivery out;
        FillALap(ring, info, out, c.shiftTheLap);
        const uint32_t stalled = ring.header->GetAtomicWriteIndex().fetch_add(64);
        const uint32_t stalledID = c.idDrawn ? ring.header->GetAtomicTotalTraceCounter().fetch_add(1) + 1 : 0;
        const std::string message(23, 'a');
        for (int i = 0; i < 20; ++i)
            ring.WriteText(message.c_str());
        const uint32_t lastID = ring.stream->GetTotalTraceCounter();
        ReadInto(ring, info, out, out.ids.size() + 20);

        ASSERT_EQ(out.ids.back(), lastID) << "the traces after the span are read";
        for (size_t i = 1; i < out.ids.size(); ++i)
            ASSERT_LT(out.ids[i - 1], out.ids[i]) << "each once, in order";
        EXPECT_EQ(out.ids.size(), lastID - (c.idDrawn ? 1 : 0));
        ASSERT_EQ(out.reports.size(), 1u);
        EXPECT_EQ(
            out.reports[0],
            "Trace overflow. Buffer Size: 0.015625 MB. Error: 'There's a not completely written trace in "
            "the buffer'.");
        EXPECT_EQ(info.Statistics.Lost, 1u);
        EXPECT_EQ(info.Statistics.Delivered, out.ids.size());

        // The writer wakes up and completes its entry: too late, it stays lost.
        TraceData& entry = ring.EntryAt(stalled);
        TraceData fields = TraceData::Load(ring.EntryAt(stalled + 64));
        fields.TraceID = c.idDrawn ? stalledID : ring.header->GetAtomicTotalTraceCounter().fetch_add(1) + 1;
        TraceData::BeginWrite(entry);
        TraceData::StoreHeader(entry, fields);
        std::memcpy(entry.GetData(), ring.EntryAt(stalled + 64).GetData(), 24);
        TraceData::Publish(entry);
        ring.WriteText("after");
        const size_t before = out.ids.size();
        ReadInto(ring, info, out, before + 1);
        ASSERT_EQ(out.ids.size(), before + 1);
        EXPECT_EQ(out.ids.back(), ring.stream->GetTotalTraceCounter());
    }
}

// A writer laps a small ring again and again while a reader copies entries out: every trace
// delivered is whole (its text is the one written under its ID), delivered once and in order, and
// the rest is counted as lost from the gaps in the IDs.
TEST(TraceStreamRead, ALappedReaderDeliversOnlyWholeTracesAndCountsTheRest) {
    const auto textOf = [](uint32_t id) {
        return std::to_string(id) + ":" + std::string(id * 37 % 1900, static_cast<char>('a' + id % 26));
    };
    TestRing ring(16384);
    TraceReaderInfo info = ring.Connect();
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (uint32_t id = 1; !stop.load(); ++id)
            ring.WriteText(textOf(id).c_str());
    });
    uint32_t last = 0;
    uint64_t delivered = 0;
    const auto check = [&](const std::vector<std::unique_ptr<Trace>>& traces) {
        for (const auto& trace : traces) {
            if (trace->GetModuleID() == -1)
                continue;
            ASSERT_LT(last, trace->GetID());
            last = trace->GetID();
            ASSERT_EQ(trace->GetMessageString(), textOf(last));
            ++delivered;
        }
    };
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    while (std::chrono::steady_clock::now() < end && !HasFatalFailure())
        check(ring.Read(info));
    stop = true;
    writer.join();
    check(ring.Read(info));
    EXPECT_GT(info.Statistics.Overflows, 0u);
    EXPECT_EQ(info.Statistics.Delivered, delivered);
    EXPECT_EQ(last, ring.stream->GetTotalTraceCounter());
    // Each resynchronisation may miscount the one entry the writer had in flight.
    EXPECT_NEAR(static_cast<double>(delivered + info.Statistics.Lost), last,
                static_cast<double>(info.Statistics.Overflows));
}

TEST(TraceStreamRead, ConcurrentWritersAreReadExactlyOnceInOrder) {
    constexpr int Writers = 4;
    constexpr int PerWriter = 20000;
    TestRing ring(8 << 20);  // holds everything: no trace may be lost
    TraceReaderInfo info = ring.Connect();

    std::vector<std::thread> writers;
    for (int w = 0; w < Writers; ++w) {
        writers.emplace_back([&ring, w] {
            for (int i = 0; i < PerWriter; ++i) {
                ParamList params;
                params.Add(ParameterTypes::Int32, &w).Add(ParameterTypes::Int32, &i);
                ring.stream->Write(0, w, static_cast<uint32_t>(w), 0, 4, nullptr, 0, "%1 %2", params.count,
                                   params.raw);
            }
        });
    }

    std::vector<int> nextItem(Writers, 0);
    std::vector<bool> seen(Writers * PerWriter + 1, false);
    size_t total = 0;
    bool overflow = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (total < static_cast<size_t>(Writers * PerWriter) && std::chrono::steady_clock::now() < deadline) {
        auto traces = ring.Read(info, 1000, &overflow);
        ASSERT_FALSE(overflow);
        for (size_t i = 0; i < traces.size(); ++i) {
            const Trace& t = *traces[i];
            if (i > 0) {
                ASSERT_LT(traces[i - 1]->GetID(), t.GetID()) << "sorted within one read";
            }
            ASSERT_LE(t.GetID(), static_cast<uint32_t>(Writers * PerWriter));
            ASSERT_FALSE(seen[t.GetID()]) << "read twice: " << t.GetID();
            seen[t.GetID()] = true;
            const int writer = t.GetModuleID();
            ASSERT_EQ(t.GetFormattedMessage(),
                      std::to_string(writer) + " " + std::to_string(nextItem[writer]))
                << "each writer's traces arrive complete and in its order";
            ++nextItem[writer];
        }
        total += traces.size();
    }
    for (auto& writer : writers)
        writer.join();
    EXPECT_EQ(total, static_cast<size_t>(Writers * PerWriter));
    EXPECT_TRUE(ring.Read(info).empty());
}
