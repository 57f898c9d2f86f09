// The registry update on the updater thread, watched by a consumer (this process) while producer
// processes come, go and die.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "RegistryBlockView.h"
#include "TestSupport.h"
#include "Trace/Buffer/TraceReaderInfo.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Reading/TraceReader.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Records/Trace.h"
#include "Trace/Registry/ITraceRegistryDataChangedListener.h"
#include "Trace/Registry/TraceRegistry.h"
#include "paxltrace.h"
#include "platform/Thread.h"

using namespace Tracing;
using namespace Tracing::Test;

namespace {

TraceRegistry& Registry() {
    return TraceRegistry::GetInstance();
}

bool WaitForAllUpdates() {
    return TraceUpdateManager::GetInstance().WaitForAllUpdates();
}

// Producer and consumer meet through marker files beside the shared memory.
std::string Marker(const std::string& subsystem, const char* what) {
    return "/tmp/" + ShmPrefix() + subsystem + "." + what;
}

void Touch(const std::string& path) {
    std::ofstream{path};
}

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

struct RecordingListener : ITraceRegistryDataChangedListener {
    RecordingListener() { Registry().RegisterDataChangedListener(this); }
    ~RecordingListener() override { Registry().UnregisterDataChangedListener(this); }
    void OnBuffersCreated(const std::unordered_set<int>& ids) override {
        std::lock_guard<std::mutex> lock(mutex);
        created.insert(ids.begin(), ids.end());
        ++calls;
    }
    void OnBuffersDeleted(const std::unordered_set<int>& ids) override {
        std::lock_guard<std::mutex> lock(mutex);
        deleted.insert(ids.begin(), ids.end());
        ++calls;
    }
    bool Created(int id) {
        std::lock_guard<std::mutex> lock(mutex);
        return created.count(id) != 0;
    }
    bool Deleted(int id) {
        std::lock_guard<std::mutex> lock(mutex);
        return deleted.count(id) != 0;
    }
    std::mutex mutex;
    std::unordered_set<int> created;
    std::unordered_set<int> deleted;
    int calls = 0;
};

// A producer process: registers its buffer, then waits for "stop" and unregisters it; or, with
// "flash", unregisters at once.
struct Producer {
    explicit Producer(const std::string& subsystemName, const char* mode = "hold")
        : subsystem(subsystemName), pid(SpawnChild("Produce", {subsystemName, mode})) {}
    ~Producer() {
        std::remove(Marker(subsystem, "ready").c_str());
        std::remove(Marker(subsystem, "stop").c_str());
    }
    bool WaitUntilRegistered() const {
        return WaitFor([&] { return Exists(Marker(subsystem, "ready")); }, 20000);
    }
    int Stop() const {
        Touch(Marker(subsystem, "stop"));
        return WaitChild(pid);
    }
    // The consumer buffer the update attached for it; -1 when there is none.
    int32_t ConsumerID() const {
        const TraceBuffer* buffer = Registry().GetConsumerBuffer(pid, "", subsystem.c_str());
        return buffer != nullptr ? buffer->GetBufferID() : -1;
    }
    std::string subsystem;
    pid_t pid;
};

// Holds the updater thread inside one of its cycles while blocked.
struct UpdaterBlocker : IUpdaterItem {
    UpdaterBlocker() { TraceUpdateManager::GetInstance().AddItem(*this); }
    ~UpdaterBlocker() override { TraceUpdateManager::GetInstance().RemoveItem(*this); }
    void Update() override {
        std::unique_lock<std::mutex> lock(mutex);
        inside = blocking;
        changed.notify_all();
        changed.wait(lock, [&] { return !blocking; });
        inside = false;
    }
    void Block() {
        std::unique_lock<std::mutex> lock(mutex);
        blocking = true;
        changed.wait(lock, [&] { return inside; });
    }
    void Release() {
        std::lock_guard<std::mutex> lock(mutex);
        blocking = false;
        changed.notify_all();
    }
    std::mutex mutex;
    std::condition_variable changed;
    bool blocking = false;
    bool inside = false;
};

#ifndef _WIN32
// The names of this test's shared-memory objects that hold `part` (Windows lists none).
std::vector<std::string> ShmObjectsWith(const std::string& part) {
    std::vector<std::string> names;
    if (DIR* dir = opendir("/dev/shm")) {
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.find(ShmPrefix()) != std::string::npos && name.find(part) != std::string::npos)
                names.push_back(name);
        }
        closedir(dir);
    }
    return names;
}
#endif

constexpr uint32_t StallRing = 16384;
constexpr uint32_t StalledID = 49;
constexpr uint32_t LastStallID = 51;

