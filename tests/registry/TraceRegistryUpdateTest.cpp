// The registry update on the updater thread, watched by a consumer (this process) while producer
// processes come, go and die.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "TestSupport.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Registry/ITraceRegistryDataChangedListener.h"
#include "Trace/Registry/TraceRegistry.h"
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

// The names of this test's shared-memory objects that hold `part`.
[[maybe_unused]] std::vector<std::string> ShmObjectsWith(const std::string& part) {
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

}  // namespace

// args: subsystem, mode ("hold" or "flash").
PAXLTRACE_CHILD_ROLE(Produce) {
    const std::string& subsystem = args.at(0);
    TraceBuffer* buffer = Registry().RegisterBuffer(subsystem.c_str(), "Module", TimestampMode::NotSet);
    if (buffer == nullptr)
        return 90;
    if (args.at(1) != "flash") {
        Touch(Marker(subsystem, "ready"));
        // A killed producer never gets past this.
        if (!WaitFor([&] { return Exists(Marker(subsystem, "stop")); }, 60000))
            return 91;
    }
    return Registry().UnregisterBuffer(buffer) == TraceRegistry::Done ? 0 : 92;
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

TEST(TraceRegistryUpdate, AKilledProducerIsFreedAndLeavesNothingBehind) {
    RecordingListener listener;
    Producer producer("Killed");
    ASSERT_TRUE(producer.WaitUntilRegistered());
    ASSERT_TRUE(WaitForAllUpdates());
    const int32_t id = producer.ConsumerID();
    ASSERT_GE(id, 0);
    // This consumer now holds the dead producer's memory. (Windows keeps no list of the objects
    // to look at: they vanish with their last handle.)
#ifndef _WIN32
    ASSERT_FALSE(ShmObjectsWith("Killed").empty());
#endif

    ASSERT_EQ(kill(producer.pid, SIGKILL), 0);
    ASSERT_EQ(WaitChild(producer.pid), 128 + SIGKILL);
    // The dead-process search runs every tenth cycle.
    ASSERT_TRUE(WaitFor([&] { return listener.Deleted(id); }, 20000));
    // The cycle that told the listeners lets go of the buffer after them.
    ASSERT_TRUE(WaitForAllUpdates());
    EXPECT_EQ(Registry().GetConsumerBuffer(id), nullptr);
#ifndef _WIN32
    EXPECT_EQ(ShmObjectsWith("Killed"), std::vector<std::string>{});
#endif
}
