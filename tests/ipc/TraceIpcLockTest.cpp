#include "Trace/Ipc/TraceIpcLock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#ifdef _WIN32
#include <io.h>
#include <windows.h>
#else
#include <sys/mman.h>
#endif

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "platform/Thread.h"

using Tracing::TraceIpcLock;
using Tracing::TraceProcessData;
using namespace Tracing::Test;

namespace {

// What the processes of one test share.
struct Shared {
    TraceIpcLock lock;
    uint32_t ready;     // holders or counting threads that have started
    uint32_t go;        // start signal for the counting threads
    uint32_t release;   // tells a holding child to unlock
    uint64_t counter;   // guarded by lock, deliberately not atomic
    uint32_t acquired;  // set by a LockOnce child holding the lock
    uint32_t overlaps;  // critical sections that found another holder's canary
    int64_t canary;     // the pid of the holder inside the critical section
};

std::atomic_ref<uint32_t> Word(uint32_t& word) {
    return std::atomic_ref<uint32_t>(word);
}

#ifdef _WIN32
// Maps the Shared block of a named object; spawned children open it by its name. The mapping
// stays while the process runs, which keeps the object alive.
Shared& MapShared(const std::string& name, int flags) {
    HANDLE mapping = (flags & O_CREAT) != 0
                         ? ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                                sizeof(Shared), name.c_str())
                         : ::OpenFileMappingA(FILE_MAP_WRITE, FALSE, name.c_str());
    if (mapping == nullptr)
        std::abort();
    void* address = ::MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, sizeof(Shared));
    if (address == nullptr)
        std::abort();
    return *static_cast<Shared*>(address);
}

// A new name for every block: on Windows the test process keeps each mapping, so a reused name
// would hand a later case the earlier case's lock.
std::string NewBlockName() {
    static int blocks = 0;
    return ShmPrefix() + "_lock" + std::to_string(++blocks);
}

struct SharedBlock {
    std::string name = NewBlockName();
    Shared& shared = MapShared(name, O_RDWR | O_CREAT | O_EXCL);
};

// While gtest captures standard error into a file, the file as it stands so far.
bool StderrContains(const std::string& text) {
    char path[MAX_PATH + 1] = {};
    HANDLE stderrHandle = reinterpret_cast<HANDLE>(::_get_osfhandle(2));
    const DWORD length = ::GetFinalPathNameByHandleA(stderrHandle, path, MAX_PATH, FILE_NAME_NORMALIZED);
    if (length == 0 || length > MAX_PATH)
        return false;
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {}).find(text) != std::string::npos;
}
#else
// Maps the Shared block of a named object; spawned children open it by its name.
Shared& MapShared(const std::string& name, int flags) {
    const int fd = shm_open(name.c_str(), flags, 0600);
    if (fd < 0 || ((flags & O_CREAT) != 0 && ftruncate(fd, sizeof(Shared)) != 0))
        std::abort();
    void* address = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (address == MAP_FAILED)
        std::abort();
    return *static_cast<Shared*>(address);
}

// The test's own block, unlinked at the end.
std::string NewBlockName() {
    static int blocks = 0;
    return "/" + ShmPrefix() + "_lock" + std::to_string(++blocks);
}

struct SharedBlock {
    std::string name = NewBlockName();
    Shared& shared = MapShared(name, O_RDWR | O_CREAT | O_EXCL);
    ~SharedBlock() { shm_unlink(name.c_str()); }
};

// While gtest captures standard error into a file, the file as it stands so far.
bool StderrContains(const std::string& text) {
    std::ifstream in("/proc/self/fd/2");
    return std::string(std::istreambuf_iterator<char>(in), {}).find(text) != std::string::npos;
}
#endif

// Starts with the other three threads, then counts under the lock. Read and write lie apart so
// that a lock that lets two in loses counts.
void AddUnderLock(Shared& shared, int iterations) {
    Word(shared.ready).fetch_add(1);
    while (Word(shared.go).load() == 0)
        Tracing::Platform::YieldThread();
    for (int i = 0; i < iterations; ++i) {
        shared.lock.Lock(__FILE__, __LINE__);
        const uint64_t value = shared.counter;
        for (int spin = 0; spin < 20; ++spin)
            asm volatile("" ::: "memory");
        shared.counter = value + 1;
        shared.lock.Unlock();
    }
}

constexpr int Iterations = 50000;

std::string Pid(int64_t pid) {
    return "(ProcessID: " + std::to_string(pid) + ")";
}

}  // namespace

PAXLTRACE_CHILD_ROLE(Exit) {
    return 0;
}

