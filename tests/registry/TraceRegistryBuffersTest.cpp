// Buffer registration, lookup and browse through the registry, with real processes where the
// buffers of several processes meet in one registry block.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "RegistryBlockView.h"
#include "TestSupport.h"
#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Registry/ITraceRegistryDataChangedListener.h"
#include "Trace/Registry/TraceBufferFilterCriteria.h"
#include "Trace/Registry/TraceRegistry.h"
#include "Trace/Registry/TraceRegistryData.h"
#include "Trace/Time/TraceTimer.h"
#include "platform/Clock.h"
#include "platform/EventLog.h"
#include "platform/Thread.h"

namespace Tracing {

// Attaching for reading is the registry update's job; the tests do it by hand.
class TraceRegistryTestAccess {
public:
    static TraceBuffer* AttachConsumerBuffer(int32_t bufferID) {
        return TraceRegistry::GetInstance().AttachConsumerBuffer(bufferID);
    }
};

}  // namespace Tracing

using namespace Tracing;
using namespace Tracing::Test;

namespace {

TraceRegistry& Registry() {
    return TraceRegistry::GetInstance();
}

bool BufferMemoryExists(const char* subsystem) {
    std::string name;
    TraceBuffer::GetSHMName(name, getpid(), "", subsystem, false);
    TraceSharedMemory memory(name.c_str());
    return memory.attach(TraceSharedMemory::ReadOnly);
}

// Captures the registry's event log entries for the lifetime of the object.
struct EventLogCapture {
    EventLogCapture() {
        Platform::SetEventLogSink([this](const Platform::EventLogEntry& entry) {
            if (entry.source == "TraceRegistry")
                entries.push_back(entry);
        });
    }
    ~EventLogCapture() { Platform::SetEventLogSink({}); }
    int Count(Platform::EventType type, const std::string& start) const {
        int count = 0;
        for (const auto& entry : entries)
            count += entry.type == type && entry.message.rfind(start, 0) == 0;
        return count;
    }
    std::vector<Platform::EventLogEntry> entries;
};

constexpr const char* CleanupWarning = "Failed to register buffer. Attempting to clean registry.";

// Children hold their buffers until the file named in their arguments exists.
struct ReleaseFile {
    ReleaseFile()
        : path("/tmp/paxltrace-release-" + std::to_string(getpid()) + "-" + std::to_string(++made)) {}
    ~ReleaseFile() { std::remove(path.c_str()); }
    void Release() const { std::ofstream(path) << 1; }
    static inline int made = 0;
    std::string path;
};

bool HoldUntilReleased(const std::string& path) {
    return WaitFor([&] { return access(path.c_str(), F_OK) == 0; }, 20000);
}

struct DeletedListener : ITraceRegistryDataChangedListener {
    // The updater may announce buffers meanwhile; only deletions are counted.
    void OnBuffersCreated(const std::unordered_set<int>&) override {}
    void OnBuffersDeleted(const std::unordered_set<int>& ids) override { deleted.push_back(ids); }
    std::vector<std::unordered_set<int>> deleted;
};

}  // namespace

// args: start time, subsystem, release value.
PAXLTRACE_CHILD_ROLE(RegisterTogether) {
    const uint64_t start = std::stoull(args.at(0));
    while (Platform::PreciseWallClock() < start)
        Platform::SleepMs(1);
    TraceBuffer::ErrorType error = TraceBuffer::SharedMemoryFailed;
    TraceBuffer* buffer =
        Registry().RegisterBuffer(args.at(1).c_str(), "Module", TimestampMode::NotSet, 0, 0, &error);
    if (buffer == nullptr || error != TraceBuffer::Success || buffer->GetProcessID() != getpid())
        return 90;
    // The other process's buffer of the same name is not ours.
    if (Registry().RegisterBuffer(args.at(1).c_str(), "Module", TimestampMode::NotSet, 0, 0, &error) !=
            buffer ||
        error != TraceBuffer::AlreadyCreated)
        return 91;
    return HoldUntilReleased(args.at(2)) ? 0 : 92;
}

