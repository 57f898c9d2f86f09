// The registry object across processes: who creates, who waits, and what a process without a
// registry still gets.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "TestSupport.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Registry/TraceReceiverCommandStore.h"
#include "Trace/Registry/TraceRegistry.h"
#include "Trace/Registry/TraceRegistryData.h"
#include "Trace/Time/TraceTimer.h"
#include "platform/Clock.h"
#include "platform/CreationGuard.h"
#include "platform/Thread.h"

using namespace Tracing;
using namespace Tracing::Test;

namespace {

std::string RegistryKey() {
    return TraceConfigurationPrivate::GetInstance().GetShmPrefix() + "TraceRegistry_V1";
}

std::string GuardName() {
    return TraceConfigurationPrivate::GetInstance().GetShmPrefix() + "TraceRegistrySem_V1";
}

// A second, direct view onto the registry block, as another component would have it.
struct DirectView {
    bool Attach() {
        memory.setKey(RegistryKey().c_str());
        return memory.attach() && TraceRegistryData::Attach(data, memory.data()) == SHMErrorCodes::Success;
    }
    TraceSharedMemory memory;
    TraceRegistryData* data = nullptr;
};

// Waits until the wall clock reaches `when` (100 ns units), so that children start together.
void SleepUntil(const std::string& when) {
    const uint64_t start = std::stoull(when);
    while (Platform::PreciseWallClock() < start)
        Platform::SleepMs(1);
}

std::string StartTimeIn(unsigned milliseconds) {
    return std::to_string(Platform::PreciseWallClock() + milliseconds * TraceTimer::MSecMultiplicator);
}

}  // namespace

// Takes a buffer ID from the registry's counter; both racers must draw from one block.
PAXLTRACE_CHILD_ROLE(RaceForRegistry) {
    SleepUntil(args.at(0));
    TraceRegistry& registry = TraceRegistry::GetInstance();
    if (registry.GetCreationErrorCode() != SHMErrorCodes::Success)
        return 90;
    DirectView view;
    if (!view.Attach() || view.data->GetInitializedFlag().load() != 1)
        return 91;
    const int id = view.data->GetAtomicNextFreeBufferID().fetch_add(1);
    // Stay until the other racer has drawn too (each also drew one for its own buffer), or the
    // block would vanish with us.
    if (!WaitFor([&] { return view.data->GetAtomicNextFreeBufferID().load() >= 4; }, 10000))
        return 92;
    return id;
}

TEST(TraceRegistry, ProcessesStartedTogetherShareOneBlock) {
    for (int round = 0; round < 5; ++round) {
        const std::string start = StartTimeIn(300);
        const pid_t a = SpawnChild("RaceForRegistry", {start});
        const pid_t b = SpawnChild("RaceForRegistry", {start});
        const int idA = WaitChild(a);
        const int idB = WaitChild(b);
        // Two blocks would hand both racers the same ID.
        EXPECT_NE(idA, idB) << "round " << round;
        EXPECT_LT(idA, 4) << "round " << round;
        EXPECT_LT(idB, 4) << "round " << round;
    }
}

