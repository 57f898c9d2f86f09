// Writing: the entry format, the spill area, splitting, replacement, IDs and parameter cutting.
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "StreamTestRing.h"
#include "platform/EventLog.h"
#include "platform/Thread.h"

using namespace Tracing;
using namespace Tracing::Test;

namespace {

std::string Bytes(const void* data, size_t size) {
    return std::string(static_cast<const char*>(data), size);
}

std::vector<std::unique_ptr<Trace>> ReadAll(TestRing& ring) {
    TraceReaderInfo info = ring.Connect();
    return ring.Read(info);
}

}  // namespace

TEST(TraceStreamWrite, TextAndBinaryEntriesAreLaidOutByteForByte) {
    TestRing ring(16384);
    const int32_t seven = 7;
    ParamList text;
    text.Add(ParameterTypes::Int32, &seven).Add(ParameterTypes::StringRef, "ab");
    ring.stream->Write(0, 3, 99, 0x1122334455667788ull, 0x14, "f.cpp", 42, "value %1 of %2", text.count,
                       text.raw);
    const bool yes = true;
    ParamList binary;
    binary.Add(ParameterTypes::WideStringRef, u"hi").Add(ParameterTypes::Bool, &yes);
    const uint64_t binaryId = 0x0102030405060708ull;
    ring.stream->Write(0, 5, 6, 9, 0x21, nullptr, 0, binaryId, binary.count, binary.raw);

    const unsigned char textEntry[] = {
        80, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0,  // size, ID, first part, module
        0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,   // timestamp
        99, 0, 0, 0, 0x14, 0, 0, 0,                       // thread, severity
        15, 0, 0x55, 0x55, 9, 0, 10, 0xAA,                // sizes, indicator,
                                                          // marker
        'v', 'a', 'l', 'u', 'e', ' ', '%', '1', ' ', 'o', 'f', ' ', '%', '2', 0, 4, 7, 0, 0, 0, 2, 'a', 'b',
        0,                                         // Int32; StringRef written as String
        42, 0, 0, 0, 'f', '.', 'c', 'p', 'p', 0};  // line, file
    EXPECT_EQ(Bytes(ring.Ring(), sizeof textEntry), Bytes(textEntry, sizeof textEntry));
    const unsigned char binaryEntry[] = {
        64, 0,   0, 0,    2, 0, 0, 0,  0, 0,    0,    0, 5, 0, 0,    0, 9, 0, 0, 0, 0, 0, 0, 0, 6,
        0,  0,   0, 0x21, 0, 0, 0, 0,  0, 0x55, 0x55, 9, 0, 0, 0xAA, 8, 7, 6, 5, 4, 3, 2, 1,  // binary ID
        3,  'h', 0, 'i',  0, 0, 0, 10, 1};  // WideStringRef written as WideString; Bool
    EXPECT_EQ(Bytes(ring.Ring() + 80, sizeof binaryEntry), Bytes(binaryEntry, sizeof binaryEntry));
    EXPECT_EQ(ring.WriteIndex(), 144u);

    auto traces = ReadAll(ring);
    ASSERT_EQ(traces.size(), 2u);
    const Trace& t = *traces[0];
    EXPECT_EQ(t.GetFormattedMessage(), "value 7 of ab");
    EXPECT_EQ(t.GetFileName(), "f.cpp");
    EXPECT_EQ(t.GetTimestamp(), 0x1122334455667788ull);
    EXPECT_EQ(t.GetProcessID(), 4242);
    EXPECT_EQ(traces[1]->GetBinaryTraceID(), binaryId);
}