TEST(TraceRegistryBuffers, ProcessesRegisteringTogetherGetDistinctBuffers) {
    ASSERT_EQ(Registry().GetCreationErrorCode(), SHMErrorCodes::Success);
    BlockView view;
    for (int round = 0; round < 3; ++round) {
        const std::string subsystem = "Shared" + std::to_string(round);
        const ReleaseFile release;
        const std::string start =
            std::to_string(Platform::PreciseWallClock() + 300 * uint64_t{TraceTimer::MSecMultiplicator});
        const pid_t a = SpawnChild("RegisterTogether", {start, subsystem, release.path});
        const pid_t b = SpawnChild("RegisterTogether", {start, subsystem, release.path});
        ASSERT_TRUE(
            WaitFor([&] { return view.ActiveItems(a).size() + view.ActiveItems(b).size() == 2; }, 20000));
        const int32_t idA = view.ActiveItems(a)[0]->GetBufferID();
        const int32_t idB = view.ActiveItems(b)[0]->GetBufferID();
        EXPECT_NE(idA, idB);

        // By (process, host, subsystem) each process's buffer is found, and only its own.
        ASSERT_NE(TraceRegistryTestAccess::AttachConsumerBuffer(idA), nullptr);
        ASSERT_NE(TraceRegistryTestAccess::AttachConsumerBuffer(idB), nullptr);
        EXPECT_EQ(Registry().GetConsumerBuffer(a, "", subsystem.c_str()), Registry().GetConsumerBuffer(idA));
        EXPECT_EQ(Registry().GetConsumerBuffer(b, "", subsystem.c_str()), Registry().GetConsumerBuffer(idB));
        EXPECT_EQ(Registry().GetConsumerBuffer(a, "elsewhere", subsystem.c_str()), nullptr);
        EXPECT_EQ(Registry().GetConsumerBuffer(getpid(), "", subsystem.c_str()), nullptr);

        release.Release();
        EXPECT_EQ(WaitChild(a), 0) << "round " << round;
        EXPECT_EQ(WaitChild(b), 0) << "round " << round;
    }
}

// args: release value (empty: exit at once), then the subsystems to register.
PAXLTRACE_CHILD_ROLE(HoldBuffers) {
    for (size_t i = 1; i < args.size(); ++i) {
        if (Registry().RegisterBuffer(args[i].c_str(), "Module", TimestampMode::NotSet) == nullptr)
            return 90;
    }
    return args.at(0).empty() || HoldUntilReleased(args.at(0)) ? 0 : 91;
}

TEST(TraceRegistryBuffers, AFullRegistryIsCleanedOfBuffersThatNoLongerExist) {
    // Each process also holds the library's own buffer: ours, the child's, and its two.
    setenv("TRACE_MAX_BUFFERS", "4", 1);
    ASSERT_EQ(Registry().GetSizeOfBufferArray(), 4u);
    BlockView view;
    {
        const ReleaseFile never;
        const pid_t gone = SpawnChild("HoldBuffers", {never.path, "Gone0", "Gone1"});
        // The updater's reading copies keep the buffers' memory alive: no clean-up can free them
        // before the updater has let go of them, in the cycle after it learnt of the death.
        const auto copiesHere = [&] {
            return (Registry().GetConsumerBuffer(gone, "", "Gone0") != nullptr) +
                   (Registry().GetConsumerBuffer(gone, "", "Gone1") != nullptr);
        };
        ASSERT_TRUE(WaitFor([&] { return copiesHere() == 2; }, 20000));
        kill(gone, SIGKILL);
        EXPECT_EQ(WaitChild(gone), 128 + SIGKILL);
        ASSERT_TRUE(WaitFor([&] { return copiesHere() == 0; }, 20000));
    }

    // The dead items are gone, or go with the registration's clean-up.
    EventLogCapture log;
    TraceBuffer::ErrorType error = TraceBuffer::SharedMemoryFailed;
    TraceBuffer* buffer = Registry().RegisterBuffer("Alive", "Module", TimestampMode::NotSet, 0, 0, &error);
    ASSERT_NE(buffer, nullptr) << "error " << error
                               << (log.entries.empty() ? "" : ", " + log.entries.back().message);
    EXPECT_EQ(error, TraceBuffer::Success);
    EXPECT_LE(log.Count(Platform::EventType::Warning, CleanupWarning), 1);
    EXPECT_EQ(log.Count(Platform::EventType::Error, ""), 0);
    ASSERT_EQ(view.ActiveItems().size(), 1u);
    EXPECT_EQ(view.ActiveItems()[0]->GetBufferID(), buffer->GetBufferID());
    EXPECT_EQ(Registry().UnregisterBuffer(buffer), TraceRegistry::Done);

    // Buffers of a live process stay; with no item left the new buffer is dropped again.
    const ReleaseFile release;
    const pid_t holder = SpawnChild("HoldBuffers", {release.path, "Live0", "Live1"});
    ASSERT_TRUE(WaitFor([&] { return view.ActiveItems().size() == 2; }, 20000));
    {
        EventLogCapture full;
        error = TraceBuffer::Success;
        EXPECT_EQ(Registry().RegisterBuffer("TooMany", "Module", TimestampMode::NotSet, 0, 0, &error),
                  nullptr);
        EXPECT_EQ(error, TraceBuffer::NoFreeRegistryItem);
        EXPECT_EQ(full.Count(Platform::EventType::Warning, CleanupWarning), 1);
        EXPECT_EQ(full.Count(Platform::EventType::Error, "Failed to register buffer: BufferID: "), 1);
        EXPECT_EQ(view.ActiveItems().size(), 2u);
        EXPECT_FALSE(BufferMemoryExists("TooMany"));
    }
    release.Release();
    EXPECT_EQ(WaitChild(holder), 0);
}

