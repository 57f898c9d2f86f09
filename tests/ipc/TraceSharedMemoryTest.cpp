#include "Trace/Ipc/TraceSharedMemory.h"

// Blocks as files in /dev/shm, users and groups: Windows has its own tests of these.
#ifndef _WIN32
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "platform/EventLog.h"
#include "platform/SharedMemory.h"
#include "platform/Thread.h"

using Tracing::TraceSharedMemory;
using Tracing::Test::ShmPrefix;
using Tracing::Test::SpawnChild;
using Tracing::Test::WaitChild;
using Tracing::Test::WaitFor;

namespace {

constexpr uint64_t ChurnSize = 3 * 4096 + 100;
constexpr uid_t Nobody = 65534;

bool Exists(const std::string& key) {
    struct stat info {};
    return ::stat(Tracing::Platform::SharedMemoryPath(key).c_str(), &info) == 0;
}

bool FileExists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

std::atomic_ref<uint32_t> Word(TraceSharedMemory& memory, size_t index) {
    return std::atomic_ref<uint32_t>(static_cast<uint32_t*>(memory.data())[index]);
}

// Protection of the mapping that holds `address`, as /proc/self/maps writes it ("rw-s").
std::string Protection(const void* address) {
    std::ifstream maps("/proc/self/maps");
    const auto target = reinterpret_cast<unsigned long>(address);
    for (std::string line; std::getline(maps, line);) {
        unsigned long start = 0, end = 0;
        char perms[5] = {};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &start, &end, perms) == 3 && start <= target &&
            target < end)
            return perms;
    }
    return {};
}

}  // namespace

// args: key. Creates the block, marks word 0 and holds it until killed.
PAXLTRACE_CHILD_ROLE(ShmCreateAndHold) {
    TraceSharedMemory memory(args.at(0).c_str());
    if (!memory.create(4096))
        return 1;
    Word(memory, 0).store(1);
    for (;;)
        Tracing::Platform::SleepMs(1000);
}

// args: key, flag file. Attaches, counts itself in word 0 and detaches once the flag file is gone.
PAXLTRACE_CHILD_ROLE(ShmAttachUntilFlagGone) {
    TraceSharedMemory memory(args.at(0).c_str());
    if (!memory.attach())
        return 1;
    Word(memory, 0).fetch_add(1);
    while (FileExists(args.at(1)))
        Tracing::Platform::SleepMs(1);
    return memory.detach() ? 0 : 2;
}

// Creates `key` or attaches it; false (with `fault` set) on an unexpected error or an incomplete block.
bool CreateOrAttach(TraceSharedMemory& memory, int& fault) {
    fault = 0;
    if (!memory.create(ChurnSize)) {
        if (memory.error() != TraceSharedMemory::AlreadyExists)
            fault = 11;
        else if (!memory.attach() && memory.error() != TraceSharedMemory::NotFound)
            fault = 12;
    }
    if (memory.isAttached() && memory.size() != ChurnSize)
        fault = 13;
    return fault == 0;
}

// args: key, iterations. While a process holds a block, its key must lead to that very block.
PAXLTRACE_CHILD_ROLE(ShmChurn) {
    const int iterations = std::stoi(args.at(1));
    for (int i = 0; i < iterations; ++i) {
        TraceSharedMemory memory(args.at(0).c_str());
        int fault = 0;
        if (!CreateOrAttach(memory, fault))
            return fault;
        if (!memory.isAttached())
            continue;
        TraceSharedMemory again(args.at(0).c_str());
        if (!again.attach(TraceSharedMemory::ReadOnly) || !again.isSameShm(memory))
            return 15;
        if (!again.detach() || !memory.detach())
            return 16;
    }
    return 0;
}

// args: key, iterations. Each time a forked process creates or attaches and exits without
// detaching, as a crashing holder would.
PAXLTRACE_CHILD_ROLE(ShmCrashWhileHolding) {
    const int iterations = std::stoi(args.at(1));
    for (int i = 0; i < iterations; ++i) {
        const pid_t pid = ::fork();
        if (pid < 0)
            return 20;
        if (pid == 0) {
            int fault = 0;
            CreateOrAttach(*new TraceSharedMemory(args.at(0).c_str()), fault);
            ::_exit(fault);
        }
        const int rc = WaitChild(pid);
        if (rc != 0)
            return rc;
    }
    return 0;
}

// args: key, "ro" or "rw". Drops to nobody and returns the attach's error code.
PAXLTRACE_CHILD_ROLE(ShmAttachAsNobody) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(Nobody) != 0 || ::setuid(Nobody) != 0)
        return 100;
    TraceSharedMemory memory(args.at(0).c_str());
    memory.attach(args.at(1) == "rw" ? TraceSharedMemory::ReadWrite : TraceSharedMemory::ReadOnly);
    return memory.error();
}