// What a producer killed inside one of its writes leaves: a lap of 512-byte entries (IDs 1-32), the
// first 1024 bytes of it overwritten by 64-byte ones (33-48), a span reserved and numbered (49) but
// never cleared, so that the earlier lap's 512-byte entry 3 still lies under it, and two entries
// (50, 51) that other threads completed behind it.
bool WriteAroundAStalledSpan(TraceBuffer& buffer) {
    const auto write = [&](uint32_t count, size_t length) {
        const std::string text(length, 'x');
        for (uint32_t i = 0; i < count; ++i)
            buffer.GetTraceStream()->Write(0, 0, 1, 0, Severity::Info, nullptr, 0, text.c_str(), 0, nullptr);
    };
    write(StallRing / 512, 512 - 41);
    write(16, 64 - 41);
    buffer.GetBufferData()->GetAtomicWriteIndex().fetch_add(64);
    buffer.GetBufferData()->GetAtomicTotalTraceCounter().fetch_add(1);
    write(2, 64 - 41);
    return buffer.GetTraceStream()->GetTotalTraceCounter() == LastStallID;
}

}  // namespace

PAXLTRACE_CHILD_ROLE(Exit) {
    return 0;
}

// args: subsystem, mode ("hold", "flash", or "stall": a small ring left as by a writer killed
// inside its entry).
PAXLTRACE_CHILD_ROLE(Produce) {
    const std::string& subsystem = args.at(0);
    const bool stall = args.at(1) == "stall";
    if (stall) {
        TraceConfigurationPrivate& configuration = TraceConfigurationPrivate::GetInstance();
        configuration.SetTraceStreamSize(StallRing);
        // Per-buffer IDs: no other process draws them, so their gaps are exactly what was lost.
        configuration.SetGlobalTraceID(false);
    }
    TraceBuffer* buffer = Registry().RegisterBuffer(subsystem.c_str(), "Module", TimestampMode::NotSet);
    if (buffer == nullptr)
        return 90;
    if (stall && !WriteAroundAStalledSpan(*buffer))
        return 93;
    if (args.at(1) != "flash") {
        Touch(Marker(subsystem, "ready"));
        // A killed producer never gets past this.
        if (!WaitFor([&] { return Exists(Marker(subsystem, "stop")); }, 60000))
            return 91;
    }
    return Registry().UnregisterBuffer(buffer) == TraceRegistry::Done ? 0 : 92;
}

// args: pid, subsystem, mode. A consumer of that buffer ("consume"), which also holds its memory
// by name until killed ("hold").
PAXLTRACE_CHILD_ROLE(Consume) {
    const int64_t pid = std::stoll(args.at(0));
    const std::string& subsystem = args.at(1);
    if (!WaitFor([&] { return Registry().GetConsumerBuffer(pid, "", subsystem.c_str()) != nullptr; }, 20000))
        return 90;
    std::string name;
    TraceBuffer::GetSHMName(name, pid, "", subsystem.c_str(), false);
    TraceSharedMemory memory(name.c_str());
    if (args.at(2) == "hold" && !memory.attach(TraceSharedMemory::ReadOnly))
        return 91;
    Touch(Marker(subsystem, "consumed"));
    return WaitFor([&] { return Exists(Marker(subsystem, "stop")); }, 60000) ? 0 : 92;
}

// The registry block's lock word: it moves on every acquisition.
uint32_t RegistryLockState(BlockView& view) {
    return std::atomic_ref<uint32_t>(*reinterpret_cast<uint32_t*>(static_cast<char*>(view.memory.data()) + 8))
        .load();
}

TEST(TraceRegistryUpdate, ProducersAreAnnouncedWhenTheyComeAndGoneOnceNoInterestHoldsThem) {
    RecordingListener listener;
    Producer producer("Comes");
    Producer wanted("Wanted");
    ASSERT_TRUE(producer.WaitUntilRegistered());
    ASSERT_TRUE(wanted.WaitUntilRegistered());
    // Registered before this call: the first full cycle after it attaches and announces.
    ASSERT_TRUE(WaitForAllUpdates());
    const int32_t id = producer.ConsumerID();
    const int32_t wantedID = wanted.ConsumerID();
    ASSERT_GE(id, 0);
    ASSERT_GE(wantedID, 0);
    EXPECT_TRUE(listener.Created(id));
    EXPECT_TRUE(listener.Created(wantedID));
    EXPECT_FALSE(listener.Deleted(id));

    Registry().RegisterInterest(wantedID);
    ASSERT_EQ(producer.Stop(), 0);
    ASSERT_EQ(wanted.Stop(), 0);
    ASSERT_TRUE(WaitForAllUpdates());
    EXPECT_TRUE(listener.Deleted(id));
    EXPECT_EQ(producer.ConsumerID(), -1);
    EXPECT_EQ(Registry().GetConsumerBuffer(id), nullptr);
    ASSERT_TRUE(WaitForAllUpdates());
    EXPECT_NE(Registry().GetConsumerBuffer(wantedID), nullptr);
    EXPECT_FALSE(listener.Deleted(wantedID));
    // Kept without a change: no update cycle takes the registry lock meanwhile. (The producers'
    // own buffers go first: their processes ended without unregistering them.)
    BlockView view;
    const auto itemsOf = [&](pid_t pid) {
        unsigned count = 0;
        for (unsigned i = 0; i < view.data->GetSizeOfBufferArray(); ++i)
            count += view.data->GetBufferArray()[i].IsActivated() &&
                     view.data->GetBufferArray()[i].GetProcessID() == pid;
        return count;
    };
    ASSERT_TRUE(WaitFor([&] { return itemsOf(producer.pid) + itemsOf(wanted.pid) == 0; }, 20000));
    ASSERT_TRUE(WaitForAllUpdates());
    const uint32_t lockState = RegistryLockState(view);
    Tracing::Platform::SleepMs(300);
    EXPECT_EQ(RegistryLockState(view), lockState);

    Registry().UnregisterInterest(wantedID);
    ASSERT_TRUE(WaitForAllUpdates());
    EXPECT_EQ(Registry().GetConsumerBuffer(wantedID), nullptr);
    EXPECT_TRUE(listener.Deleted(wantedID));
}

