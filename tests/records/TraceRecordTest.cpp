#include "Trace/Records/Trace.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "Trace/Records/Severity.h"
#include "Trace/Records/TraceIDTextMap.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Records/TracePool.h"
#include "Trace/Time/TraceTimer.h"

namespace Tracing {

namespace {

// Builds the variable part of a ring entry: message or binary ID, parameters, location.
struct Entry {
    std::vector<char> bytes;
    unsigned messageSize = 0, parameterSize = 0, locationSize = 0;

    Entry& Message(const char* text) {
        messageSize = static_cast<unsigned>(std::strlen(text) + 1);
        bytes.insert(bytes.end(), text, text + messageSize);
        return *this;
    }
    // A byte after the message: a message may not end exactly at the readable end.
    Entry& Pad() {
        bytes.push_back('\0');
        return *this;
    }
    Entry& Binary(uint64_t id) {
        bytes.insert(bytes.end(), reinterpret_cast<const char*>(&id), reinterpret_cast<const char*>(&id) + 8);
        return *this;
    }
    Entry& Parameters(const TraceMessage& m) {
        for (unsigned i = 0; i < m.GetParameterCount(); ++i) {
            const std::size_t at = bytes.size();
            bytes.resize(at + TraceParameter::GetSerializedSize(m.GetParameters()[i]));
            TraceParameter::Serialize(m.GetParameters()[i], bytes.data() + at);
            parameterSize += static_cast<unsigned>(bytes.size() - at);
        }
        return *this;
    }
    Entry& Location(uint32_t line, const char* file) {
        const char* l = reinterpret_cast<const char*>(&line);
        bytes.insert(bytes.end(), l, l + 4);
        bytes.insert(bytes.end(), file, file + std::strlen(file) + 1);
        locationSize = static_cast<unsigned>(4 + std::strlen(file) + 1);
        return *this;
    }
    // Create over an exact-size heap copy, so that any read past the end is caught by ASan.
    bool CreateInto(Trace& t, std::size_t readable, bool bounded = true) const {
        std::vector<char> exact(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(readable));
        return t.Create(9, 3, 2, 1234, 4242, 0x1f, Severity::Info | 0x30, messageSize, parameterSize,
                        locationSize, exact.data(), nullptr, bounded ? exact.data() + exact.size() : nullptr);
    }
    bool CreateInto(Trace& t) const { return CreateInto(t, bytes.size()); }
};

}  // namespace

TEST(TraceRecord, CreateChecksEveryBound) {
    Trace t;
    Entry text;
    text.Message("hello");                // messageSize 6
    EXPECT_FALSE(text.CreateInto(t, 6));  // exactly filling the rest is refused
    text.bytes.push_back('x');
    ASSERT_TRUE(text.CreateInto(t, 7));
    EXPECT_EQ(t.GetMessageString(), "hello");
    EXPECT_EQ(t.GetSeverity(), 4u);

    Entry binary;
    binary.Binary(0x1122334455667788ULL);
    EXPECT_FALSE(binary.CreateInto(t, 7));
    ASSERT_TRUE(binary.CreateInto(t, 8));
    EXPECT_EQ(t.GetBinaryTraceID(), 0x1122334455667788ULL);

    TraceMessage params;
    params.Add(int32_t{5}).Add("a string of more than 8 bytes");
    Entry full;
    full.Message("m %1 %2").Parameters(params).Location(77, "file.cpp");
    EXPECT_FALSE(full.CreateInto(t, full.bytes.size() - 1));                      // location cut
    EXPECT_FALSE(full.CreateInto(t, full.messageSize + full.parameterSize - 1));  // parameters cut
    ASSERT_TRUE(full.CreateInto(t));
    EXPECT_EQ(t.GetLineNumber(), 77u);
    EXPECT_EQ(t.GetFormattedMessage(), "m 5 a string of more than 8 bytes");

    // A location needs its 4-byte line and a terminator, with or without an end given.
    Entry location;
    location.Message("x").Location(5, "");
    location.locationSize = 4;
    EXPECT_FALSE(location.CreateInto(t, location.bytes.size(), false));
    location.locationSize = 5;
    ASSERT_TRUE(location.CreateInto(t, location.bytes.size(), false));
    EXPECT_EQ(t.GetLineNumber(), 5u);

    EXPECT_FALSE(t.Create(1, 1, 1, 0, 0, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr));
}

TEST(TraceRecord, FormattingNeverReadsPastTheParameterBlock) {
    TraceMessage params;
    params.Add(int32_t{1}).Add(u"wide");
    Entry e;
    e.Message("%1 %2 %3").Parameters(params);
    const char cut[] = {ParameterTypes::String, 'n', 'o', ' ', 'e', 'n', 'd'};  // no terminator
    e.bytes.insert(e.bytes.end(), cut, cut + sizeof(cut));
    e.parameterSize += sizeof(cut);
    Trace t;
    ASSERT_TRUE(e.CreateInto(t, e.bytes.size()));
    EXPECT_EQ(t.GetFormattedMessage(), "1 wide <Unknown parameter (3)!>");

    // A lone type byte of a fixed-size type at the end, and more than nine parameters.
    TraceMessage many;
    for (int i = 0; i < 9; ++i)
        many.Add(int32_t{i});
    Entry tooMany;
    tooMany.Message("%9").Parameters(many).Parameters(many);
    tooMany.bytes.push_back(ParameterTypes::Double);
    tooMany.parameterSize += 1;
    ASSERT_TRUE(tooMany.CreateInto(t));
    EXPECT_EQ(t.GetFormattedMessage(), "8");
}

TEST(TraceRecord, BinaryTracesResolveOnceTheirTextIsKnown) {
    TraceIDTextMap::GetInstance().Clear();
    TraceMessage params;
    params.Add(int32_t{3}).Add(int32_t{7});
    Entry e;
    e.Binary(99).Parameters(params);
    Trace t;
    ASSERT_TRUE(e.CreateInto(t));
    EXPECT_EQ(t.GetFormattedMessage(), "Binary trace ID '99' not found! Params:2 ;4:3;4:7;");

    TraceIDTextFile file("f");
    file.SetText(99, "%1 of %2");
    TraceIDTextMap::GetInstance().AddFile(std::move(file));
    t.RefreshBinaryTrace();
    EXPECT_EQ(t.GetFormattedMessage(), "3 of 7");

    // Read back from a log: resolved into the formatted message, the message stays as read.
    const std::string logged = "Binary trace ID '99' not found! Params:2 ;4:3;4:7;";
    std::istringstream log("1|h|s|a|u|m|Info|f|t|p|" + logged + "\n");
    std::vector<std::unique_ptr<Trace>> read;
    Trace::ReadFromStream(log, read, 0, '|');
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read[0]->GetFormattedMessage(), "3 of 7");
    EXPECT_EQ(read[0]->GetMessageString(), logged);
    TraceIDTextMap::GetInstance().Clear();
}