TEST(TraceSharedMemory, StatesAndTheirErrorTexts) {
    const std::string key = ShmPrefix() + "States";
    TraceSharedMemory memory;
    EXPECT_FALSE(memory.create(4096));
    EXPECT_EQ(memory.error(), TraceSharedMemory::UnknownError);
    EXPECT_EQ(memory.errorString(), "empty key is invalid");
    EXPECT_FALSE(memory.detach());
    EXPECT_EQ(memory.errorString(), "not attached");

    memory.setKey(key.c_str());
    EXPECT_FALSE(memory.attach());
    EXPECT_EQ(memory.error(), TraceSharedMemory::NotFound);
    EXPECT_EQ(memory.errorString(), "not found");

    ASSERT_TRUE(memory.create(10000));
    EXPECT_EQ(memory.errorString(), "");
    EXPECT_EQ(memory.size(), 10000u);
    const auto* bytes = static_cast<const unsigned char*>(memory.constData());
    EXPECT_EQ(std::count(bytes, bytes + 10000, 0), 10000) << "a new block must be zero";

    void* const view = memory.data();
    EXPECT_FALSE(memory.create(4096));
    EXPECT_FALSE(memory.attach());
    EXPECT_EQ(memory.errorString(), "already attached");
    EXPECT_EQ(memory.data(), view);
    memory.setKey("ignored while attached");
    EXPECT_EQ(memory.getKey(), key);

    EXPECT_TRUE(memory.detach());
    EXPECT_EQ(memory.data(), nullptr);
    EXPECT_EQ(memory.size(), 0u);
    EXPECT_FALSE(Exists(key)) << "the only holder detached";
    memory.setKey(nullptr);
    EXPECT_EQ(memory.getKey(), "");
}