// Says it starts, takes the lock, says it holds it, and keeps it until told to release it (or
// killed).
PAXLTRACE_CHILD_ROLE(HoldLock) {
    Shared& shared = MapShared(args.at(0), O_RDWR);
    Word(shared.ready).fetch_add(1);
    shared.lock.Lock();
    Word(shared.acquired).store(1);
    while (Word(shared.release).load() == 0)
        Tracing::Platform::SleepMs(1);
    shared.lock.Unlock();
    return 0;
}

// Counts under the lock until killed; a canary shows another holder inside.
PAXLTRACE_CHILD_ROLE(CountUnderLock) {
    Shared& shared = MapShared(args.at(0), O_RDWR);
    const int64_t self = getpid();
    std::atomic_ref<int64_t> canary(shared.canary);
    for (;;) {
        shared.lock.Lock();
        canary.store(self, std::memory_order_relaxed);
        for (int spin = 0; spin < 200; ++spin)
            asm volatile("" ::: "memory");
        if (canary.load(std::memory_order_relaxed) != self)
            Word(shared.overlaps).fetch_add(1);
        ++shared.counter;
        shared.lock.Unlock();
    }
}

PAXLTRACE_CHILD_ROLE(AddFromTwoThreads) {
    Shared& shared = MapShared(args.at(0), O_RDWR);
    std::thread other([&] { AddUnderLock(shared, Iterations); });
    AddUnderLock(shared, Iterations);
    other.join();
    return 0;
}

TEST(TraceIpcLock, UncontendedUseAndStrayUnlock) {
    TraceIpcLock lock;
    lock.Lock();
    EXPECT_EQ(lock.GetState(), 1u);
    lock.Unlock();
    EXPECT_EQ(lock.GetState(), 2u);
    EXPECT_EQ(lock.GetOwner(), TraceProcessData::GetCurrent()) << "release keeps the last owner";

    testing::internal::CaptureStderr();
    lock.Unlock();
    const std::string warning = testing::internal::GetCapturedStderr();
    EXPECT_EQ(lock.GetState(), 2u);
    EXPECT_NE(warning.find("WARNING: TraceIpcLock in " + Pid(getpid()) +
                           " detected unexpected unlocked state, current lock owner " + Pid(getpid())),
              std::string::npos)
        << warning;
}

// A lock as another process leaves it: held in state `held`, owner recorded for `recordedFor`.
void WriteLock(TraceIpcLock& lock, uint32_t held, uint32_t recordedFor, const TraceProcessData& owner) {
    unsigned char bytes[sizeof(TraceIpcLock)];
    std::memcpy(bytes, &held, 4);
    std::memcpy(bytes + 4, &recordedFor, 4);
    std::memcpy(bytes + 8, &owner, sizeof owner);
    std::memcpy(static_cast<void*>(&lock), bytes, sizeof bytes);
}

TraceProcessData DeadProcess() {
    const pid_t child = SpawnChild("Exit");
    WaitChild(child);
    return TraceProcessData(child, 1);
}

TEST(TraceIpcLock, OwnerUnderARecycledProcessIdIsTakenOver) {
    const TraceProcessData& self = TraceProcessData::GetCurrent();
    TraceIpcLock lock;
    WriteLock(lock, 41, 41, TraceProcessData(self.GetPID(), self.GetCreationTime() + 1));
    lock.Lock();
    EXPECT_EQ(lock.GetState(), 43u);
    EXPECT_EQ(lock.GetOwner(), self);
}