TEST(TraceRegistry, CreatorPublishesTheBlockAndReleasesTheGuard) {
    TraceRegistry& registry = TraceRegistry::GetInstance();
    ASSERT_EQ(registry.GetCreationErrorCode(), SHMErrorCodes::Success);
    DirectView view;
    ASSERT_TRUE(view.Attach());
    EXPECT_EQ(view.data->GetInitializedFlag().load(), 1u);
    EXPECT_EQ(registry.GetSizeOfBufferArray(), 1000u);
    EXPECT_EQ(access(("/dev/shm/" + GuardName()).c_str(), F_OK), -1)
        << "the creation guard leaves no file behind";

    // The accessors work on the shared block itself.
    const unsigned counter = registry.GetChangeCounter();
    registry.IncChangeCounter();
    EXPECT_EQ(view.data->GetAtomicChangeCounter().load(), counter + 1);
    EXPECT_TRUE(registry.SetProfileIndex(0, 0x80000001u));
    EXPECT_FALSE(registry.SetProfileIndex(0, 2));
    EXPECT_EQ(view.data->GetAtomicProfileIndex().load(), 0x80000001u);
    registry.SetProfileLoaderID(-42);
    EXPECT_EQ(view.data->GetProfileLoaderID(), -42);
    EXPECT_EQ(registry.GetProfileLoaderID(), -42);
    registry.SetTraceTimerResynchronizationPeriod(1234);
    EXPECT_EQ(view.data->GetTraceTimerResynchronizationPeriod(), 1234u);
    ASSERT_NE(registry.GetGlobalTraceIDCounter(), nullptr);
    // The library's own engines may have traced already (self-diagnostics switched on).
    const uint32_t traces = view.data->GetGlobalTraceCounter().load();
    ++*registry.GetGlobalTraceIDCounter();
    EXPECT_EQ(view.data->GetGlobalTraceCounter().load(), traces + 1);
    ASSERT_NE(registry.GetReceiverCommandStore(), nullptr);
    EXPECT_EQ(registry.GetReceiverCommandStore()->RegisterReceiver(), 0u);
    EXPECT_EQ(view.data->GetReceiverCommands()[0], 1u);

    // "Global\" names the local block on this system: it must not be counted twice.
    registry.TryAttachServiceRegistry();
    registry.IncServiceChangeCounter();
    EXPECT_EQ(registry.GetServiceChangeCounter(), 0u);
    EXPECT_EQ(registry.GetChangeCounter(), counter + 1);
    EXPECT_EQ(registry.GetServiceProfileLoaderID(), 0);
}

// Creates the block under the guard, never publishes it, and waits to be killed.
PAXLTRACE_CHILD_ROLE(CreatorThatNeverPublishes) {
    Platform::CreationGuard guard(GuardName());
    if (guard.TryAcquire() != Platform::CreationGuard::Attempt::Acquired)
        return 90;
    TraceSharedMemory memory(RegistryKey().c_str());
    TraceRegistryData* data = nullptr;
    const uint64_t size = TraceRegistryData::GetSize(10);
    if (!memory.create(size) ||
        TraceRegistryData::Create(data, memory.data(), size) != SHMErrorCodes::Success)
        return 91;
    for (;;)
        pause();
}

TEST(TraceRegistry, AttacherGivesUpOnABlockItsCreatorNeverPublished) {
    const pid_t creator = SpawnChild("CreatorThatNeverPublishes");
    DirectView view;
    ASSERT_TRUE(WaitFor([&] { return view.Attach(); }, 10000));
    // An opener may see the block before its creator has laid it out.
    ASSERT_TRUE(WaitFor([&] { return view.data->GetTraceTimerResynchronizationPeriod() == 10000u; }, 10000));
    // The creator dies holding the guard; the block lives on because this process holds it.
    kill(creator, SIGKILL);
    EXPECT_EQ(WaitChild(creator), 128 + SIGKILL);

    const auto begin = std::chrono::steady_clock::now();
    TraceRegistry& registry = TraceRegistry::GetInstance();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));
    EXPECT_EQ(registry.GetCreationErrorCode(), SHMErrorCodes::NotInitialized);

    // Neutral values, and the unpublished block is left alone.
    registry.IncChangeCounter();
    registry.SetProfileLoaderID(5);
    registry.SetTraceTimer(1, 2, 3);
    registry.SetTraceTimerResynchronizationPeriod(1);
    EXPECT_EQ(registry.GetChangeCounter(), 0u);
    EXPECT_EQ(registry.GetProfileIndex(), 0u);
    EXPECT_FALSE(registry.SetProfileIndex(0, 1));
    EXPECT_EQ(registry.GetProfileLoaderID(), 0);
    EXPECT_EQ(registry.GetTraceTimerResynchronizationPeriod(), 10000u);
    EXPECT_EQ(registry.GetSizeOfBufferArray(), 0u);
    EXPECT_EQ(registry.GetReceiverCommandStore(), nullptr);
    EXPECT_EQ(registry.GetGlobalTraceIDCounter(), nullptr);
    uint64_t time = 1, tick = 1;
    int64_t counter = 1;
    registry.GetTraceTimer(time, tick, counter);
    EXPECT_EQ(time + tick + static_cast<uint64_t>(counter), 0u);
    EXPECT_EQ(view.data->GetAtomicChangeCounter().load(), 0u);
    EXPECT_EQ(view.data->GetProfileLoaderID(), 0);
    EXPECT_EQ(view.data->GetTraceTimerResynchronizationPeriod(), 10000u);

    // Timestamps still tell the time without the shared reference (not counting from 1970); the
    // margin is wide because a loaded machine may deschedule us between the reads.
    const uint64_t before = Platform::PreciseWallClock();
    const uint64_t fast = TraceTimer::GetInstance().GetTimestamp(TimestampMode::FAST);
    EXPECT_GT(fast + 1000 * TraceTimer::MSecMultiplicator, before);
    EXPECT_LT(fast, Platform::PreciseWallClock() + 1000 * TraceTimer::MSecMultiplicator);
}