TEST(TraceRegistryBuffers, AnotherProcessesBufferIsOnlyEverAConsumerBuffer) {
    ASSERT_EQ(Registry().GetCreationErrorCode(), SHMErrorCodes::Success);
    BlockView view;
    const ReleaseFile release;
    const pid_t child = SpawnChild("HoldBuffers", {release.path, "Sub"});
    ASSERT_TRUE(WaitFor([&] { return view.ActiveItems(child).size() == 1; }, 20000));
    const int32_t childID = view.ActiveItems(child)[0]->GetBufferID();

    TraceBuffer* consumer = TraceRegistryTestAccess::AttachConsumerBuffer(childID);
    ASSERT_NE(consumer, nullptr);
    EXPECT_EQ(Registry().GetConsumerBuffer(childID), consumer);
    EXPECT_EQ(Registry().GetProducerBuffer(childID), nullptr);
    EXPECT_EQ(Registry().UnregisterBuffer(consumer), TraceRegistry::NotCreatedHere);
    EXPECT_EQ(Registry().GetConsumerBuffer(childID), consumer);

    // The same subsystem here is a buffer of this process, never the one attached for reading.
    TraceBuffer::ErrorType error = TraceBuffer::SharedMemoryFailed;
    TraceBuffer* own = Registry().RegisterBuffer("Sub", "Module", TimestampMode::NotSet, 0, 0, &error);
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(error, TraceBuffer::Success);
    EXPECT_NE(own->GetBufferID(), childID);
    EXPECT_EQ(own->GetCreatorProcessID(), getpid());

    Registry().RegisterInterest(childID);
    Registry().RegisterInterest(own->GetBufferID());  // not a consumer buffer: ignored
    EXPECT_TRUE(consumer->HasInterest());
    EXPECT_FALSE(own->HasInterest());
    Registry().UnregisterInterest(childID);
    EXPECT_FALSE(consumer->HasInterest());

    auto count = [](bool consumers, const TraceBufferFilterCriteria& criteria) {
        std::vector<std::unique_ptr<TraceBufferInfo>> infos(2);  // replaced, not appended to
        consumers ? Registry().ConsumerBrowse(infos, criteria) : Registry().ProducerBrowse(infos, criteria);
        // Only the child's buffer, not the library's own ones nor ours attached for reading.
        return std::count_if(infos.begin(), infos.end(), [](const auto& info) {
            return info->SubSystemName == "Sub" &&
                   (info->ProcessID != getpid() || info->CreatorProcessID == getpid());
        });
    };
    EXPECT_EQ(count(true, TraceBufferFilterCriteria("")), 1);
    EXPECT_EQ(count(true, TraceBufferFilterCriteria(std::string("elsewhere"))), 0);
    EXPECT_EQ(count(true, TraceBufferFilterCriteria(int64_t{child})), 1);

    EXPECT_EQ(count(false, TraceBufferFilterCriteria(int64_t{getpid()})), 1);
    EXPECT_EQ(count(false, TraceBufferFilterCriteria(int64_t{child})), 0);

    release.Release();
    EXPECT_EQ(WaitChild(child), 0);
}

