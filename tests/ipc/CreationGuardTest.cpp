#include "platform/CreationGuard.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "platform/Thread.h"

using Tracing::Platform::CreationGuard;
using Tracing::Test::RemoveFile;
using Tracing::Test::ShmPrefix;
using Tracing::Test::SpawnChild;
using Tracing::Test::WaitChild;
using Tracing::Test::WaitFor;

namespace {

bool FileExists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

// Without pause: contenders then often sit between opening and locking the file while the holder
// removes it, the case the guard must get right.
void AcquireWithRetries(CreationGuard& guard) {
    while (guard.TryAcquire() == CreationGuard::Attempt::Busy) {
    }
}

}  // namespace

// args: guard name, marker file. Takes the guard, creates the marker and holds until killed.
PAXLTRACE_CHILD_ROLE(GuardHoldUntilKilled) {
    CreationGuard guard(args.at(0));
    AcquireWithRetries(guard);
    if (!guard.IsHeld())
        return 1;
    std::ofstream(args.at(1)).put('x');
    for (;;)
        Tracing::Platform::SleepMs(1000);
}

// args: guard name, key, iterations. Counts under the guard with a non-atomic read-modify-write
// that loses updates when two holders overlap.
PAXLTRACE_CHILD_ROLE(GuardCount) {
    Tracing::TraceSharedMemory memory(args.at(1).c_str());
    if (!memory.attach())
        return 1;
    auto* words = static_cast<uint32_t*>(memory.data());
    std::atomic_ref<uint32_t> inside(words[0]);
    std::atomic_ref<uint32_t> overlaps(words[1]);
    std::atomic_ref<uint32_t> total(words[2]);
    const int iterations = std::stoi(args.at(2));
    for (int i = 0; i < iterations; ++i) {
        // A fresh object each time, so every round removes and recreates the lock file.
        CreationGuard guard(args.at(0));
        AcquireWithRetries(guard);
        if (!guard.IsHeld())
            return 2;
        if (inside.fetch_add(1) != 0)
            overlaps.fetch_add(1);
        const uint32_t value = total.load(std::memory_order_relaxed);
        Tracing::Platform::YieldThread();
        total.store(value + 1, std::memory_order_relaxed);
        inside.fetch_sub(1);
        if (!guard.Release())
            return 3;
    }
    return 0;
}

TEST(CreationGuard, OneHolderAtATimeAndNoFileAfterRelease) {
#ifdef _WIN32
    GTEST_SKIP() << "a lock file only where the guard lives in the file system";
#endif
    const std::string name = ShmPrefix() + "GuardSem_V1";
    CreationGuard first(name);
    CreationGuard second(name);
    EXPECT_EQ(first.Path(), "/dev/shm/" + name);
    ASSERT_EQ(first.TryAcquire(), CreationGuard::Attempt::Acquired);
    EXPECT_EQ(first.TryAcquire(), CreationGuard::Attempt::AlreadyHeld);
    EXPECT_EQ(second.TryAcquire(), CreationGuard::Attempt::Busy);
    EXPECT_EQ(second.LastError(), EWOULDBLOCK);
    EXPECT_TRUE(FileExists(first.Path()));

    EXPECT_TRUE(first.Release());
    EXPECT_FALSE(FileExists(first.Path()));
    EXPECT_TRUE(first.Release()) << "releasing a guard not held does nothing";
    {
        CreationGuard third(name);
        ASSERT_EQ(third.TryAcquire(), CreationGuard::Attempt::Acquired);
        EXPECT_EQ(second.TryAcquire(), CreationGuard::Attempt::Busy);
    }
    EXPECT_FALSE(FileExists(first.Path())) << "destruction releases";
    EXPECT_EQ(second.TryAcquire(), CreationGuard::Attempt::Acquired);
}

TEST(CreationGuard, LivesInTheGivenDirectoryUnderAnEscapedName) {
#ifdef _WIN32
    GTEST_SKIP() << "a lock file only where the guard lives in the file system";
#endif
    char directory[] = "/tmp/paxltrace-guardXXXXXX";
    ASSERT_NE(::mkdtemp(directory), nullptr);
    {
        CreationGuard guard("a/b\\c", std::string(directory) + "/");
        EXPECT_EQ(guard.Path(), std::string(directory) + "/a%2Fb%5Cc");
        ASSERT_EQ(guard.TryAcquire(), CreationGuard::Attempt::Acquired);
        EXPECT_TRUE(FileExists(guard.Path()));
    }
    EXPECT_EQ(::rmdir(directory), 0) << "the released guard must leave the directory empty";

    CreationGuard nowhere("x", "/nonexistent-paxltrace-directory");
    EXPECT_EQ(nowhere.TryAcquire(), CreationGuard::Attempt::Failed);
    EXPECT_EQ(nowhere.LastError(), ENOENT);
    EXPECT_FALSE(nowhere.IsHeld());
}

TEST(CreationGuardProcesses, ReleasedWhenItsHolderIsKilled) {
    const std::string name = ShmPrefix() + "KilledGuard";
    const std::string marker =
        (std::filesystem::temp_directory_path() / (ShmPrefix() + "KilledGuardMarker")).string();
    const pid_t child = SpawnChild("GuardHoldUntilKilled", {name, marker});
    ASSERT_TRUE(WaitFor([&] { return FileExists(marker); }, 10000));
    ASSERT_TRUE(RemoveFile(marker));

    CreationGuard guard(name);
    EXPECT_EQ(guard.TryAcquire(), CreationGuard::Attempt::Busy);
    ::kill(child, SIGKILL);
    EXPECT_EQ(WaitChild(child), 128 + SIGKILL);
    // The system may let go of a killed holder's objects a moment after the process has ended.
    EXPECT_TRUE(WaitFor([&] { return guard.TryAcquire() == CreationGuard::Attempt::Acquired; }, 5000));
    EXPECT_TRUE(guard.Release());
    EXPECT_FALSE(FileExists(guard.Path()));
}

TEST(CreationGuardProcesses, ExcludesOtherProcesses) {
    const std::string name = ShmPrefix() + "CountGuard";
    const std::string key = ShmPrefix() + "CountGuardWords";
    Tracing::TraceSharedMemory memory(key.c_str());
    ASSERT_TRUE(memory.create(4096));
    constexpr int Children = 3;
    constexpr int Iterations = 500;
    std::vector<pid_t> children;
    for (int i = 0; i < Children; ++i)
        children.push_back(SpawnChild("GuardCount", {name, key, std::to_string(Iterations)}));
    for (pid_t child : children)
        EXPECT_EQ(WaitChild(child), 0);
    const auto* words = static_cast<const uint32_t*>(memory.constData());
    EXPECT_EQ(words[1], 0u) << "holders overlapped";
    EXPECT_EQ(words[2], static_cast<uint32_t>(Children * Iterations));
    EXPECT_FALSE(FileExists(CreationGuard(name).Path()));
}