PAXLTRACE_CHILD_ROLE(ReportCreationError) {
    return TraceRegistry::GetInstance().GetCreationErrorCode();
}

TEST(TraceRegistry, BlocksThatDoNotHoldWhatTheyAnnounceAreRefused) {
    // Published, but announcing far more items than the mapping holds.
    TraceSharedMemory memory(RegistryKey().c_str());
    TraceRegistryData* data = nullptr;
    ASSERT_TRUE(memory.create(TraceRegistryData::GetSize(1)));
    ASSERT_EQ(TraceRegistryData::Create(data, memory.data(), TraceRegistryData::GetSize(1)),
              SHMErrorCodes::Success);
    const uint32_t items = 5000;
    std::memcpy(static_cast<char*>(memory.data()) + 148, &items, sizeof items);
    data->GetInitializedFlag().store(1);
    EXPECT_EQ(WaitChild(SpawnChild("ReportCreationError")), SHMErrorCodes::InvalidSize);
    ASSERT_TRUE(memory.detach());

    // Too small for the header itself. (Windows maps whole pages: such a block cannot exist there.)
#ifndef _WIN32
    ASSERT_TRUE(memory.create(64));
    EXPECT_EQ(WaitChild(SpawnChild("ReportCreationError")), SHMErrorCodes::InvalidSize);
#endif
}

PAXLTRACE_CHILD_ROLE(SetTimer) {
    TraceRegistry& registry = TraceRegistry::GetInstance();
    if (registry.GetCreationErrorCode() != SHMErrorCodes::Success)
        return 90;
    registry.SetTraceTimer(std::stoull(args.at(0)), std::stoull(args.at(1)), std::stoll(args.at(2)));
    return 0;
}

TEST(TraceRegistry, SetTraceTimerIsDroppedWhileAnotherProcessWrites) {
    ASSERT_EQ(TraceRegistry::GetInstance().GetCreationErrorCode(), SHMErrorCodes::Success);
    DirectView view;
    ASSERT_TRUE(view.Attach());
    uint64_t time = 0, tick = 0;
    int64_t counter = 0;

    // A reference that is current: a stale one would be renewed by the next fast timestamp of
    // either process's updater thread.
    const uint64_t now = Platform::PreciseWallClock();
    const std::string tickNow = std::to_string(Platform::TickMs());

    // This process plays the writer in the middle of its update.
    ASSERT_EQ(view.data->GetAtomicUpdateIndicator().exchange(1), 0u);
    EXPECT_EQ(WaitChild(SpawnChild("SetTimer", {std::to_string(now - 1), tickNow, "-1"})), 0);
    view.data->GetTraceTimer(time, tick, counter);
    EXPECT_NE(time, now - 1);
    view.data->GetAtomicUpdateIndicator().store(0);

    EXPECT_EQ(WaitChild(SpawnChild("SetTimer", {std::to_string(now), tickNow, "-2000"})), 0);
    view.data->GetTraceTimer(time, tick, counter);
    EXPECT_EQ(time, now);
    EXPECT_EQ(tick, std::stoull(tickNow));
    EXPECT_EQ(counter, -2000);
    EXPECT_EQ(view.data->GetAtomicUpdateIndicator().load(), 0u);
}