TEST(TraceRecord, MessageEditsInvalidateTheCache) {
    TraceMessage params;
    params.Add("p");
    Entry e;
    e.Message("with %1").Parameters(params);
    Trace t;
    ASSERT_TRUE(e.CreateInto(t));
    EXPECT_EQ(t.GetFormattedMessage(), "with p");
    t.AppendMessage(" and %1 again");
    EXPECT_EQ(t.GetFormattedMessage(), "with p and p again");
    t.SetFormattedMessage("replaced");  // has parameters: only the formatted text changes
    EXPECT_EQ(t.GetFormattedMessage(), "replaced");
    EXPECT_EQ(t.GetMessageString(), "with %1 and %1 again");

    Entry plain;
    plain.Message("plain").Pad();
    ASSERT_TRUE(plain.CreateInto(t));
    t.SetFormattedMessage("new");
    EXPECT_EQ(t.GetMessageString(), "new");
    EXPECT_EQ(t.GetFormattedMessage(), "new");
}

TEST(TraceRecord, OverrideValuesMoveIntoFields) {
    Trace t;
    Entry e;
    e.Message("<@H=node7=H@><@T=x=T@>rest").Pad();
    ASSERT_TRUE(e.CreateInto(t));
    t.ExtractOverrideValuesFromMessage();
    EXPECT_EQ(t.GetHostName(), "node7");
    EXPECT_EQ(t.GetTimestamp(), 1234u);
    EXPECT_EQ(t.GetMessageString(), "rest");

    Entry onlyTag;
    onlyTag.Message("<@H=a=H@><@H=b=H@>").Pad();
    ASSERT_TRUE(onlyTag.CreateInto(t));
    t.ExtractOverrideValuesFromMessage();
    EXPECT_EQ(t.GetHostName(), "b");  // the last one wins
    EXPECT_EQ(t.GetMessageString(), "<No format string!>");

    for (const char* untouched : {"<@X=a=X@>text", "<@H=unclosed", "no tag <@H=a=H@>"}) {
        Entry u;
        u.Message(untouched).Pad();
        ASSERT_TRUE(u.CreateInto(t));
        t.ExtractOverrideValuesFromMessage();
        EXPECT_EQ(t.GetMessageString(), untouched);
    }

    std::string stamp;
    TraceTimer::Format(16094592000000000ULL + 1234567, stamp, TimestampMode::PRECISE);
    Entry timed;
    timed.Message(("<@T=" + stamp + "=T@>timed").c_str()).Pad();
    ASSERT_TRUE(timed.CreateInto(t));
    t.ExtractOverrideValuesFromMessage();
    EXPECT_NE(t.GetTimestampMode(), TimestampMode::NotSet);
    EXPECT_EQ(t.GetTimestampText(), stamp);
    EXPECT_EQ(t.GetMessageString(), "timed");
}