TEST(TraceSharedMemory, OtherOsErrorsNameTheFailedOperationWithTheSystemsErrorAndText) {
    const std::string tooLong = ShmPrefix() + std::string(NAME_MAX, 'x');
    const std::string emptyKey = ShmPrefix() + "Empty";
    struct Case {
        const char* what;
        std::string key;
        std::function<bool(TraceSharedMemory&)> run;
        std::string expected;
    };
    const auto text = [](const char* function, int code) {
        return std::string(function) + ": OS error " + std::to_string(code) + ": " + std::strerror(code);
    };
    const Case cases[] = {
        {"attach", tooLong, [](TraceSharedMemory& m) { return m.attach(); },
         text("OpenFileMapping", ENAMETOOLONG)},
        {"create", tooLong, [](TraceSharedMemory& m) { return m.create(4096); },
         text("CreateFileMapping", ENAMETOOLONG)},
        {"create empty", emptyKey, [](TraceSharedMemory& m) { return m.create(0); },
         text("CreateFileMapping", EINVAL)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TraceSharedMemory memory(c.key.c_str());
        EXPECT_FALSE(c.run(memory));
        EXPECT_EQ(memory.error(), TraceSharedMemory::UnknownError);
        EXPECT_EQ(memory.errorString(), c.expected);
        EXPECT_EQ(memory.errorString(), c.expected) << "composed once, not appended to";
        // A failure after the unnamed file exists leaves nothing behind.
        EXPECT_FALSE(Exists(c.key));
    }
    TraceSharedMemory empty(emptyKey.c_str());
    EXPECT_FALSE(empty.create(0));
    EXPECT_TRUE(empty.create(1));
    EXPECT_EQ(empty.errorString(), "") << "success resets the error";
}

TEST(TraceSharedMemory, CreateOfATakenKeyLeavesTheBlockUntouchedAndReadOnlyAttachesMapReadOnly) {
    const std::string key = ShmPrefix() + "Taken";
    TraceSharedMemory first(key.c_str());
    ASSERT_TRUE(first.create(5000));
    std::memset(first.data(), 0xA5, 5000);

    TraceSharedMemory second(key.c_str());
    EXPECT_FALSE(second.create(100));
    EXPECT_EQ(second.errorString(), "already exists");
    ASSERT_TRUE(second.attach(TraceSharedMemory::ReadOnly));
    EXPECT_EQ(second.size(), 5000u);
    const auto* bytes = static_cast<const unsigned char*>(second.constData());
    EXPECT_EQ(std::count(bytes, bytes + 5000, 0xA5), 5000);
    EXPECT_TRUE(first.isSameShm(second));

    // Read-only attaches map read-only; writes through another mapping show through.
    TraceSharedMemory other(key.c_str());
    ASSERT_TRUE(other.attach(TraceSharedMemory::ReadWrite));
    EXPECT_EQ(Protection(first.data()), "rw-s");
    EXPECT_EQ(Protection(second.constData()), "r--s");
    EXPECT_EQ(Protection(other.data()), "rw-s");
    Word(other, 100).store(77);
    EXPECT_EQ(static_cast<const uint32_t*>(second.constData())[100], 77u);
}

TEST(TraceSharedMemory, GlobalPrefixNamesTheSameBlock) {
    const std::string key = ShmPrefix() + "Global";
    TraceSharedMemory local(key.c_str());
    ASSERT_TRUE(local.create(4096));
    TraceSharedMemory global(("Global\\" + key).c_str());
    ASSERT_TRUE(global.attach());
    EXPECT_TRUE(global.isSameShm(local));

    TraceSharedMemory unrelated((key + "2").c_str());
    ASSERT_TRUE(unrelated.create(4096));
    EXPECT_FALSE(local.isSameShm(unrelated));

    // The retry keeps the caller's key, and a key with a namespace is not retried.
    TraceSharedMemory missing((ShmPrefix() + "Missing").c_str());
    EXPECT_FALSE(missing.attach(TraceSharedMemory::ReadWrite, TraceSharedMemory::AttachTryGlobal));
    EXPECT_EQ(missing.errorString(), "not found");
    EXPECT_EQ(missing.getKey(), ShmPrefix() + "Missing");
    const std::string withBackslash = ShmPrefix() + "Dir\\Missing";
    missing.setKey(withBackslash.c_str());
    EXPECT_FALSE(missing.attach(TraceSharedMemory::ReadOnly, TraceSharedMemory::AttachTryGlobal));
    EXPECT_EQ(missing.getKey(), withBackslash);
}

TEST(TraceSharedMemory, KeysWithSeparatorsStayDistinctAndInPlace) {
    const std::vector<std::string> keys = {"a/b", "a\\b", "a%2Fb", "a%5Cb", "/../up", "Global\\x\\y"};
    std::vector<std::unique_ptr<TraceSharedMemory>> blocks;
    for (const std::string& suffix : keys) {
        const std::string key = ShmPrefix() + suffix;
        blocks.push_back(std::make_unique<TraceSharedMemory>(key.c_str()));
        ASSERT_TRUE(blocks.back()->create(4096)) << key << ": " << blocks.back()->errorString();
        const std::string path = Tracing::Platform::SharedMemoryPath(key);
        EXPECT_EQ(path.rfind('/'), std::string("/dev/shm").size()) << path;
    }
    for (size_t i = 0; i < blocks.size(); ++i) {
        for (size_t j = i + 1; j < blocks.size(); ++j)
            EXPECT_FALSE(blocks[i]->isSameShm(*blocks[j])) << keys[i] << " vs " << keys[j];
    }
}

TEST(TraceSharedMemoryProcesses, BlockOfAKilledHolderVanishes) {
    const std::string key = ShmPrefix() + "Killed";
    // Alone: the dead creator leaves a file that the next attach finds stale and removes.
    pid_t child = SpawnChild("ShmCreateAndHold", {key});
    ASSERT_TRUE(WaitFor([&] { return Exists(key); }, 10000));
    ::kill(child, SIGKILL);
    EXPECT_EQ(WaitChild(child), 128 + SIGKILL);
    TraceSharedMemory memory(key.c_str());
    EXPECT_FALSE(memory.attach());
    EXPECT_EQ(memory.errorString(), "not found");
    EXPECT_FALSE(Exists(key));

    // With a second holder: the block outlives its creator and goes with the last holder.
    child = SpawnChild("ShmCreateAndHold", {key});
    ASSERT_TRUE(WaitFor(
        [&] { return (memory.isAttached() || memory.attach()) && Word(memory, 0).load() == 1; }, 10000));
    ::kill(child, SIGKILL);
    EXPECT_EQ(WaitChild(child), 128 + SIGKILL);
    EXPECT_EQ(Word(memory, 0).load(), 1u);
    EXPECT_TRUE(memory.detach());
    EXPECT_FALSE(Exists(key));
}

TEST(TraceSharedMemoryProcesses, LastOfSeveralHoldersRemovesTheBlock) {
    const std::string key = ShmPrefix() + "Holders";
    const std::string flag = Tracing::Platform::SharedMemoryPath(ShmPrefix() + "HoldersFlag");
    ASSERT_TRUE(std::ofstream(flag).good());
    TraceSharedMemory memory(key.c_str());
    ASSERT_TRUE(memory.create(4096));
    std::vector<pid_t> children;
    for (int i = 0; i < 3; ++i)
        children.push_back(SpawnChild("ShmAttachUntilFlagGone", {key, flag}));
    EXPECT_TRUE(WaitFor([&] { return Word(memory, 0).load() == 3; }, 10000));

    EXPECT_TRUE(memory.detach());
    EXPECT_TRUE(Exists(key)) << "the children still hold it";
    ::unlink(flag.c_str());
    for (pid_t child : children)
        EXPECT_EQ(WaitChild(child), 0);
    EXPECT_FALSE(Exists(key));
}

TEST(TraceSharedMemoryProcesses, RacingCreatorsAttachersAndCrashesLeaveNothingHalfMadeOrBehind) {
    const std::string key = ShmPrefix() + "Churn";
    std::vector<pid_t> children = {
        SpawnChild("ShmChurn", {key, "2000"}), SpawnChild("ShmChurn", {key, "2000"}),
        SpawnChild("ShmChurn", {key, "2000"}), SpawnChild("ShmCrashWhileHolding", {key, "300"})};
    for (pid_t child : children)
        EXPECT_EQ(WaitChild(child), 0);
    // The last crash may have left a block without holder: it counts as gone.
    TraceSharedMemory memory(key.c_str());
    EXPECT_FALSE(memory.attach());
    EXPECT_EQ(memory.error(), TraceSharedMemory::NotFound);
    EXPECT_FALSE(Exists(key));
}

TEST(TraceSharedMemoryProcesses, AccessRightsKeepOtherUsersOut) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to run a child as another user";
    const std::string key = ShmPrefix() + "Rights";
    TraceSharedMemory memory(key.c_str());
    ASSERT_TRUE(memory.create(4096));
    struct stat info {};
    ASSERT_EQ(::stat(Tracing::Platform::SharedMemoryPath(key).c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(WaitChild(SpawnChild("ShmAttachAsNobody", {key, "ro"})), TraceSharedMemory::PermissionDenied);
    EXPECT_EQ(WaitChild(SpawnChild("ShmAttachAsNobody", {key, "rw"})), TraceSharedMemory::PermissionDenied);
    ASSERT_TRUE(memory.detach());

    // A template readable by nobody's group: read-only or full access for that group.
    char templatePath[] = "/tmp/paxltrace-templateXXXXXX";
    const int fd = ::mkstemp(templatePath);
    ASSERT_GE(fd, 0);
    ::close(fd);
    ASSERT_EQ(::chown(templatePath, 0, Nobody), 0);
    ASSERT_EQ(::chmod(templatePath, 0640), 0);
    for (auto option : {TraceSharedMemory::ReadAccessReadOnly, TraceSharedMemory::ReadAccessFull}) {
        memory.setPermissionsTemplate(templatePath, option);
        ASSERT_TRUE(memory.create(4096)) << memory.errorString();
        ASSERT_EQ(::stat(Tracing::Platform::SharedMemoryPath(key).c_str(), &info), 0);
        EXPECT_EQ(info.st_gid, Nobody);
        const bool full = option == TraceSharedMemory::ReadAccessFull;
        EXPECT_EQ(info.st_mode & 0777, full ? 0660u : 0640u);
        EXPECT_EQ(WaitChild(SpawnChild("ShmAttachAsNobody", {key, "ro"})), TraceSharedMemory::NoError);
        EXPECT_EQ(WaitChild(SpawnChild("ShmAttachAsNobody", {key, "rw"})),
                  full ? TraceSharedMemory::NoError : TraceSharedMemory::PermissionDenied);
        ASSERT_TRUE(memory.detach());
    }
    ::unlink(templatePath);

    memory.setPermissionsTemplate("/nonexistent/template", TraceSharedMemory::ReadAccessFull);
    EXPECT_FALSE(memory.create(4096));
    EXPECT_EQ(memory.error(), TraceSharedMemory::NotFound);
    EXPECT_FALSE(Exists(key));
}

TEST(TraceSharedMemory, EventLogEntriesCarrySourceUserAndMessage) {
    std::vector<Tracing::Platform::EventLogEntry> entries;
    auto previous = Tracing::Platform::SetEventLogSink(
        [&](const Tracing::Platform::EventLogEntry& entry) { entries.push_back(entry); });
    TraceSharedMemory::writeErrorEventLog("TraceRegistry", "Cannot create the SHM");
    TraceSharedMemory::writeWarningEventLog("TraceStream", "ring full");
    Tracing::Platform::SetEventLogSink(previous);
    ASSERT_EQ(entries.size(), 2u);

    char host[HOST_NAME_MAX + 1] = {};
    ::gethostname(host, sizeof host - 1);
    const passwd* user = ::getpwuid(::geteuid());
    ASSERT_NE(user, nullptr);
    const std::string userLine =
        std::string("User: ") + host + "\\" + user->pw_name + ", ProcessID: " + std::to_string(::getpid());
    EXPECT_EQ(entries[0].type, Tracing::Platform::EventType::Error);
    EXPECT_EQ(entries[0].source, "TraceRegistry");
    EXPECT_EQ(entries[0].userLine, userLine);
    EXPECT_EQ(entries[1].type, Tracing::Platform::EventType::Warning);
}

#endif  // _WIN32