TEST(TraceStreamWrite, EntryAtTheRingEndRunsIntoTheSpillArea) {
    TestRing ring(16384);
    ring.header->GetAtomicWriteIndex().store(16384 - 8);
    const std::string longest(2007, 'x');
    ring.WriteText(longest.c_str());
    ring.WriteText("next");

    EXPECT_EQ(ring.EntryAt(16384 - 8).Size, 2048u);
    EXPECT_EQ(Bytes(ring.Ring() + 16384 + 2038, 2), std::string("x") + '\0') << "message ends in the spill";
    EXPECT_EQ(ring.EntryAt(2040).TraceID, 2u) << "the next entry starts at the wrapped position";
    EXPECT_EQ(ring.header->GetRingBufferWasFilled().load(), 1);

    TraceReaderInfo info;
    info.Buffer = TestRing::Owner();
    info.ReadIndex = 16384 - 8;
    auto traces = ring.Read(info);
    ASSERT_EQ(traces.size(), 2u);
    EXPECT_EQ(traces[0]->GetMessageString(), longest);
    EXPECT_EQ(traces[1]->GetMessageString(), "next");
}

TEST(TraceStreamWrite, LongMessagesAreSplitOrReplaced) {
    TestRing ring(1 << 20);
    std::string message(5000, ' ');
    for (size_t i = 0; i < message.size(); ++i)
        message[i] = static_cast<char>('a' + i % 26);
    ring.WriteText(message.c_str());
    const uint32_t sizes[] = {2048, 2048, 1032}, messageSizes[] = {2008, 2008, 987}, firstParts[] = {0, 1, 1};
    const uint8_t markers[] = {TraceData::Split, TraceData::Split, TraceData::NotSplit};
    uint32_t position = 0;
    for (int part = 0; part < 3; position += ring.EntryAt(position).Size, ++part) {
        const TraceData& entry = ring.EntryAt(position);
        EXPECT_EQ(entry.Size, sizes[part]) << part;
        EXPECT_EQ(entry.MessageSize, messageSizes[part]) << part;
        EXPECT_EQ(entry.SplitMarker, markers[part]) << part;
        EXPECT_EQ(entry.FirstPartID, firstParts[part]) << part;
    }

    // Parameters and location travel in the first part only.
    const int32_t one = 1;
    ParamList params;
    params.Add(ParameterTypes::Int32, &one);
    const std::string second(3000, 'q');
    ring.Write(second.c_str(), params, "f.cpp");
    EXPECT_EQ(ring.EntryAt(position).MessageSize, 2008 - 5 - 10);

    // Longer than (ring size / 2048) * 2007: replaced, location kept.
    TestRing small(16384);
    const std::string huge(8 * 2007, 'h');
    small.Write(huge.c_str(), params, "f.cpp");
    EXPECT_EQ(small.EntryAt(0).ParameterSize, 0u);
    EXPECT_EQ(small.WriteIndex(), small.EntryAt(0).Size) << "one entry";

    auto traces = ReadAll(ring);
    ASSERT_EQ(traces.size(), 2u);
    EXPECT_EQ(traces[0]->GetMessageString(), message);
    EXPECT_EQ(traces[1]->GetMessageString(), second);
    EXPECT_EQ(traces[1]->GetFileName(), "f.cpp");
    EXPECT_EQ(traces[1]->GetParameterBufferSize(), 5u);
    traces = ReadAll(small);
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0]->GetFormattedMessage(), "Trace was longer than the ring buffer! Removed.");
    EXPECT_EQ(traces[0]->GetFileName(), "f.cpp");
}

TEST(TraceStreamWrite, TraceIdsAndTheFilledFlag) {
    TestRing ring(16384);
    ring.header->GetAtomicTotalTraceCounter().store(0xFFFFFFFFu);
    ring.WriteText("after wrap");
    EXPECT_EQ(ring.EntryAt(0).TraceID, 1u) << "0 is skipped";
    const uint32_t second = ring.WriteIndex();
    EXPECT_EQ(second, ring.EntryAt(0).Size) << "the wrap leaves no carry in the write index";
    ring.WriteText("given", 0, nullptr, 0, 500);
    ring.WriteText("next");
    EXPECT_EQ(ring.EntryAt(second).TraceID, 500u);
    EXPECT_EQ(ring.EntryAt(second + ring.EntryAt(second).Size).TraceID, 501u)
        << "counting on from a given ID";

    // Global IDs come from the supplied counter, and only when the header asks for them.
    uint32_t global = 1000;
    TestRing globalRing(16384, 1, true, &global);
    globalRing.WriteText("global");
    EXPECT_EQ(globalRing.EntryAt(0).TraceID, 1001u);
    EXPECT_EQ(globalRing.header->GetAtomicTotalTraceCounter().load(), 0u);
    TestRing localRing(16384, 1, false, &global);
    localRing.WriteText("local");
    EXPECT_EQ(localRing.EntryAt(0).TraceID, 1u);
    EXPECT_EQ(global, 1001u);

    // 64-byte entries: the 256th reaches the end of the ring and sets the flag, once.
    TestRing filling(16384);
    const std::string message(23, 'm');
    for (int i = 0; i < 255; ++i)
        filling.WriteText(message.c_str());
    EXPECT_EQ(filling.header->GetRingBufferWasFilled().load(), 0);
    filling.WriteText(message.c_str());
    filling.WriteText(message.c_str());
    EXPECT_EQ(filling.header->GetRingBufferWasFilled().load(), 1);
}

