// Named shared memory, its access lists, the creation guard and the event log on Windows, where
// blocks are kernel objects with namespaces and security descriptors of their own.
#ifdef _WIN32

#include <windows.h>
// After windows.h, which they need.
#include <aclapi.h>
#include <sddl.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "platform/CreationGuard.h"
#include "platform/EventLog.h"
#include "platform/SystemError.h"
#include "platform/Thread.h"

using Tracing::TraceSharedMemory;
using Tracing::Platform::CreationGuard;
using Tracing::Test::ShmPrefix;
using Tracing::Test::SpawnChild;
using Tracing::Test::WaitChild;
using Tracing::Test::WaitFor;

namespace {

bool Exists(const std::string& key) {
    HANDLE mapping = ::OpenFileMappingA(FILE_MAP_READ, FALSE, key.c_str());
    if (mapping != nullptr)
        ::CloseHandle(mapping);
    return mapping != nullptr;
}

DWORD Protection(const void* address) {
    MEMORY_BASIC_INFORMATION info{};
    return ::VirtualQuery(address, &info, sizeof info) != 0 ? info.Protect : 0;
}

// The access list of a block as SDDL text (empty when it cannot be read).
std::string AccessList(const std::string& key) {
    HANDLE mapping = ::OpenFileMappingA(READ_CONTROL, FALSE, key.c_str());
    if (mapping == nullptr)
        return {};
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    std::string text;
    if (::GetSecurityInfo(mapping, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr,
                          nullptr, &descriptor) == ERROR_SUCCESS) {
        char* sddl = nullptr;
        if (::ConvertSecurityDescriptorToStringSecurityDescriptorA(
                descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &sddl, nullptr)) {
            text = sddl;
            ::LocalFree(sddl);
        }
        ::LocalFree(descriptor);
    }
    ::CloseHandle(mapping);
    return text;
}

std::string CurrentUserSid() {
    HANDLE token = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token))
        return {};
    unsigned char buffer[256];
    DWORD length = 0;
    std::string text;
    if (::GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &length)) {
        char* sid = nullptr;
        if (::ConvertSidToStringSidA(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &sid)) {
            text = sid;
            ::LocalFree(sid);
        }
    }
    ::CloseHandle(token);
    return text;
}

// A file whose access list is `sddl`.
struct TemplateFile {
    std::string path;
    explicit TemplateFile(const char* sddl)
        : path((std::filesystem::temp_directory_path() / (ShmPrefix() + "template")).string()) {
        std::ofstream(path) << "template";
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        if (::ConvertStringSecurityDescriptorToSecurityDescriptorA(sddl, SDDL_REVISION_1, &descriptor,
                                                                   nullptr)) {
            ::SetFileSecurityA(path.c_str(), DACL_SECURITY_INFORMATION, descriptor);
            ::LocalFree(descriptor);
        }
    }
    ~TemplateFile() {
        // Its list lets nobody delete it; the owner may still change the list.
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        if (::ConvertStringSecurityDescriptorToSecurityDescriptorA("D:(A;;FA;;;WD)", SDDL_REVISION_1,
                                                                   &descriptor, nullptr)) {
            ::SetFileSecurityA(path.c_str(), DACL_SECURITY_INFORMATION, descriptor);
            ::LocalFree(descriptor);
        }
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
};

}  // namespace

// args: key. Creates the block, marks word 0 and holds it until killed.
PAXLTRACE_CHILD_ROLE(WinShmCreateAndHold) {
    TraceSharedMemory memory(args.at(0).c_str());
    if (!memory.create(4096))
        return 1;
    static_cast<volatile uint32_t*>(memory.data())[0] = 1;
    for (;;)
        Tracing::Platform::SleepMs(1000);
}

// args: guard name, marker file. Holds the guard, then creates the marker and waits to be killed.
PAXLTRACE_CHILD_ROLE(WinGuardHoldUntilKilled) {
    CreationGuard guard(args.at(0));
    if (guard.TryAcquire() != CreationGuard::Attempt::Acquired)
        return 1;
    std::ofstream(args.at(1)) << "held";
    for (;;)
        Tracing::Platform::SleepMs(1000);
}

// Reports to the system's event log (no sink installed in a child).
PAXLTRACE_CHILD_ROLE(WinWriteEventLog) {
    TraceSharedMemory::writeErrorEventLog("TraceRegistry", "test error entry");
    TraceSharedMemory::writeWarningEventLog("TraceStream", "test warning entry");
    return 0;
}

