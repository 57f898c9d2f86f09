// Timestamps across processes: the shared time reference and its renewal.
#include <gtest/gtest.h>

#include <algorithm>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "Trace/Registry/TraceRegistry.h"
#include "Trace/Time/TraceTimer.h"
#include "platform/Clock.h"
#include "platform/Thread.h"

using namespace Tracing;
using namespace Tracing::Test;

namespace {

constexpr uint64_t Ms = TraceTimer::MSecMultiplicator;
constexpr uint64_t Hour = 3600 * 1000 * Ms;
// Two tick granularities plus scheduling slack; FAST has millisecond resolution at best.
constexpr int64_t Tolerance = 20 * Ms;

uint64_t Fast() {
    return TraceTimer::GetInstance().GetTimestamp(TimestampMode::FAST);
}

uint64_t ReferenceTime() {
    uint64_t time = 0, tick = 0;
    int64_t counter = 0;
    TraceRegistry::GetInstance().GetTraceTimer(time, tick, counter);
    return time;
}

// Within the two readings of the precise clock taken around `value`, give or take the tolerance.
// Bracketing keeps a descheduled process from looking like a clock error.
bool Between(uint64_t before, uint64_t value, uint64_t after) {
    return value + Tolerance >= before && value <= after + Tolerance;
}

uint64_t Precise() {
    return TraceTimer::GetInstance().GetTimestamp(TimestampMode::PRECISE);
}

// FAST shifted by `offset` lies between two precise readings around it.
bool FastFollowsPrecise(uint64_t offset) {
    const uint64_t before = Precise();
    const uint64_t fast = Fast() - offset;
    return Between(before, fast, Precise());
}

}  // namespace

// Checks that FAST runs `hours` ahead of the precise clock, and that PRECISE and OPTIMAL are not
// older than the parent's reading `notBefore`.
PAXLTRACE_CHILD_ROLE(CompareClocks) {
    const uint64_t offset = std::stoull(args.at(0)) * Hour;
    const uint64_t notBefore = std::stoull(args.at(1));
    if (TraceRegistry::GetInstance().GetCreationErrorCode() != SHMErrorCodes::Success)
        return 90;
    const uint64_t precise = Precise();
    const uint64_t optimal = TraceTimer::GetInstance().GetTimestamp(TimestampMode::OPTIMAL);
    if (precise < notBefore || optimal < precise)
        return 91;
    return FastFollowsPrecise(offset) ? 0 : 92;
}

TEST(TraceTimerClock, ProcessesShareTheReference) {
    TraceRegistry& registry = TraceRegistry::GetInstance();
    ASSERT_EQ(registry.GetCreationErrorCode(), SHMErrorCodes::Success);
    EXPECT_NE(ReferenceTime(), TraceTimer::ReferenceNotSet) << "the creator takes the first reference";

    uint64_t precise = Precise();
    EXPECT_TRUE(FastFollowsPrecise(0));
    EXPECT_EQ(WaitChild(SpawnChild("CompareClocks", {"0", std::to_string(precise)})), 0);

    // A reference an hour ahead, taken just now: FAST timestamps of every process follow it.
    registry.SetTraceTimer(Platform::PreciseWallClock() + Hour, Platform::TickMs(),
                           Platform::PerformanceCounter());
    EXPECT_TRUE(FastFollowsPrecise(Hour));
    precise = Precise();
    EXPECT_EQ(WaitChild(SpawnChild("CompareClocks", {"1", std::to_string(precise)})), 0);

    TraceTimer::Synchronize();
    EXPECT_TRUE(FastFollowsPrecise(0));
    EXPECT_EQ(WaitChild(SpawnChild("CompareClocks", {"0", std::to_string(precise)})), 0);
}

TEST(TraceTimerClock, ResynchronizationPeriodLivesInTheRegistry) {
    TraceRegistry& registry = TraceRegistry::GetInstance();
    EXPECT_EQ(TraceTimer::GetResynchronizationPeriod(), TraceTimer::DefaultResyncPeriod);
    TraceTimer::SetResynchronizationPeriod(50);
    EXPECT_EQ(registry.GetTraceTimerResynchronizationPeriod(), 50u);

    // An hour-off reference older than the period is replaced by the next FAST timestamp.
    registry.SetTraceTimer(Platform::PreciseWallClock() + Hour, Platform::TickMs() - 51, 0);
    const uint64_t skewed = ReferenceTime();
    EXPECT_TRUE(FastFollowsPrecise(0));
    EXPECT_NE(ReferenceTime(), skewed);
}

// Takes FAST timestamps for a while with the reference going stale at every tick, so that the
// racers find it stale at the same moment over and over. A renewal needs a tick later than the
// reference's, so two references with one tick mean that one staleness was renewed twice.
PAXLTRACE_CHILD_ROLE(RaceForRenewal) {
    const uint64_t start = std::stoull(args.at(0));
    if (TraceRegistry::GetInstance().GetCreationErrorCode() != SHMErrorCodes::Success)
        return 90;
    while (Platform::PreciseWallClock() < start)
        Platform::SleepMs(1);
    // A racer that starts late (a loaded machine) still races for its full time.
    const uint64_t end = std::max(start, Platform::PreciseWallClock()) + 300 * Ms;
    uint64_t lastTime = ReferenceTime();
    uint64_t lastTick = 0;
    int renewals = 0;
    while (Platform::PreciseWallClock() < end) {
        if (!FastFollowsPrecise(0))
            return 91;
        uint64_t time = 0, tick = 0;
        int64_t counter = 0;
        TraceRegistry::GetInstance().GetTraceTimer(time, tick, counter);
        if (time == lastTime)
            continue;
        if (tick == lastTick)
            return 92;
        lastTime = time;
        lastTick = tick;
        ++renewals;
    }
    return renewals > 1 ? 0 : 93;
}

TEST(TraceTimerClock, StaleReferenceIsRenewedOnceWhenProcessesRace) {
    ASSERT_EQ(TraceRegistry::GetInstance().GetCreationErrorCode(), SHMErrorCodes::Success);
    TraceTimer::SetResynchronizationPeriod(1);
    const std::string start = std::to_string(Platform::PreciseWallClock() + 300 * Ms);
    std::vector<pid_t> children;
    for (int i = 0; i < 3; ++i)
        children.push_back(SpawnChild("RaceForRenewal", {start}));
    for (pid_t child : children)
        EXPECT_EQ(WaitChild(child), 0);
}