TEST(TraceRegistryBuffers, ABufferCreatedHereIsRegisteredOnceAndUnregisteredOnce) {
    const std::string diagnostics = "/tmp/paxltrace-registry-" + std::to_string(getpid()) + ".txt";
    setenv("TRACE_DIAG", "1", 1);
    setenv("TRACE_DIAG_FILE", diagnostics.c_str(), 1);
    TraceConfigurationPrivate::GetInstance().SetBufferCloseWaitMs(0);

    TraceBuffer::ErrorType error = TraceBuffer::SharedMemoryFailed;
    TraceBuffer* buffer = Registry().RegisterBuffer("Twice", "Module", TimestampMode::NotSet, 5, 0, &error);
    ASSERT_NE(buffer, nullptr);
    BlockView view;
    EXPECT_EQ(error, TraceBuffer::Success);
    const int32_t id = buffer->GetBufferID();
    EXPECT_EQ(Registry().RegisterBuffer("Twice", "Other", TimestampMode::NotSet, 9, 0, &error), buffer);
    EXPECT_EQ(error, TraceBuffer::AlreadyCreated);
    EXPECT_EQ(buffer->GetSizeOfModuleArray(), 5u);
    EXPECT_EQ(Registry().GetProducerBuffer(id), buffer);

    std::ifstream file(diagnostics);
    std::stringstream text;
    text << file.rdbuf();
    std::remove(diagnostics.c_str());
    EXPECT_NE(
        text.str().find("The buffer is already registered with different module count: BufferID: " +
                        std::to_string(id) + ", PID: " + std::to_string(getpid()) +
                        ", host: , subsys: Twice, module: Other, module count: 5, needed module count: 9."),
        std::string::npos)
        << text.str();

    // Registered twice, told once.
    DeletedListener listener;
    Registry().RegisterDataChangedListener(&listener);
    Registry().RegisterDataChangedListener(&listener);
    const unsigned counter = Registry().GetChangeCounter();
    EXPECT_EQ(Registry().UnregisterBuffer(buffer), TraceRegistry::Done);
    ASSERT_EQ(listener.deleted.size(), 1u);
    EXPECT_EQ(listener.deleted[0], std::unordered_set<int>{id});
    EXPECT_TRUE(view.ActiveItems().empty());
    EXPECT_GT(Registry().GetChangeCounter(), counter);
    EXPECT_FALSE(BufferMemoryExists("Twice"));
    EXPECT_EQ(Registry().GetProducerBuffer(id), nullptr);
    // The pointer is only compared, never followed, once the buffer is gone.
    EXPECT_EQ(Registry().UnregisterBuffer(buffer), TraceRegistry::NotCreatedHere);
    EXPECT_EQ(Registry().UnregisterBuffer(nullptr), TraceRegistry::NotCreatedHere);

    Registry().UnregisterDataChangedListener(&listener);
    EXPECT_EQ(
        Registry().UnregisterBuffer(Registry().RegisterBuffer("Twice", "Module", TimestampMode::NotSet)),
        TraceRegistry::Done);
    EXPECT_EQ(listener.deleted.size(), 1u);
}

// args: release value, then the host names to register a remote buffer for.
PAXLTRACE_CHILD_ROLE(RegisterRemote) {
    for (size_t i = 1; i < args.size(); ++i) {
        if (Registry().RegisterRemoteBuffer(4242, args[i].c_str(), "Sys", "App", "Remote", "Module",
                                            TimestampMode::NotSet, 0, 0) == nullptr)
            return 90;
    }
    return HoldUntilReleased(args.at(0)) ? 0 : 91;
}