TEST(TraceRecord, EqualityCopiesAndOrder) {
    TraceMessage params;
    params.Add(int64_t{1});
    Entry e;
    e.Message("m %1").Parameters(params);
    auto a = std::make_unique<Trace>();
    ASSERT_TRUE(e.CreateInto(*a));
    a->FillExtendedData(nullptr);  // no buffer of that ID: the texts stay as they are
    EXPECT_EQ(a->GetThreadIDText(), "");
    EXPECT_EQ(a->GetSeverityText(), "");

    Trace copy(*a);
    EXPECT_NE(copy.GetParameterBuffer(), a->GetParameterBuffer());
    copy.SetModuleName("other");
    EXPECT_TRUE(copy == *a);  // text fields take no part

    Trace other;
    Entry changed = e;
    changed.bytes[changed.messageSize + 1] ^= 1;  // one parameter byte differs
    ASSERT_TRUE(changed.CreateInto(other));
    EXPECT_FALSE(other == *a);
    other = *a;
    EXPECT_TRUE(other == *a);
    EXPECT_EQ(other.GetFormattedMessage(), "m 1");

    // Parameter blocks kept in the record and on the heap copy alike.
    TraceMessage longParams;
    longParams.Add(std::string(100, 'p').c_str());
    Entry large;
    large.Message("long %1").Parameters(longParams);
    Trace big;
    ASSERT_TRUE(large.CreateInto(big));
    Trace bigCopy(big);
    other = std::move(bigCopy);
    EXPECT_TRUE(other == big);
    EXPECT_FALSE(other == *a);
    EXPECT_EQ(other.GetFormattedMessage(), "long " + std::string(100, 'p'));

    // Unsigned IDs, no wrap-around handling.
    EXPECT_FALSE(Trace::LessById(a, std::make_unique<Trace>(*a)));
    Trace high;
    ASSERT_TRUE(high.Create(0xFFFFFFFFu, 0, 0, 0, 0, 0, 0, 2, 0, 0, "a\0b", nullptr, nullptr));
    EXPECT_TRUE(Trace::LessById(a, std::make_unique<Trace>(high)));
}

// A reader makes and drops batches of records, often dropping them on another thread: the memory
// of one batch serves the next instead of growing with every batch.
TEST(TraceRecord, DroppedRecordsServeTheNextBatch) {
    std::size_t blocks = 0;
    for (int round = 0; round < 4; ++round) {
        std::vector<std::unique_ptr<Trace>> batch;
        for (int i = 0; i < 20000; ++i)
            batch.push_back(std::make_unique<Trace>());
        std::thread([&batch] { batch.clear(); }).join();
        if (round == 1)
            blocks = TracePool::GetBlockCount();
    }
    EXPECT_EQ(TracePool::GetBlockCount(), blocks);
}

}  // namespace Tracing
