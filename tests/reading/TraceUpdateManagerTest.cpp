// The updater thread: its cycle and sleep, its lists, the waits for it, and how it ends. Each test
// runs as its own process, so each gets a manager whose thread has not started yet.
#include <gtest/gtest.h>
#include <signal.h>
#ifndef _WIN32
#include <sys/wait.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "platform/Thread.h"

using namespace Tracing;
using namespace Tracing::Test;
using Clock = std::chrono::steady_clock;

namespace {

TraceUpdateManager& Manager() {
    return TraceUpdateManager::GetInstance();
}

// Runs `action` on every call and counts the calls; registered as an item or a reader, and gone
// from the manager before it is destroyed, as the library's own items are.
class FakeItem : public IUpdaterItem {
public:
    explicit FakeItem(std::function<void()> action = {}, bool reader = false)
        : m_action(std::move(action)), m_reader(reader) {}
    ~FakeItem() override {
        if (m_registered)
            Unregister();
    }

    void Register() {
        m_registered = true;
        m_reader ? Manager().AddReader(*this) : Manager().AddItem(*this);
    }
    void Unregister() { m_reader ? Manager().RemoveReader(*this) : Manager().RemoveItem(*this); }

    void Update() override {
        inside = true;
        if (m_action)
            m_action();
        ++calls;
        inside = false;
    }

