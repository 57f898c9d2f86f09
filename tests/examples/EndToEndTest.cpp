// The example producer (C) and consumer as real processes: what the producers write is what the
// consumer prints, across overflows, killed producers and filter changes from either side.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>
#include <utility>

#include "TestSupport.h"
#include "Trace/Buffer/ITraceBufferDataChangedListener.h"
#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Records/CsvField.h"
#include "Trace/Registry/TraceRegistry.h"

namespace Tracing {
namespace {

using Test::WaitChild;
using Test::WaitFor;

constexpr int TimeoutMs = 30000;

struct Child {
    pid_t pid = -1;
    int input = -1;  // write end of the child's standard input, when it has one
    std::string out;
    std::string err;
};

struct Row {
    unsigned id = 0;
    std::string subsystem, module, severity, flags, message, file, line;
};

std::string ReadFile(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// The consumer's CSV output of the subsystems starting with `subsystem`, header skipped; every line
// must have all 13 columns.
std::vector<Row> ParseCsv(const std::string& path, const std::string& subsystem) {
    std::ifstream in(path);
    std::vector<Row> rows;
    bool header = true;
    for (std::string line; Internal::ReadCsvLine(in, line), !line.empty() || in.good();) {
        std::vector<std::string> f;
        for (const char* cursor = line.c_str(); *cursor != '\0' && f.size() <= 13;)
            Internal::ReadCsvField(cursor, f.emplace_back(), ';');
        while (f.size() < 13 && !line.empty() && line.back() == ';')
            f.emplace_back();  // empty trailing line number
        if (line.empty())
            continue;
        EXPECT_EQ(f.size(), 13u) << line;
        if (f.size() != 13 || std::exchange(header, false))
            continue;
        if (f[4].starts_with(subsystem))
            rows.push_back(
                {static_cast<unsigned>(std::stoul(f[0])), f[4], f[5], f[6], f[7], f[10], f[11], f[12]});
    }
    return rows;
}

// The line of the producer's source that writes the numbered traces.
std::string SequenceLine() {
    std::ifstream in(PAXLTRACE_PRODUCER_SOURCE);
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        if (line.find("__LINE__") != std::string::npos && line.find("\"seq %1") != std::string::npos)
            return std::to_string(number);
    }
    return "?";
}

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
#ifdef SIGPIPE
        signal(SIGPIPE, SIG_IGN);  // a dead child must fail the test, not end it
#endif
        // Nothing may outlive a hung test: every child is killed after the timeout.
        m_watchdog = std::thread([this] {
            std::unique_lock lock(m_mutex);
            if (!m_done.wait_for(lock, std::chrono::milliseconds(TimeoutMs), [this] { return m_finished; })) {
                for (pid_t pid : m_running)
                    kill(pid, SIGKILL);
            }
        });
    }

    void TearDown() override {
        {
            std::lock_guard lock(m_mutex);
            m_finished = true;
            for (pid_t pid : m_running)
                kill(pid, SIGKILL);
        }
        m_done.notify_all();
        m_watchdog.join();
        for (pid_t pid : m_running)
            WaitChild(pid);
        for (const std::string& file : m_files)
            unlink(file.c_str());
    }

    Child Start(const char* executable, const std::vector<std::string>& args,
                const std::vector<std::string>& extraEnvironment = {}) {
        const std::string base = ::testing::TempDir() + "paxltrace_e2e_" + std::to_string(getpid()) + "_" +
                                 std::to_string(m_files.size());
        Child child{-1, -1, base + ".out", base + ".err"};
        m_files.insert(m_files.end(), {child.out, child.err});
        std::lock_guard lock(m_mutex);
        child.pid = Tracing::Test::StartProcess(executable, args,
                                                {extraEnvironment, child.out, child.err, true}, &child.input);
        EXPECT_GT(child.pid, 0) << executable;
        m_running.insert(child.pid);
        return child;
    }

