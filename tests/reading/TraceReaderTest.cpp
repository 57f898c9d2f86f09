// The trace reader over buffers of this process: creation and registration errors, the per-buffer
// limit and delivery order, traces kept for ReadTraces, pausing, and a deleted buffer's last traces.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "TestSupport.h"
#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Reading/TraceReader.h"
#include "Trace/Records/Trace.h"
#include "Trace/Registry/TraceRegistry.h"
#include "platform/EventLog.h"
#include "platform/Thread.h"

namespace Tracing {

// Attaching for reading is the registry update's job; the tests do not wait for it.
class TraceRegistryTestAccess {
public:
    static TraceBuffer* AttachConsumerBuffer(int32_t bufferID) {
        return TraceRegistry::GetInstance().AttachConsumerBuffer(bufferID);
    }
};

}  // namespace Tracing

using namespace Tracing;

namespace {

using Traces = std::vector<std::unique_ptr<Trace>>;

// A buffer of this process, visible to readers; returns its producer side.
TraceBuffer* MakeBuffer(const char* subsystem) {
    TraceBuffer* buffer =
        TraceRegistry::GetInstance().RegisterBuffer(subsystem, "Module", TimestampMode::NotSet);
    if (buffer == nullptr || TraceRegistryTestAccess::AttachConsumerBuffer(buffer->GetBufferID()) == nullptr)
        return nullptr;
    return buffer;
}

void Write(TraceBuffer& buffer, int count, const std::string& prefix = "t") {
    for (int i = 0; i < count; ++i) {
        const std::string text = prefix + std::to_string(i);
        buffer.GetTraceStream()->Write(0, 0, 1, 0, Severity::Info, nullptr, 0, text.c_str(), 0, nullptr);
    }
}

// The messages of traces, in order.
std::vector<std::string> Messages(const Traces& traces, size_t from = 0, size_t count = SIZE_MAX) {
    std::vector<std::string> messages;
    for (size_t i = from; i < traces.size() && messages.size() < count; ++i)
        messages.push_back(traces[i]->GetMessageString());
    return messages;
}

std::vector<std::string> Expected(const std::string& prefix, int from, int to) {
    std::vector<std::string> messages;
    for (int i = from; i < to; ++i)
        messages.push_back(prefix + std::to_string(i));
    return messages;
}

}  // namespace

TEST(TraceReader, CreateAndRegisterBufferErrors) {
    std::vector<Platform::EventLogEntry> events;
    Platform::SetEventLogSink([&](const Platform::EventLogEntry& entry) { events.push_back(entry); });
    TraceBuffer* buffer = MakeBuffer("Errors");
    ASSERT_NE(buffer, nullptr);
    const int id = buffer->GetBufferID();

    TraceReader reader;
    EXPECT_EQ(reader.RegisterBuffer(id, 0), TraceReader::NotCreated);
    EXPECT_EQ(reader.Create(2, false, true), TraceReader::Success);
    // The second Create changes nothing: limit 2 and filled records stay.
    EXPECT_EQ(reader.Create(50, false, false), TraceReader::AlreadyCreated);

    events.clear();
    EXPECT_EQ(reader.RegisterBuffer(id + 1000, 0), TraceReader::NoSuchBuffer);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].source, "TraceReader");
    EXPECT_NE(events[0].message.find("No such buffer in registry. BufferID: " + std::to_string(id + 1000)),
              std::string::npos);

    Write(*buffer, 5);
    // Starts after trace ID 1: the first trace is skipped.
    EXPECT_EQ(reader.RegisterBuffer(id, 1), TraceReader::Success);
    EXPECT_EQ(reader.RegisterBuffer(id, 0), TraceReader::BufferAlreadyRegistered);
    Traces traces;
    reader.ReadTraces(traces);
    ASSERT_EQ(Messages(traces), Expected("t", 1, 3));
    EXPECT_EQ(traces[0]->GetSubSystemName(), "Errors");
    Platform::SetEventLogSink(nullptr);
}

TEST(TraceReader, EachBufferGivesAtMostTheLimitLowerIDFirst) {
    TraceBuffer* first = MakeBuffer("First");
    TraceBuffer* second = MakeBuffer("Second");
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_LT(first->GetBufferID(), second->GetBufferID());
    Write(*second, 300, "b");
    Write(*first, 300, "a");

    TraceReader reader;
    ASSERT_EQ(reader.Create(100, false, false), TraceReader::Success);
    // Registered in the opposite order: delivery follows the IDs.
    ASSERT_EQ(reader.RegisterBuffer(second->GetBufferID(), 0), TraceReader::Success);
    ASSERT_EQ(reader.RegisterBuffer(first->GetBufferID(), 0), TraceReader::Success);
    for (int round = 0; round < 3; ++round) {
        // The caller's list is appended to, and its content does not count against the limit.
        Traces traces;
        traces.push_back(std::make_unique<Trace>());
        reader.ReadTraces(traces);
        ASSERT_EQ(traces.size(), 201u) << round;
        EXPECT_EQ(Messages(traces, 1, 100), Expected("a", round * 100, round * 100 + 100));
        EXPECT_EQ(Messages(traces, 101, 100), Expected("b", round * 100, round * 100 + 100));
        EXPECT_TRUE(traces[1]->GetSubSystemName().empty());
    }
    Traces rest;
    reader.ReadTraces(rest);
    EXPECT_TRUE(rest.empty());
}