// Per-buffer IDs and positions are drawn together; threads racing across the ID wrap must still
// get back-to-back spans and distinct IDs, none 0.
TEST(TraceStreamWrite, ConcurrentWritersAcrossTheIdWrap) {
    constexpr int Writers = 4;
    constexpr int PerWriter = 3000;
    TestRing ring(1 << 20);
    ring.header->GetAtomicTotalTraceCounter().store(0xFFFFFFFFu - Writers * PerWriter / 2);
    std::vector<std::thread> threads;
    for (int w = 0; w < Writers; ++w) {
        threads.emplace_back([&ring, w] {
            for (int i = 0; i < PerWriter; ++i) {
                ParamList params;
                params.Add(ParameterTypes::Int32, &w).Add(ParameterTypes::Int32, &i);
                ring.Write("%1 %2", params);
            }
        });
    }
    for (std::thread& t : threads)
        t.join();

    std::set<uint32_t> ids;
    uint32_t position = 0;
    while (position < ring.WriteIndex() && ids.size() < Writers * PerWriter) {
        const TraceData& entry = ring.EntryAt(position);
        ASSERT_EQ(entry.TraceIndicator, TraceData::TraceIndicatorValue) << "at " << position;
        ASSERT_NE(entry.TraceID, 0u);
        ids.insert(entry.TraceID);
        position += entry.Size;
    }
    EXPECT_EQ(position, ring.WriteIndex());
    EXPECT_EQ(ids.size(), static_cast<size_t>(Writers * PerWriter));
    EXPECT_EQ(ring.stream->GetTotalTraceCounter(), Writers * PerWriter / 2u);
}

TEST(TraceStreamWrite, OverlongParametersAreCutToFitOneEntry) {
    TestRing ring(1 << 20);
    TraceReaderInfo info = ring.Connect();

    // The longest string is halved until parameters and location fit into 2000 bytes.
    const std::string a(1500, 'a'), b(800, 'b');
    ParamList strings;
    strings.Add(ParameterTypes::String, a.c_str()).Add(ParameterTypes::String, b.c_str());
    ring.Write("%1|%2", strings, "file.cpp");
    EXPECT_EQ(ring.EntryAt(0).ParameterSize, 751 + 802);
    EXPECT_EQ(strings.raw[0].size, 750u) << "the caller's record is cut in place";

    // References are never cut: with nothing else to cut, no parameter is written at all.
    const std::string big(3000, 'r');
    ParamList refs;
    refs.Add(ParameterTypes::StringRef, big.c_str());
    ring.Write("%1", refs);

    // A wide string keeps twice its byte budget, and a reference beside a cut string stays too
    // long: the entry must fit all the same.
    const std::u16string wide(1500, u'w');
    ParamList wideList;
    wideList.Add(ParameterTypes::WideString, wide.c_str());
    ring.Write("%1", wideList);
    const std::string c(3000, 'c');
    ParamList mixed;
    mixed.Add(ParameterTypes::StringRef, big.c_str()).Add(ParameterTypes::String, c.c_str());
    ring.Write("%1 %2", mixed);
    ring.WriteText("after");

    auto traces = ring.Read(info);
    ASSERT_EQ(traces.size(), 5u);
    EXPECT_EQ(traces[0]->GetFormattedMessage(), std::string(746, 'a') + "...|" + b);
    EXPECT_EQ(traces[1]->GetParameterBufferSize(), 0u);
    EXPECT_EQ(traces[2]->GetFormattedMessage(), std::string(746, 'w') + "...");
    EXPECT_EQ(traces[3]->GetFormattedMessage(),
              "<Parameter too long, removed!> " + std::string(1496, 'c') + "...");
    EXPECT_EQ(traces[4]->GetFormattedMessage(), "after") << "no entry overran the next one";
}