TEST(TraceSharedMemoryWindows, StatesSizesAndErrorTexts) {
    const std::string key = ShmPrefix() + "States";
    TraceSharedMemory memory(key.c_str());
    EXPECT_FALSE(memory.attach());
    EXPECT_EQ(memory.error(), TraceSharedMemory::NotFound);
    EXPECT_EQ(memory.errorString(), "not found");
    ASSERT_TRUE(memory.create(10000)) << memory.errorString();
    EXPECT_EQ(memory.size(), 10000u);
    const auto* bytes = static_cast<const unsigned char*>(memory.constData());
    EXPECT_EQ(std::count(bytes, bytes + 10000, 0), 10000) << "a new block must be zero";
    EXPECT_EQ(Protection(memory.data()), static_cast<DWORD>(PAGE_READWRITE));

    TraceSharedMemory taken(key.c_str());
    EXPECT_FALSE(taken.create(100));
    EXPECT_EQ(taken.error(), TraceSharedMemory::AlreadyExists);
    EXPECT_EQ(taken.errorString(), "already exists");
    // An opener sees whole pages: the system keeps no exact size.
    ASSERT_TRUE(taken.attach(TraceSharedMemory::ReadOnly));
    EXPECT_GE(taken.size(), 10000u);
    EXPECT_EQ(taken.size() % 4096, 0u);
    EXPECT_EQ(Protection(taken.constData()), static_cast<DWORD>(PAGE_READONLY));
    static_cast<volatile uint32_t*>(memory.data())[100] = 77;
    EXPECT_EQ(static_cast<const volatile uint32_t*>(taken.constData())[100], 77u);
    EXPECT_TRUE(memory.isSameShm(taken));

    EXPECT_TRUE(memory.detach());
    EXPECT_TRUE(Exists(key)) << "still held by the second object";
    EXPECT_TRUE(taken.detach());
    EXPECT_FALSE(Exists(key)) << "the last handle took the block with it";
}

TEST(TraceSharedMemoryWindows, OtherOsErrorsNameTheCallAndComposeTheirTextOnce) {
    // A size of 0 is refused for memory backed by the paging file.
    TraceSharedMemory empty((ShmPrefix() + "Empty").c_str());
    EXPECT_FALSE(empty.create(0));
    EXPECT_EQ(empty.error(), TraceSharedMemory::UnknownError);
    const std::string text = empty.errorString();
    const std::string head = "CreateFileMapping: OS error ";
    ASSERT_EQ(text.rfind(head, 0), 0u) << text;
    const int code = std::stoi(text.substr(head.size()));
    EXPECT_EQ(text, head + std::to_string(code) + ": " + Tracing::Platform::ErrorText(code));
    EXPECT_EQ(empty.errorString(), text);
    EXPECT_FALSE(Exists(ShmPrefix() + "Empty"));
}

TEST(TraceSharedMemoryWindows, GlobalFallBackFindsAnObjectOnlyInTheGlobalNamespace) {
    const std::string key = ShmPrefix() + "OnlyGlobal";
    TraceSharedMemory global(("Global\\" + key).c_str());
    ASSERT_TRUE(global.create(4096)) << global.errorString();
    static_cast<volatile uint32_t*>(global.data())[0] = 42;

    TraceSharedMemory local(key.c_str());
    EXPECT_FALSE(local.attach()) << "\"Global\\X\" and \"X\" are different objects";
    EXPECT_EQ(local.error(), TraceSharedMemory::NotFound);
    ASSERT_TRUE(local.attach(TraceSharedMemory::ReadOnly, TraceSharedMemory::AttachTryGlobal))
        << local.errorString();
    EXPECT_EQ(local.getKey(), key) << "the retry keeps the caller's key";
    EXPECT_EQ(static_cast<const volatile uint32_t*>(local.constData())[0], 42u);
    EXPECT_TRUE(local.isSameShm(global));

    TraceSharedMemory beside(key.c_str());
    ASSERT_TRUE(beside.create(4096)) << "the local name is still free";
    EXPECT_FALSE(beside.isSameShm(global));
}

TEST(TraceSharedMemoryWindows, DefaultAccessListGrantsTheUserAndTheSystem) {
    const std::string key = ShmPrefix() + "Default";
    TraceSharedMemory memory(key.c_str());
    ASSERT_TRUE(memory.create(4096)) << memory.errorString();
    const std::string list = AccessList(key);
    const std::string user = CurrentUserSid();
    ASSERT_FALSE(user.empty());
    EXPECT_NE(list.find(user), std::string::npos) << list;
    EXPECT_TRUE(list.find(";;;SY)") != std::string::npos || list.find(";;;S-1-5-18)") != std::string::npos)
        << list;
    // Only the three accounts (the group when it exists): nobody else, in particular not everyone.
    EXPECT_EQ(list.find(";;;WD)"), std::string::npos) << list;
}

TEST(TraceSharedMemoryWindows, TemplateWithReadRightsDeniesAMappingOpenedForWriting) {
    // Everyone may read the file, nobody may write it.
    TemplateFile file("D:(A;;FR;;;WD)");
    const std::string key = ShmPrefix() + "Template";
    TraceSharedMemory memory(key.c_str());
    memory.setPermissionsTemplate(file.path.c_str(), TraceSharedMemory::ReadAccessReadOnly);
    ASSERT_TRUE(memory.create(4096)) << memory.errorString();
    TraceSharedMemory writer(key.c_str());
    EXPECT_FALSE(writer.attach(TraceSharedMemory::ReadWrite));
    EXPECT_EQ(writer.error(), TraceSharedMemory::PermissionDenied);
    EXPECT_EQ(writer.errorString(), "permission denied");
    TraceSharedMemory reader(key.c_str());
    EXPECT_TRUE(reader.attach(TraceSharedMemory::ReadOnly)) << reader.errorString();
    ASSERT_TRUE(reader.detach() && memory.detach());

    memory.setPermissionsTemplate(file.path.c_str(), TraceSharedMemory::ReadAccessFull);
    ASSERT_TRUE(memory.create(4096)) << memory.errorString();
    EXPECT_TRUE(writer.attach(TraceSharedMemory::ReadWrite)) << writer.errorString();
    ASSERT_TRUE(writer.detach() && memory.detach());

    memory.setPermissionsTemplate((file.path + ".missing").c_str(), TraceSharedMemory::ReadAccessFull);
    EXPECT_FALSE(memory.create(4096));
    EXPECT_EQ(memory.error(), TraceSharedMemory::NotFound);
    EXPECT_FALSE(Exists(key));
}