TEST(TraceReader, TracesReadWithoutListenerComeFirstAndPauseReadsNothing) {
    TraceBuffer* buffer = MakeBuffer("Pending");
    ASSERT_NE(buffer, nullptr);
    TraceReader reader;
    ASSERT_EQ(reader.Create(10, false, false), TraceReader::Success);
    ASSERT_EQ(reader.RegisterBuffer(buffer->GetBufferID(), 0), TraceReader::Success);

    Write(*buffer, 10);
    reader.Update();  // as the updater thread does; nobody listens
    Write(*buffer, 20, "u");
    reader.Pause();
    Traces traces;
    reader.ReadTraces(traces);
    EXPECT_EQ(Messages(traces), Expected("t", 0, 10));
    traces.clear();
    reader.Update();
    reader.ReadTraces(traces);
    EXPECT_TRUE(traces.empty());

    // Nothing was lost while paused.
    reader.Resume();
    reader.ReadTraces(traces);
    EXPECT_EQ(Messages(traces), Expected("u", 0, 10));
}

TEST(TraceReader, ADeletedBufferGivesAllItsLastTracesThenLeaves) {
    TraceBuffer* kept = MakeBuffer("Kept");
    TraceBuffer* deleted = MakeBuffer("Deleted");
    ASSERT_NE(kept, nullptr);
    ASSERT_NE(deleted, nullptr);
    TraceReader reader;
    ASSERT_EQ(reader.Create(10, false, false), TraceReader::Success);
    ASSERT_EQ(reader.RegisterBuffer(kept->GetBufferID(), 0), TraceReader::Success);
    ASSERT_EQ(reader.RegisterBuffer(deleted->GetBufferID(), 0), TraceReader::Success);
    Write(*kept, 50, "k");
    Write(*deleted, 300, "d");

    reader.OnBuffersDeleted({deleted->GetBufferID()});
    Traces traces;
    reader.ReadTraces(traces);
    ASSERT_EQ(traces.size(), 310u);
    EXPECT_EQ(Messages(traces, 0, 300), Expected("d", 0, 300));
    EXPECT_EQ(Messages(traces, 300), Expected("k", 0, 10));

    Write(*deleted, 5, "x");
    traces.clear();
    reader.ReadTraces(traces);
    EXPECT_EQ(Messages(traces), Expected("k", 10, 20));
    EXPECT_EQ(reader.RegisterBuffer(deleted->GetBufferID(), 0), TraceReader::Success);
}

namespace {

// Counts calls entered while another is running, and checks each buffer's IDs keep rising.
class SerialListener : public ITraceReaderEventListener {
public:
    explicit SerialListener(TraceReader& reader) : m_reader(reader) {}
    void OnNewTraces(std::vector<std::unique_ptr<Trace>>& traces) override {
        if (m_inside.fetch_add(1) != 0)
            ++overlaps;
        for (const auto& trace : traces) {
            uint32_t& last = m_lastID[trace->GetBufferID()];
            if (trace->GetID() <= last && trace->GetModuleID() != -1)
                ++disorders;
            last = trace->GetID();
        }
        Platform::SleepMs(5);  // widens the window another thread could enter
        if (leaveNow.exchange(false))
            m_reader.UnregisterEventListener(*this);
        m_inside.fetch_sub(1);
    }
    std::atomic<int> overlaps{0};
    std::atomic<int> disorders{0};
    std::atomic<bool> leaveNow{false};

private:
    TraceReader& m_reader;
    std::atomic<int> m_inside{0};
    std::map<int, uint32_t> m_lastID;
};

}  // namespace

// The updater thread delivers a busy buffer's traces while a user thread deletes buffers, whose
// last traces it delivers itself: one call at a time, each buffer in order, and a listener that
// leaves from inside the user thread's call does not deadlock with the updater thread.
TEST(TraceReader, ListenersAreCalledOnOneThreadAtATime) {
    TraceBuffer* busy = MakeBuffer("Busy");
    TraceBuffer* gone = MakeBuffer("Gone");
    ASSERT_NE(busy, nullptr);
    ASSERT_NE(gone, nullptr);
    TraceReader reader;
    ASSERT_EQ(reader.Create(0, false, false), TraceReader::Success);
    ASSERT_EQ(reader.RegisterBuffer(busy->GetBufferID(), 0), TraceReader::Success);
    SerialListener listener(reader);
    reader.RegisterEventListener(listener);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop.load()) {
            Write(*busy, 20, "b");
            Platform::SleepMs(1);
        }
    });
    for (int round = 0; round < 40; ++round) {
        ASSERT_EQ(reader.RegisterBuffer(gone->GetBufferID(), gone->GetTraceStream()->GetTotalTraceCounter()),
                  TraceReader::Success);
        Write(*gone, 5, "g");
        listener.leaveNow = round == 39;
        reader.OnBuffersDeleted({gone->GetBufferID()});  // as UnregisterBuffer does, on this thread
    }
    stop = true;
    writer.join();
    EXPECT_EQ(listener.overlaps.load(), 0);
    EXPECT_EQ(listener.disorders.load(), 0);
}