TEST(TraceRegistryBuffers, ASecondCollectorOfARemoteProcessGetsASuffix) {
    EventLogCapture log;
    const std::string host32(32, 'h'), host31(31, 'g');
    const ReleaseFile release;
    BlockView view;
    const pid_t collector = SpawnChild("RegisterRemote", {release.path, host32, host31, "short"});
    ASSERT_TRUE(WaitFor([&] { return view.ActiveItems().size() == 3; }, 20000));

    auto registerRemote = [](const std::string& host, TraceBuffer::ErrorType& error) {
        return Registry().RegisterRemoteBuffer(4242, host.c_str(), "OtherSys", "OtherApp", "Remote", "Module",
                                               TimestampMode::NotSet, 0, 0, &error);
    };
    const std::pair<std::string, std::string> cases[] = {
        {host32, std::string(30, 'h') + ":1"}, {host31, std::string(29, 'g') + ":1"}, {"short", "short:1"}};
    for (const auto& [host, registryHost] : cases) {
        TraceBuffer::ErrorType error = TraceBuffer::SharedMemoryFailed;
        TraceBuffer* buffer = registerRemote(host, error);
        ASSERT_NE(buffer, nullptr) << host;
        EXPECT_EQ(error, TraceBuffer::Success);
        EXPECT_EQ(buffer->GetRegistryHostName(), registryHost);
        EXPECT_EQ(std::string(buffer->GetHostName()), host);
        // This collector asking again gets its own buffer back.
        EXPECT_EQ(registerRemote(host, error), buffer);
        EXPECT_EQ(error, TraceBuffer::AlreadyCreated);
    }
    EXPECT_EQ(view.ActiveItems(4242).size(), 6u);
    EXPECT_GE(log.Count(Platform::EventType::Error, "Failed to create buffer: BufferID: "), 3);

    TraceBuffer::ErrorType error = TraceBuffer::Success;
    EXPECT_EQ(registerRemote("", error), nullptr);
    EXPECT_EQ(error, TraceBuffer::SharedMemoryFailed);

    release.Release();
    EXPECT_EQ(WaitChild(collector), 0);
}

TEST(TraceRegistryBuffers, NameChangesReachTheLocalBuffersCreatedHere) {
    // Before any buffer exists a name change must not make the registry.
    TraceConfigurationPrivate::GetInstance().SetSystemName("Early");
    EXPECT_EQ(BlockView(false).data, nullptr);

    TraceBuffer* local = Registry().RegisterBuffer("Named", "Module", TimestampMode::NotSet);
    TraceBuffer* remote = Registry().RegisterRemoteBuffer(77, "far", "RemoteSys", "RemoteApp", "Named",
                                                          "Module", TimestampMode::NotSet, 0, 0);
    ASSERT_NE(local, nullptr);
    ASSERT_NE(remote, nullptr);
    EXPECT_STREQ(local->GetSystemName(), "Early");

    TraceConfigurationPrivate::GetInstance().SetSystemName("Late");
    TraceConfigurationPrivate::GetInstance().SetApplicationName("Renamed");
    EXPECT_STREQ(local->GetSystemName(), "Late");
    EXPECT_STREQ(local->GetApplicationName(), "Renamed");
    EXPECT_STREQ(remote->GetSystemName(), "RemoteSys");
    EXPECT_STREQ(remote->GetApplicationName(), "RemoteApp");
}

TEST(TraceRegistryBuffers, ABufferCreatedBesideTheRegistryIsFoundAgainAsProducer) {
    // What another copy of the library in this process leaves: a buffer and its item, nothing else.
    ASSERT_EQ(Registry().GetCreationErrorCode(), SHMErrorCodes::Success);
    BlockView view;
    ASSERT_NE(view.data, nullptr);
    const int32_t id = view.data->GetAtomicNextFreeBufferID().fetch_add(1);
    TraceBuffer beside;
    ASSERT_EQ(beside.Create(id, getpid(), TimestampMode::NotSet, "", "", "Sys", "App", "Beside", 0, 0),
              TraceBuffer::Success);
    view.data->Lock();
    ASSERT_NE(view.data->ActivateFirstFreeItem(id, getpid(), "", "Beside"), nullptr);
    view.data->Unlock();

    // Found once the change counter says that something changed.
    Registry().IncChangeCounter();
    TraceBuffer* found = Registry().GetProducerBuffer(id);
    ASSERT_NE(found, nullptr);
    EXPECT_NE(found, &beside);
    EXPECT_EQ(Registry().RegisterBuffer("Beside", "Module", TimestampMode::NotSet), found);
    EXPECT_EQ(Registry().UnregisterBuffer(found), TraceRegistry::NotCreatedHere);
}