TEST(TraceStreamWrite, OddCallersAndSizes) {
    TestRing ring(16384);
    const std::string longName = std::string(300, 'd') + "/tail.cpp";
    ring.stream->Write(0, 1, 2, 0, 4, longName.c_str(), 5, nullptr, 0, nullptr);
    EXPECT_EQ(ring.EntryAt(0).LocationSize, 255u);
    auto traces = ReadAll(ring);
    ASSERT_EQ(traces.size(), 1u);
    EXPECT_EQ(traces[0]->GetMessageString(), "");
    EXPECT_EQ(traces[0]->GetFileName(), longName.substr(longName.size() - 250)) << "the file's end is kept";

    EXPECT_EQ(TraceStream::GetSize(3000), 4096u + 2048u);
    EXPECT_EQ(TraceStream::GetSize(0), 1048576u + 2048u) << "the configured default";
    for (uint32_t badSize : {12288u, 0u}) {
        std::memcpy(reinterpret_cast<char*>(ring.header) + 72, &badSize, 4);
        EXPECT_EQ(TraceStream::Attach(TestRing::Owner(), ring.header, ring.Ring()), nullptr) << badSize;
    }
}

// The producer's short path must lay out every entry exactly as the general write does, and hand
// whatever it does not handle itself (cutting, splitting, long names) on unchanged.
TEST(TraceStreamWrite, ProducerPathWritesWhatTheGeneralWriteDoes) {
    const std::string longName = std::string(300, 'd') + "/tail.cpp";
    const std::string split(5000, 's');
    const std::string longString(1900, 'p');
    const int number = -7;
    const double real = 2.5;
    struct Case {
        const char* what;
        const char* message;
        const char* file;
        bool numbers;
        bool overlong;
    };
    const Case cases[] = {
        {"plain", "value %1 of %2", nullptr, true, false},
        {"location", "at %1", "f.cpp", true, false},
        {"long file name", "x", longName.c_str(), false, false},
        {"no message", nullptr, "f.cpp", false, false},
        {"parameters cut", "%1 %2", "f.cpp", true, true},
        {"split", split.c_str(), "f.cpp", true, false},
    };
    for (const Case& c : cases) {
        TestRing general(16384), producer(16384);
        for (TestRing* ring : {&general, &producer}) {
            ParamList params;
            if (c.numbers)
                params.Add(ParameterTypes::Int32, &number).Add(ParameterTypes::Double, &real);
            if (c.overlong)
                params.Add(ParameterTypes::String, longString.c_str())
                    .Add(ParameterTypes::String, longString.c_str());
            if (ring == &general)
                ring->stream->Write(0, 1, Platform::CurrentThreadId(), 0, 4, c.file, 9, c.message,
                                    params.count, params.raw);
            else
                ring->stream->WriteText(1, 4, c.file, 9, c.message, params.count, params.raw);
        }
        ASSERT_EQ(general.WriteIndex(), producer.WriteIndex()) << c.what;
        for (uint32_t at = 0; at < general.WriteIndex(); at += general.EntryAt(at).Size) {
            // The clocks of the two rings tick apart.
            general.EntryAt(at).SetTimestamp(0);
            producer.EntryAt(at).SetTimestamp(0);
            ASSERT_EQ(Bytes(&general.EntryAt(at), general.EntryAt(at).Size),
                      Bytes(&producer.EntryAt(at), producer.EntryAt(at).Size))
                << c.what << " at " << at;
        }
    }
}