TEST(TraceRegistryUpdate, ABufferThatComesAndGoesBetweenTwoCyclesIsNeverAnnounced) {
    RecordingListener listener;
    // This process's own buffers are announced in the first cycles; start after them.
    ASSERT_TRUE(WaitForAllUpdates());
    {
        std::lock_guard<std::mutex> lock(listener.mutex);
        listener.calls = 0;
    }
    {
        UpdaterBlocker blocker;
        blocker.Block();
        Producer producer("Flash", "flash");
        EXPECT_EQ(WaitChild(producer.pid), 0);
        blocker.Release();
    }
    ASSERT_TRUE(WaitForAllUpdates());
    ASSERT_TRUE(WaitForAllUpdates());
    std::lock_guard<std::mutex> lock(listener.mutex);
    EXPECT_EQ(listener.calls, 0);
}

// A producer killed or terminated while another process holds its memory, and that holder killed
// after this consumer let go: the memory of both goes all the same.
TEST(TraceRegistryUpdate, KilledProcessesLeaveNoMemoryBehind) {
    for (const int signal : {SIGKILL, SIGTERM}) {
        SCOPED_TRACE(signal);
        RecordingListener listener;
        const std::string subsystem = "Killed" + std::to_string(signal);
        Producer producer(subsystem);
        ASSERT_TRUE(producer.WaitUntilRegistered());
        const pid_t holder = SpawnChild("Consume", {std::to_string(producer.pid), subsystem, "hold"});
        ASSERT_TRUE(WaitFor([&] { return Exists(Marker(subsystem, "consumed")); }, 20000));
        ASSERT_TRUE(WaitForAllUpdates());
        const int32_t id = producer.ConsumerID();
        ASSERT_GE(id, 0);

        ASSERT_EQ(kill(producer.pid, signal), 0);
        ASSERT_EQ(WaitChild(producer.pid), 128 + signal);
        // The dead-process search runs every tenth cycle; the cycle after it lets go.
        ASSERT_TRUE(WaitFor([&] { return listener.Deleted(id); }, 20000));
        ASSERT_TRUE(WaitForAllUpdates());
        EXPECT_EQ(Registry().GetConsumerBuffer(id), nullptr);
        ASSERT_EQ(kill(holder, SIGKILL), 0);
        ASSERT_EQ(WaitChild(holder), 128 + SIGKILL);
        std::remove(Marker(subsystem, "consumed").c_str());
#ifndef _WIN32
        for (const pid_t dead : {producer.pid, holder}) {
            const std::string part = "TraceBuffer_V1_" + std::to_string(dead) + "_";
            EXPECT_TRUE(WaitFor([&] { return ShmObjectsWith(part).empty(); }, 20000)) << part;
        }
#endif
    }
}