    // Ends the child's input and waits for it.
    int Wait(Child& child) {
        close(std::exchange(child.input, -1));
        const int code = WaitChild(child.pid);
        std::lock_guard lock(m_mutex);
        m_running.erase(child.pid);
        return code;
    }

    static void Send(const Child& child, const std::string& text) {
        ASSERT_EQ(write(child.input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    static bool Has(const std::string& path, const std::string& text) {
        return ReadFile(path).find(text) != std::string::npos;
    }

    static bool WaitForText(const std::string& path, const std::string& text) {
        return WaitFor([&] { return Has(path, text); }, TimeoutMs);
    }

    Child StartConsumer() {
        Child consumer = Start(PAXLTRACE_CONSUMER, {"--csv", "--until-eof"});
        EXPECT_TRUE(WaitForText(consumer.err, "consumer ready\n")) << ReadFile(consumer.err);
        return consumer;
    }

    // Starts a producer that waits for "go"; returns its buffer ID once the consumer has it.
    Child StartProducer(const Child& consumer, std::vector<std::string> args, int& bufferID,
                        const std::vector<std::string>& extraEnvironment = {}) {
        args.push_back("--wait");
        Child producer = Start(PAXLTRACE_PRODUCER, args, extraEnvironment);
        bufferID = -1;
        EXPECT_TRUE(WaitFor(
            [&] { return std::sscanf(ReadFile(producer.out).c_str(), "producer buffer %d", &bufferID) == 1; },
            TimeoutMs))
            << ReadFile(producer.err);
        const std::string id = std::to_string(bufferID) + "\n";
        EXPECT_TRUE(WaitFor(
            [&] {
                return Has(consumer.err, "buffer created " + id) ||
                       Has(consumer.err, "buffer existing " + id);
            },
            TimeoutMs));
        return producer;
    }

    // Stops the consumer, by ending its input, once the buffers are gone (their last traces are
    // then delivered).
    void StopConsumer(Child& consumer, const std::vector<int>& bufferIDs) {
        for (int id : bufferIDs)
            EXPECT_TRUE(WaitForText(consumer.err, "buffer deleted " + std::to_string(id) + "\n"))
                << ReadFile(consumer.err);
        EXPECT_EQ(Wait(consumer), 0) << ReadFile(consumer.err);
    }

    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_finished = false;
    std::set<pid_t> m_running;
    std::thread m_watchdog;
    std::vector<std::string> m_files;
};

// The shared memory of a producer's buffer that is still there.
std::vector<std::string> BufferObjectsLeft(pid_t producer, const std::string& subsystem) {
    std::vector<std::string> found;
#ifdef _WIN32
    // An object goes with its last handle; what could stay is a handle on the buffer's block.
    std::string key;
    TraceBuffer::GetSHMName(key, producer, TraceBuffer::HostName_Local, subsystem.c_str(), false);
    if (Test::ShmExists(key))
        found.push_back(key);
#else
    const std::string pid = "_" + std::to_string(producer) + "_";
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        const std::string name = entry.path().filename().string();
        if (name.find(Test::ShmPrefix()) != std::string::npos && name.find(pid) != std::string::npos &&
            name.find(subsystem) != std::string::npos)
            found.push_back(name);
    }
#endif
    return found;
}

TEST_F(EndToEndTest, EveryTraceOfEveryProducerArrivesOnceInOrder) {
    constexpr int Producers = 3, Count = 1500;
    Child consumer = StartConsumer();
    std::vector<Child> producers;
    std::vector<int> bufferIDs(Producers);
    for (int p = 0; p < Producers; ++p) {
        const std::string n = std::to_string(p);
        producers.push_back(StartProducer(
            consumer, {"E2E_Buffer" + n, "Module" + n, std::to_string(Count), "2"}, bufferIDs[p]));
    }
    for (Child& producer : producers)
        Send(producer, "go\n");
    for (Child& producer : producers) {
        EXPECT_TRUE(
            WaitForText(producer.out, "wrote " + std::to_string(2 * (Count + 1)) + " traces in 2 threads"))
            << ReadFile(producer.out) << ReadFile(producer.err);
        EXPECT_EQ(Wait(producer), 0);
    }
    StopConsumer(consumer, bufferIDs);

    const std::string sequenceLine = SequenceLine();
    std::map<std::string, std::vector<Row>> bySubsystem;
    for (Row& row : ParseCsv(consumer.out, "E2E_"))  // not the processes' own diagnostics buffers
        bySubsystem[row.subsystem].push_back(std::move(row));
    ASSERT_EQ(bySubsystem.size(), static_cast<size_t>(Producers));
    for (int p = 0; p < Producers; ++p) {
        SCOPED_TRACE(p);
        const std::vector<Row>& rows = bySubsystem["E2E_Buffer" + std::to_string(p)];
        ASSERT_EQ(rows.size(), static_cast<size_t>(2 * (Count + 1)));
        int next[2] = {0, 0};
        int done = 0;
        for (size_t i = 0; i < rows.size(); ++i) {
            const Row& row = rows[i];
            ASSERT_TRUE(i == 0 || rows[i - 1].id < row.id);
            EXPECT_EQ(row.module, "Module" + std::to_string(p));
            EXPECT_TRUE(row.file.ends_with("examples/producer.c")) << row.file;
            int seq = 0;
            unsigned thread = 0;
            if (std::sscanf(row.message.c_str(), "seq %d thread %u", &seq, &thread) == 2) {
                ASSERT_LT(thread, 2u);
                ASSERT_EQ(seq, next[thread]++) << "thread " << thread;  // once each, in order
                EXPECT_EQ(row.severity + "|" + row.flags + "|" + row.line, "Info||" + sequenceLine);
            } else {
                EXPECT_TRUE(row.message == "thread 0 done" || row.message == "thread 1 done") << row.message;
                EXPECT_EQ(row.severity + "|" + row.flags, "Verbose|Sequence");
                ++done;
            }
        }
        EXPECT_EQ(next[0], Count);
        EXPECT_EQ(next[1], Count);
        EXPECT_EQ(done, 2);  // the traces of the inactive flag were filtered out
    }
}

TEST_F(EndToEndTest, OverflowIsReportedAndReadingGoesOn) {
    constexpr int Count = 50000;
    Child consumer = StartConsumer();
    int bufferID = -1;
    Child producer = StartProducer(consumer, {"E2E_Small", "Burst", std::to_string(Count), "1"}, bufferID,
                                   {"TRACE_STREAM_SIZE=16384"});
    Send(producer, "go\n");
    EXPECT_TRUE(WaitForText(producer.out, "wrote ")) << ReadFile(producer.err);
    EXPECT_EQ(Wait(producer), 0);
    StopConsumer(consumer, {bufferID});

    const std::vector<Row> rows = ParseCsv(consumer.out, "E2E_Small");
    const auto overflow = std::find_if(
        rows.begin(), rows.end(), [](const Row& row) { return row.message.starts_with("Trace overflow"); });
    ASSERT_NE(overflow, rows.end()) << rows.size() << " rows";
    EXPECT_EQ(overflow->severity, "Warning");
    // After the report the newest traces still come, in order and none twice.
    int last = -1;
    bool done = false;
    for (auto row = overflow + 1; row != rows.end(); ++row) {
        int seq = 0;
        if (std::sscanf(row->message.c_str(), "seq %d thread 0", &seq) == 1) {
            EXPECT_GT(seq, last);
            last = seq;
        }
        done = done || row->message == "thread 0 done";
    }
    EXPECT_EQ(last, Count - 1);
    EXPECT_TRUE(done);
}

TEST_F(EndToEndTest, KilledProducerKeepsEveryCompletedTraceAndLeavesNothing) {
    Child consumer = StartConsumer();
    int bufferID = -1;
    // Paced so that the consumer keeps up: a lost trace here would be the ring's, not the kill's.
    Child producer = StartProducer(
        consumer, {"E2E_Victim", "Doomed", "100000000", "1", "--pace", "5", "--progress", "100"}, bufferID);
    Send(producer, "go\n");
    ASSERT_TRUE(WaitForText(producer.out, "progress 0 2000\n"));
    kill(producer.pid, SIGKILL);
    EXPECT_EQ(Wait(producer), 128 + SIGKILL);
    int completed = 0;
    std::istringstream out(ReadFile(producer.out));
    for (std::string line; std::getline(out, line);)
        std::sscanf(line.c_str(), "progress 0 %d", &completed);

    // The dead-process search frees its registry item, then the consumer lets go of the buffer.
    EXPECT_TRUE(WaitForText(consumer.err, "buffer deleted " + std::to_string(bufferID) + "\n"));
    const pid_t victim = producer.pid;
    EXPECT_TRUE(WaitFor([&] { return BufferObjectsLeft(victim, "E2E_Victim").empty(); }, TimeoutMs))
        << BufferObjectsLeft(victim, "E2E_Victim").size() << " objects left";
    StopConsumer(consumer, {});
    EXPECT_TRUE(BufferObjectsLeft(victim, "E2E_Victim").empty());

    std::set<int> seen;
    for (const Row& row : ParseCsv(consumer.out, "E2E_Victim")) {
        int seq = 0;
        EXPECT_TRUE(std::sscanf(row.message.c_str(), "seq %d", &seq) != 1 || seen.insert(seq).second)
            << "twice: " << seq;
    }
    ASSERT_GE(seen.size(), static_cast<size_t>(completed));
    EXPECT_EQ(*seen.rbegin(), static_cast<int>(seen.size()) - 1) << "a gap";
}

struct FilterCounter : ITraceBufferDataChangedListener {
    explicit FilterCounter(int moduleID) : moduleID(moduleID) {}
    void OnModuleFiltersChanged(TraceBuffer&, const std::set<int>& ids) override {
        calls += static_cast<int>(ids.count(moduleID));
    }
    const int moduleID;
    std::atomic<int> calls{0};
};

TEST_F(EndToEndTest, FilterChangesTravelBothWays) {
    Child producer = Start(PAXLTRACE_PRODUCER, {"E2E_Filter", "Knob", "10", "1", "--wait"});
    ASSERT_TRUE(WaitForText(producer.out, "severity 4 Info\n")) << ReadFile(producer.err);
    int bufferID = -1, moduleID = -1;
    ASSERT_EQ(
        std::sscanf(ReadFile(producer.out).c_str(), "producer buffer %d module %d", &bufferID, &moduleID), 2);

    TraceRegistry& registry = TraceRegistry::GetInstance();
    TraceBuffer* buffer = nullptr;
    ASSERT_TRUE(
        WaitFor([&] { return (buffer = registry.GetConsumerBuffer(bufferID)) != nullptr; }, TimeoutMs));
    FilterCounter counter(moduleID);
    buffer->RegisterDataChangedListener(&counter, false);

    // Ours reaches the producer's filter word; our own change is not reported back to us.
    ASSERT_TRUE(buffer->SetSeverity(moduleID, Severity::Debug));
    EXPECT_TRUE(WaitForText(producer.out, "severity 6 Debug\n"));

    // The producer's own change reaches us, once.
    Send(producer, "severity 2\n");
    EXPECT_TRUE(WaitForText(producer.out, "severity 2 Error\n"))
        << ReadFile(producer.out) << ReadFile(producer.err);
    EXPECT_TRUE(WaitFor([&] { return counter.calls.load() > 0; }, TimeoutMs));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // several more polls
    EXPECT_EQ(counter.calls.load(), 1);
    uint32_t state = 0;
    ASSERT_EQ(registry.GetConsumerBuffer(bufferID), buffer) << "the producer's buffer went away";
    EXPECT_EQ(buffer->GetFilterState(moduleID, state), TraceBuffer::Success);
    EXPECT_EQ(state & 7u, 2u);

    buffer->UnregisterDataChangedListener(&counter);
    EXPECT_EQ(Wait(producer), 0);
}

}  // namespace
}  // namespace Tracing