TEST(TraceSharedMemoryWindows, EventLogEntriesCarrySourceUserAndMessage) {
    // Without a sink the entries go to the system's log; the call must simply succeed.
    const pid_t child = SpawnChild("WinWriteEventLog");
    ASSERT_GT(child, 0);
    EXPECT_EQ(WaitChild(child), 0);

    std::vector<Tracing::Platform::EventLogEntry> entries;
    auto previous = Tracing::Platform::SetEventLogSink(
        [&](const Tracing::Platform::EventLogEntry& entry) { entries.push_back(entry); });
    TraceSharedMemory::writeErrorEventLog("TraceRegistry", "Cannot create the SHM");
    Tracing::Platform::SetEventLogSink(previous);

    char user[257];
    DWORD userLength = sizeof user;
    ASSERT_TRUE(::GetUserNameA(user, &userLength));
    BYTE sid[SECURITY_MAX_SID_SIZE];
    DWORD sidSize = sizeof sid;
    char domain[256];
    DWORD domainSize = sizeof domain;
    SID_NAME_USE use;
    ASSERT_TRUE(::LookupAccountNameA(nullptr, user, sid, &sidSize, domain, &domainSize, &use));
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].type, Tracing::Platform::EventType::Error);
    EXPECT_EQ(entries[0].source, "TraceRegistry");
    EXPECT_EQ(entries[0].userLine, std::string("User: ") + domain + "\\" + user +
                                       ", ProcessID: " + std::to_string(::GetCurrentProcessId()));
    EXPECT_EQ(entries[0].message, "Cannot create the SHM");
}

TEST(TraceSharedMemoryWindowsProcesses, BlockOfAKilledHolderVanishes) {
    const std::string key = ShmPrefix() + "Killed";
    const pid_t child = SpawnChild("WinShmCreateAndHold", {key});
    TraceSharedMemory memory(key.c_str());
    ASSERT_TRUE(WaitFor(
        [&] {
            return (memory.isAttached() || memory.attach()) &&
                   static_cast<const volatile uint32_t*>(memory.constData())[0] == 1;
        },
        10000));
    ::kill(child, SIGKILL);
    EXPECT_EQ(WaitChild(child), 128 + SIGKILL);
    EXPECT_TRUE(Exists(key)) << "this process still holds it";
    EXPECT_TRUE(memory.detach());
    EXPECT_FALSE(memory.attach());
    EXPECT_EQ(memory.error(), TraceSharedMemory::NotFound);
}

TEST(CreationGuardWindows, OneHolderAtATimeReleasedWhenItsHolderIsKilled) {
    const std::string name = ShmPrefix() + "GuardSem_V1";
    CreationGuard first(name);
    CreationGuard second(name);
    EXPECT_EQ(first.Path(), "");
    ASSERT_EQ(first.TryAcquire(), CreationGuard::Attempt::Acquired);
    EXPECT_EQ(first.TryAcquire(), CreationGuard::Attempt::AlreadyHeld);
    EXPECT_EQ(second.TryAcquire(), CreationGuard::Attempt::Busy);
    EXPECT_EQ(second.LastError(), ERROR_ALREADY_EXISTS);
    EXPECT_TRUE(first.Release());
    EXPECT_TRUE(first.Release()) << "releasing a guard not held does nothing";
    EXPECT_EQ(second.TryAcquire(), CreationGuard::Attempt::Acquired);
    EXPECT_TRUE(second.Release());

    const std::string marker =
        (std::filesystem::temp_directory_path() / (ShmPrefix() + "GuardMarker")).string();
    const pid_t child = SpawnChild("WinGuardHoldUntilKilled", {name, marker});
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(marker); }, 10000));
    ASSERT_TRUE(Tracing::Test::RemoveFile(marker));
    EXPECT_EQ(first.TryAcquire(), CreationGuard::Attempt::Busy);
    ::kill(child, SIGKILL);
    EXPECT_EQ(WaitChild(child), 128 + SIGKILL);
    // Wine lets go of a killed holder's handles a moment after the process has ended.
    EXPECT_TRUE(WaitFor([&] { return first.TryAcquire() == CreationGuard::Attempt::Acquired; }, 5000));
    EXPECT_TRUE(first.Release());
}

#endif  // _WIN32