// The reader waits a bounded time for the span of a writer killed inside its entry, then reports
// it lost and reads on. The earlier lap's entry under the span is never taken: taking it once sent
// the cursor past the write index and its recovery delivered the whole ring a second time.
TEST(TraceRegistryUpdate, AKilledWritersSpanIsReportedLostAndNoTraceComesTwice) {
    Producer producer("Stalled", "stall");
    ASSERT_TRUE(producer.WaitUntilRegistered());
    ASSERT_TRUE(WaitFor([&] { return producer.ConsumerID() >= 0; }, 20000));
    const int32_t id = producer.ConsumerID();
    // Keeps the dead producer's buffer attached, so that reading does not race its removal.
    Registry().RegisterInterest(id);
    ASSERT_EQ(kill(producer.pid, SIGKILL), 0);
    ASSERT_EQ(WaitChild(producer.pid), 128 + SIGKILL);
    {
        TraceReader reader;
        ASSERT_EQ(reader.Create(0, false, false), TraceReader::Success);
        ASSERT_EQ(reader.RegisterBuffer(id, 0), TraceReader::Success);
        std::vector<uint32_t> ids;
        std::vector<std::string> reports;
        WaitFor(
            [&] {
                std::vector<std::unique_ptr<Trace>> traces;
                reader.ReadTraces(traces);
                for (const auto& trace : traces) {
                    if (trace->GetModuleID() == -1)
                        reports.push_back(trace->GetMessageString());
                    else
                        ids.push_back(trace->GetID());
                }
                return ids.size() > 100 || (!ids.empty() && ids.back() == LastStallID);
            },
            5000);
        // Entries 1-3 were overwritten before the reader came; the oldest one left is 4.
        std::vector<uint32_t> expected;
        for (uint32_t traceID = 4; traceID <= LastStallID; ++traceID) {
            if (traceID != StalledID)
                expected.push_back(traceID);
        }
        EXPECT_EQ(ids, expected);
        EXPECT_EQ(reports,
                  std::vector<std::string>{"Trace overflow. Buffer Size: 0.015625 MB. Error: 'There's a "
                                           "not completely written trace in the buffer'."});
        const TraceReadStatistics statistics = reader.GetStatistics();
        EXPECT_EQ(statistics.Lost, 1u);
        EXPECT_EQ(statistics.Delivered, expected.size());
    }
    Registry().UnregisterInterest(id);
    ASSERT_TRUE(WaitForAllUpdates());
}

// Items whose buffer cannot be attached: of dead local processes, and of another host with no
// memory behind them. All are freed, and one report names every one of them.
TEST(TraceRegistryUpdate, UnattachableItemsAreFreedAndReportedWhole) {
    const BlockView view;
    ASSERT_NE(view.data, nullptr);
    const pid_t dead = SpawnChild("Exit");
    WaitChild(dead);
    std::vector<int32_t> ids;
    view.data->Lock();
    for (int i = 0; i < 62; ++i) {
        const int32_t id = view.data->GetAtomicNextFreeBufferID().fetch_add(1);
        const bool remote = i >= 60;
        ASSERT_NE(view.data->ActivateFirstFreeItem(id, remote ? 4242 : dead, remote ? "FarHost" : "",
                                                   ("Gone" + std::to_string(i)).c_str()),
                  nullptr);
        ids.push_back(id);
    }
    view.data->Unlock();
    Registry().IncChangeCounter();
    EXPECT_TRUE(
        WaitFor([&] { return view.ActiveItems(dead).empty() && view.ActiveItems(4242).empty(); }, 20000));

    TraceBuffer* core = Registry().GetProducerBuffer(
        static_cast<int32_t>(trace_engine_get_buffer_id(TraceRegistry::GetEngine())));
    ASSERT_NE(core, nullptr);
    TraceReaderInfo cursor;
    std::vector<std::unique_ptr<Trace>> traces;
    bool overflow = false;
    ASSERT_EQ(core->ConnectReader(cursor, 0), TraceStream::Ok);
    core->Read(cursor, traces, overflow, 0);
    std::string report;
    for (const auto& trace : traces) {
        const std::string& text = trace->GetFormattedMessage();
        if (text.rfind("Trace buffer(s) of not running application(s) detected!\n", 0) == 0)
            report += text;
    }
    for (const int32_t id : ids) {
        EXPECT_NE(report.find("    BufferID: " + std::to_string(id) + ","), std::string::npos) << id;
    }
}

// Other processes let go of a buffer's memory only in their next cycle; registering the same
// names again at once must not fail on it.
TEST(TraceRegistryUpdate, ABufferRegisteredAgainRightAfterItsUnregistrationIsCreated) {
    TraceBuffer* buffer = Registry().RegisterBuffer("Again", "Module", TimestampMode::NotSet);
    ASSERT_NE(buffer, nullptr);
    const pid_t consumer = SpawnChild("Consume", {std::to_string(getpid()), "Again", "consume"});
    ASSERT_TRUE(WaitFor([&] { return Exists(Marker("Again", "consumed")); }, 20000));
    ASSERT_EQ(Registry().UnregisterBuffer(buffer), TraceRegistry::Done);
    buffer = Registry().RegisterBuffer("Again", "Module", TimestampMode::NotSet);
    EXPECT_NE(buffer, nullptr);
    Touch(Marker("Again", "stop"));
    EXPECT_EQ(WaitChild(consumer), 0);
    std::remove(Marker("Again", "consumed").c_str());
    std::remove(Marker("Again", "stop").c_str());
    if (buffer != nullptr) {
        EXPECT_EQ(Registry().UnregisterBuffer(buffer), TraceRegistry::Done);
    }
}