    std::atomic<int> calls{0};
    std::atomic<bool> inside{false};

private:
    std::function<void()> m_action;
    bool m_reader;
    std::atomic<bool> m_registered{false};
};

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double Ms(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

}  // namespace

TEST(TraceUpdateManagerCycle, SleepAfterCycleFillsTheRestOfThePeriod) {
    constexpr uint64_t t0 = 1'000'000'000;
    EXPECT_EQ(50u, TraceUpdateManager::SleepAfterCycle(t0, t0 + 1));
    EXPECT_EQ(40u, TraceUpdateManager::SleepAfterCycle(t0, t0 + 100'000));
    EXPECT_EQ(1u, TraceUpdateManager::SleepAfterCycle(t0, t0 + 499'999));
    EXPECT_EQ(1u, TraceUpdateManager::SleepAfterCycle(t0, t0 + 500'000));
    EXPECT_EQ(1u, TraceUpdateManager::SleepAfterCycle(0, UINT64_MAX));
    // A clock that stands still or steps back must not turn into an endless sleep.
    EXPECT_EQ(50u, TraceUpdateManager::SleepAfterCycle(t0, t0));
    EXPECT_EQ(50u, TraceUpdateManager::SleepAfterCycle(t0, t0 - 1));
}

TEST(TraceUpdateManagerCycle, LongCyclesAreFollowedByAShortSleepAndShortCyclesByTheRest) {
    std::mutex mutex;
    std::vector<Clock::time_point> starts, ends;
    std::atomic<unsigned> durationMs{80};
    FakeItem item([&] {
        const auto start = Clock::now();
        Platform::SleepMs(durationMs);
        std::lock_guard<std::mutex> lock(mutex);
        starts.push_back(start);
        ends.push_back(Clock::now());
    });
    item.Register();
    // The gap between the end of one call and the start of the next is the thread's sleep.
    const auto gaps = [&](size_t first, size_t count) {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<double> result;
        for (size_t i = first; i < first + count; ++i)
            result.push_back(Ms(starts[i + 1] - ends[i]));
        return result;
    };
    ASSERT_TRUE(WaitFor([&] { return item.calls >= 7; }, 20000));
    EXPECT_LT(Median(gaps(1, 5)), 30.0);  // about 1 ms
    durationMs = 10;
    const int switched = item.calls + 1;
    ASSERT_TRUE(WaitFor([&] { return item.calls >= switched + 6; }, 20000));
    EXPECT_GE(Median(gaps(switched, 5)), 30.0);  // about 40 ms
}

TEST(TraceUpdateManagerLists, DuplicatesAndAbsentEntriesChangeNothingAndReadersRunAfterItems) {
    std::mutex mutex;
    std::string log, expected = "G";
    std::atomic<int> mismatches{0};
    const auto record = [&](char name) {
        std::lock_guard<std::mutex> lock(mutex);
        log += name;
        if (name == 'R' && log != (expected += "GABR"))
            ++mismatches;
    };
    // Holds the first cycle until everything is registered.
    std::atomic<bool> open{false};
    FakeItem gate([&] {
        record('G');
        while (!open)
            Platform::SleepMs(1);
    });
    FakeItem reader([&] { record('R'); }, true);
    FakeItem a([&] { record('A'); });
    FakeItem b([&] { record('B'); });
    FakeItem neverAdded;
    gate.Register();
    ASSERT_TRUE(WaitFor([&] { return gate.inside.load(); }, 20000));
    for (FakeItem* entry : {&reader, &a, &a, &b, &reader})
        entry->Register();
    Manager().RemoveItem(neverAdded);
    Manager().RemoveReader(a);  // an item is not a reader
    open = true;
    EXPECT_TRUE(WaitFor([&] { return reader.calls >= 3; }, 20000));
    EXPECT_EQ(0, mismatches) << log;
}

TEST(TraceUpdateManagerLists, AddedEntriesRunFromTheNextCycleAndRemovedOnesNeverAgain) {
    std::atomic<int> peerCycles{0};
    std::atomic<int> peerCyclesAtFirstLateCall{0};
    FakeItem late([&] {
        if (peerCyclesAtFirstLateCall == 0)
            peerCyclesAtFirstLateCall = peerCycles.load();
    });
    FakeItem removedByPeer;
    FakeItem slow([] { Platform::SleepMs(100); });
    FakeItem peer([&] {
        ++peerCycles;
        // Both sit behind this item in the running cycle.
        if (late.calls == 0)
            late.Register();
        removedByPeer.Unregister();
    });
    peer.Register();
    removedByPeer.Register();
    slow.Register();
    EXPECT_TRUE(WaitFor([&] { return late.calls >= 1; }, 20000));
    EXPECT_EQ(2, peerCyclesAtFirstLateCall);
    EXPECT_EQ(0, removedByPeer.calls);

    // A removal from another thread waits for the call in progress, and no call follows it.
    EXPECT_TRUE(WaitFor([&] { return slow.inside.load(); }, 20000));
    slow.Unregister();
    EXPECT_FALSE(slow.inside);
    const int calls = slow.calls;
    EXPECT_TRUE(Manager().WaitForAllUpdates());
    EXPECT_EQ(calls, slow.calls);
}

TEST(TraceUpdateManagerWait, WaitForAllUpdatesCoversACycleThatStartedAfterTheCall) {
    std::mutex mutex;
    std::vector<std::pair<Clock::time_point, Clock::time_point>> cycles;
    FakeItem item([&] {
        const auto start = Clock::now();
        Platform::SleepMs(30);
        std::lock_guard<std::mutex> lock(mutex);
        cycles.emplace_back(start, Clock::now());
    });
    item.Register();
    // Called while a cycle runs, so that this cycle alone must not satisfy the wait.
    ASSERT_TRUE(WaitFor([&] { return item.inside.load(); }, 20000));
    const auto called = Clock::now();
    ASSERT_TRUE(Manager().WaitForAllUpdates());
    const auto returned = Clock::now();
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_TRUE(std::any_of(cycles.begin(), cycles.end(), [&](const auto& cycle) {
        return cycle.first >= called && cycle.second <= returned;
    }));
}

TEST(TraceUpdateManagerWait, WaitForUpdateStartSeesIdleAndRunningCyclesButNotItsOwnThread) {
    std::atomic<bool> block{false};
    std::atomic<int> ownThreadAnswers{-1};
    FakeItem item([&] {
        if (ownThreadAnswers < 0)
            ownThreadAnswers = Manager().WaitForAllUpdates() + 2 * Manager().WaitForUpdateStart(100);
        while (block)
            Platform::SleepMs(1);
    });
    item.Register();
    ASSERT_TRUE(WaitFor([&] { return ownThreadAnswers >= 0; }, 20000));
    EXPECT_EQ(0, ownThreadAnswers);  // both false: the thread cannot wait for itself

    // Right after a cycle the thread sleeps for most of the period; retried in case the test
    // thread itself was held up long enough for the next cycle to begin.
    bool idleSeen = false;
    for (int attempt = 0; attempt < 5 && !idleSeen; ++attempt) {
        ASSERT_TRUE(Manager().WaitForAllUpdates());
        idleSeen = !Manager().WaitForUpdateStart(0);
    }
    EXPECT_TRUE(idleSeen);
    EXPECT_TRUE(Manager().WaitForUpdateStart(5000));

    block = true;
    ASSERT_TRUE(WaitFor([&] { return item.inside.load(); }, 20000));
    EXPECT_TRUE(Manager().WaitForUpdateStart(0));
    block = false;
}

TEST(TraceUpdateManagerWait, AWaitOfMoreThanThreeSecondsIsReportedAndStillEnds) {
    std::atomic<bool> slowOnce{true};
    FakeItem item([&] {
        if (slowOnce.exchange(false))
            Platform::SleepMs(3300);
    });
    item.Register();
    ASSERT_TRUE(WaitFor([&] { return item.inside.load(); }, 20000));
    testing::internal::CaptureStderr();
    const bool done = Manager().WaitForAllUpdates();
    const std::string errors = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(done);
    EXPECT_NE(
        std::string::npos,
        errors.find("WARNING: TraceUpdateManager::WaitForAllUpdates() is waiting for more than 3000 ms."))
        << errors;
    EXPECT_EQ(std::string::npos, errors.find("60000")) << errors;
}

TEST(TraceUpdateManagerLifecycle, StopCutsTheCycleShortAndNothingRestartsTheThread) {
    std::atomic<int> secondCallsWhenFirstStarted{-1};
    FakeItem second;
    FakeItem first([&] {
        secondCallsWhenFirstStarted = second.calls.load();
        while (!Manager().IsStopping())
            Platform::SleepMs(1);
    });
    // Without a thread there is nothing to wait for.
    EXPECT_TRUE(Manager().WaitForAllUpdates());
    EXPECT_TRUE(Manager().WaitForUpdateStart(0));
    first.Register();
    second.Register();
    ASSERT_TRUE(Manager().IsRunning());
    ASSERT_TRUE(WaitFor([&] { return first.inside && secondCallsWhenFirstStarted >= 0; }, 20000));
    Manager().Stop(1500);
    EXPECT_FALSE(Manager().IsRunning());
    EXPECT_TRUE(Manager().IsStopping());
    EXPECT_EQ(secondCallsWhenFirstStarted, second.calls);

    Manager().Start();
    FakeItem added;
    added.Register();
    EXPECT_FALSE(Manager().IsRunning());
    Platform::SleepMs(150);
    EXPECT_EQ(0, added.calls);
    EXPECT_TRUE(Manager().WaitForAllUpdates());
    EXPECT_TRUE(Manager().WaitForUpdateStart(0));
}

TEST(TraceUpdateManagerLifecycle, AThreadThatDoesNotRespondIsDetachedAfterTenMoreWaits) {
    // Static: the detached thread still holds it after this test has returned.
    static std::atomic<bool> release{false};
    static FakeItem blocking([] {
        while (!release)
            Platform::SleepMs(1);
    });
    blocking.Register();
    ASSERT_TRUE(WaitFor([] { return blocking.inside.load(); }, 20000));
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Manager().Stop(20);
    const std::string output = testing::internal::GetCapturedStdout();
    const std::string errors = testing::internal::GetCapturedStderr();

    const std::string waitText = "The trace updater thread is not responding, will wait another ";
    std::vector<std::string> waits;
    for (size_t at = output.find(waitText); at != std::string::npos; at = output.find(waitText, at + 1)) {
        const size_t from = at + waitText.size();
        waits.push_back(output.substr(from, output.find('\n', from) - from));
    }
    ASSERT_EQ(10u, waits.size()) << output;
    EXPECT_EQ("9 x 20 ms", waits.front());
    EXPECT_EQ("0 x 20 ms", waits.back());
    const size_t detaching =
        errors.find("The trace updater thread is not responding, trying to detach from it.");
    const size_t detached = errors.find("Successfully detached the trace updater thread.");
    EXPECT_NE(std::string::npos, detaching) << errors;
    EXPECT_NE(std::string::npos, detached) << errors;
    EXPECT_LT(detaching, detached);

    // The detached thread comes back, sees the stop and ends without harm.
    EXPECT_TRUE(Manager().IsRunning());
    release = true;
    EXPECT_TRUE(WaitFor([] { return !Manager().IsRunning(); }, 10000));
    blocking.Unregister();
}

namespace {

// Slow, and made before the manager, so that it is destroyed after the thread was stopped at exit.
FakeItem madeBeforeTheManager([] { Platform::SleepMs(20); });

int RunThenExit(const std::function<void(std::atomic<bool>& inCycle)>& ending) {
    static std::atomic<bool> inCycle{false};
    static FakeItem madeAfterTheManager([] {
        inCycle = true;
        Platform::SleepMs(50);
        inCycle = false;
    });
    madeBeforeTheManager.Register();
    madeAfterTheManager.Register();
    FakeItem local([] { Platform::SleepMs(20); });
    local.Register();
    ending(inCycle);
    return 0;
}

// Waits for a child, killing it when it takes longer than ten seconds (-1 then).
int WaitChildPromptly(pid_t pid) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        Platform::SleepMs(5);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

PAXLTRACE_CHILD_ROLE(NeverStartsTheThread) {
    Manager();
    return 0;
}

PAXLTRACE_CHILD_ROLE(ReturnsFromMainDuringACycle) {
    return RunThenExit([](std::atomic<bool>& inCycle) { WaitFor([&] { return inCycle.load(); }, 5000); });
}

PAXLTRACE_CHILD_ROLE(ExitsOnAnotherThreadDuringACycle) {
    return RunThenExit([](std::atomic<bool>& inCycle) {
        std::thread([&] {
            WaitFor([&] { return inCycle.load(); }, 5000);
            std::exit(0);
        }).join();
    });
}

PAXLTRACE_CHILD_ROLE(ExitsOnTheUpdaterThread) {
    return RunThenExit([](std::atomic<bool>&) {
        static FakeItem exiting([] { std::exit(0); });
        exiting.Register();
        Platform::SleepMs(60000);  // the exit on the updater thread ends the process
    });
}

TEST(TraceUpdateManagerLifecycle, EveryWayOfEndingTheProcessIsPromptAndClean) {
    std::vector<std::pair<std::string, pid_t>> children;
    for (const char* role : {"NeverStartsTheThread", "ReturnsFromMainDuringACycle",
                             "ExitsOnAnotherThreadDuringACycle", "ExitsOnTheUpdaterThread"})
        children.emplace_back(role, SpawnChild(role));
    for (const auto& [role, pid] : children) {
        ASSERT_GT(pid, 0) << role;
        EXPECT_EQ(0, WaitChildPromptly(pid)) << role;
    }
}