// A holder between its exchange and recording itself leaves the previous owner (or none) in the
// lock. While it lives a waiter must not take over; when it died there, waiters must not wait for
// ever on a previous owner that still runs.
TEST(TraceIpcLock, HolderThatHasNotRecordedItself) {
    const struct {
        const char* what;
        TraceProcessData previousOwner;
        bool holderLives;
    } cases[] = {
        {"first holder of a fresh lock", TraceProcessData(), true},
        {"previous owner dead", DeadProcess(), true},
        {"holder died, previous owner alive", TraceProcessData::GetCurrent(), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SharedBlock block;
        Shared& shared = block.shared;
        WriteLock(shared.lock, 1, 0, c.previousOwner);
        const pid_t child = SpawnChild("HoldLock", {block.name});
        ASSERT_TRUE(WaitFor([&] { return Word(shared.ready).load() == 1; }, 10000));
        if (c.holderLives) {
            // Far longer than a waiter watches a dead owner, well within the grace of a silent holder.
            Tracing::Platform::SleepMs(300);
            EXPECT_EQ(Word(shared.acquired).load(), 0u) << "taken over from a live holder";
            shared.lock.Unlock();
        }
        const bool acquired = WaitFor([&] { return Word(shared.acquired).load() == 1; }, 5000);
        EXPECT_TRUE(acquired) << "stuck";
        if (!acquired)
            kill(child, SIGKILL);
        Word(shared.release).store(1);
        EXPECT_EQ(WaitChild(child), acquired ? 0 : 128 + SIGKILL);
        // Released and acquired, or taken over; then released by the child.
        EXPECT_EQ(shared.lock.GetState(), acquired ? 4u : 1u);
    }
}

// Processes count under the lock while some of them are killed at random: never two inside, and
// the lock still works after the last kill.
TEST(TraceIpcLock, HoldersKilledAtRandom) {
    SharedBlock block;
    Shared& shared = block.shared;
    std::vector<pid_t> children;
    for (int i = 0; i < 4; ++i)
        children.push_back(SpawnChild("CountUnderLock", {block.name}));
    std::srand(static_cast<unsigned>(getpid()));
    for (int kills = 0; kills < 40; ++kills) {
        Tracing::Platform::SleepMs(10 + std::rand() % 40);
        pid_t& victim = children[static_cast<size_t>(std::rand()) % children.size()];
        kill(victim, SIGKILL);
        WaitChild(victim);
        victim = SpawnChild("CountUnderLock", {block.name});
    }
    for (const pid_t child : children) {
        kill(child, SIGKILL);
        WaitChild(child);
    }
    EXPECT_EQ(Word(shared.overlaps).load(), 0u);
    EXPECT_GT(shared.counter, 0u);
    const pid_t last = SpawnChild("HoldLock", {block.name});
    Word(shared.release).store(1);
    const bool acquired = WaitFor([&] { return Word(shared.acquired).load() == 1; }, 5000);
    EXPECT_TRUE(acquired) << "stuck after a kill";
    if (!acquired)
        kill(last, SIGKILL);
    WaitChild(last);
}

TEST(TraceIpcLock, LockOfAKilledHolderIsTakenOver) {
    SharedBlock block;
    Shared& shared = block.shared;
    const pid_t child = SpawnChild("HoldLock", {block.name});
    ASSERT_TRUE(WaitFor([&] { return Word(shared.acquired).load() == 1; }, 10000));
    const uint32_t held = shared.lock.GetState();
    EXPECT_EQ(shared.lock.GetOwner().GetPID(), child);
    ASSERT_EQ(kill(child, SIGKILL), 0);
    EXPECT_EQ(WaitChild(child), 128 + SIGKILL);

    shared.lock.Lock();
    EXPECT_EQ(shared.lock.GetState(), held + 2) << "a take-over keeps the word odd";
    EXPECT_EQ(shared.lock.GetOwner(), TraceProcessData::GetCurrent());
}

TEST(TraceIpcLock, LiveHolderBlocksWithPeriodicWarnings) {
    SharedBlock block;
    Shared& shared = block.shared;
    const pid_t child = SpawnChild("HoldLock", {block.name});
    ASSERT_TRUE(WaitFor([&] { return Word(shared.acquired).load() == 1; }, 10000));
    const uint32_t held = shared.lock.GetState();

    testing::internal::CaptureStderr();
    std::atomic<bool> acquired{false};
    std::thread waiter([&] {
        shared.lock.Lock("here.cpp", 77);
        acquired = true;
    });
    // The first warning comes after 200 passes of at least 10 ms each.
    EXPECT_TRUE(WaitFor(
        [&] {
            return StderrContains("WARNING: TraceIpcLock in " + Pid(getpid()) + " blocked by lock owner " +
                                  Pid(child) + " from here.cpp line 77");
        },
        60000));
    EXPECT_FALSE(acquired);
    Word(shared.release).store(1);
    waiter.join();
    EXPECT_EQ(WaitChild(child), 0);
    EXPECT_EQ(shared.lock.GetState(), held + 2) << "released once, acquired once";
    // Having counted 200 passes, the waiter reports them when it finally gets the lock.
    const std::string output = testing::internal::GetCapturedStderr();
    EXPECT_NE(output.find("current owner " + Pid(child) + " took "), std::string::npos) << output;
    EXPECT_NE(output.find(" iterations from here.cpp line 77"), std::string::npos);
}

TEST(TraceIpcLock, ExcludesThreadsOfTwoProcesses) {
    SharedBlock block;
    Shared& shared = block.shared;
    const pid_t child = SpawnChild("AddFromTwoThreads", {block.name});
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&] { AddUnderLock(shared, Iterations); });
    EXPECT_TRUE(WaitFor([&] { return Word(shared.ready).load() == 4; }, 10000));
    Word(shared.go).store(1);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(WaitChild(child), 0);
    EXPECT_EQ(shared.counter, 4u * Iterations);
    // Two steps per acquisition: a take-over would show up as extra steps.
    EXPECT_EQ(shared.lock.GetState(), 2u * 4u * Iterations);
}
