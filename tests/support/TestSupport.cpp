#include "TestSupport.h"

#include <gtest/gtest.h>
#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <filesystem>
#include <map>
#include <mutex>
#include <string_view>
#include <thread>

#include "platform/ExecutablePath.h"
#include "platform/Process.h"
#include "platform/SharedMemory.h"
#include "platform/TextConversion.h"

#ifndef _WIN32
extern char** environ;
#endif

namespace Tracing::Test {
namespace {

constexpr const char* kRoleVariable = "PAXLTRACE_TEST_CHILD_ROLE";

std::map<std::string, ChildRole>& Roles() {
    static std::map<std::string, ChildRole> roles;
    return roles;
}

std::string& PrefixStorage() {
    static std::string prefix;
    return prefix;
}

}  // namespace

const std::string& ShmPrefix() {
    return PrefixStorage();
}

bool RegisterChildRole(const char* name, ChildRole role) {
    Roles()[name] = std::move(role);
    return true;
}

bool ShmExists(const std::string& key) {
#ifdef _WIN32
    HANDLE mapping = ::OpenFileMappingA(FILE_MAP_READ, FALSE, key.c_str());
    if (mapping != nullptr)
        ::CloseHandle(mapping);
    return mapping != nullptr;
#else
    return ::access(Platform::SharedMemoryPath(key).c_str(), F_OK) == 0;
#endif
}

uint64_t MappedSize(uint64_t size) {
#ifdef _WIN32
    return (size + 4095) / 4096 * 4096;
#else
    return size;
#endif
}

std::string SelfExecutable() {
    return Platform::ExecutableFilePath();
}

pid_t SpawnChild(const std::string& role, const std::vector<std::string>& args) {
    return SpawnChildExecutable(SelfExecutable(), role, args);
}

pid_t SpawnChildExecutable(const std::string& executable, const std::string& role,
                           const std::vector<std::string>& args) {
    ProcessOptions options;
    options.environment.push_back(std::string(kRoleVariable) + "=" + role);
    return StartProcess(executable, args, options);
}

#ifdef _WIN32

namespace {

std::mutex& ChildrenMutex() {
    static std::mutex mutex;
    return mutex;
}

// Process handles of the children not yet waited for.
std::map<pid_t, HANDLE>& Children() {
    static std::map<pid_t, HANDLE> children;
    return children;
}

// Windows hands a freed process ID to the next new process at once. An ended child's process
// object is kept open for the rest of the test, so its ID stays taken: a dead-process check
// cannot meet a stranger under it.
void KeepEnded(HANDLE process) {
    static std::mutex mutex;
    static std::vector<HANDLE> ended;
    std::lock_guard<std::mutex> lock(mutex);
    ended.push_back(process);
}

HANDLE TakeChild(pid_t pid) {
    std::lock_guard<std::mutex> lock(ChildrenMutex());
    auto it = Children().find(pid);
    if (it == Children().end())
        return nullptr;
    HANDLE process = it->second;
    Children().erase(it);
    return process;
}

HANDLE FindChild(pid_t pid) {
    std::lock_guard<std::mutex> lock(ChildrenMutex());
    auto it = Children().find(pid);
    return it == Children().end() ? nullptr : it->second;
}

// One argument as the C runtime splits command lines: quoted, with backslashes doubled before quotes.
void AppendArgument(std::wstring& line, const std::wstring& argument) {
    line += L'"';
    std::size_t backslashes = 0;
    for (wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        if (c == L'"')
            line.append(2 * backslashes + 1, L'\\');
        else
            line.append(backslashes, L'\\');
        backslashes = 0;
        line += c;
    }
    line.append(2 * backslashes, L'\\');
    line += L'"';
}

std::wstring Wide(const std::string& text) {
    return Platform::Utf8ToWide(text.data(), text.size());
}

// Environment names compare without case on Windows.
bool SameVariable(std::wstring_view entry, std::wstring_view assignment) {
    const std::size_t equals = assignment.find(L'=');
    return entry.size() > equals && entry[equals] == L'=' &&
           ::CompareStringOrdinal(entry.data(), static_cast<int>(equals), assignment.data(),
                                  static_cast<int>(equals), TRUE) == CSTR_EQUAL;
}

// A handle the child inherits: a file of ours, or the null device.
HANDLE InheritableFile(const std::string& path, bool write) {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    return ::CreateFileW(path.empty() ? L"NUL" : Wide(path).c_str(), write ? GENERIC_WRITE : GENERIC_READ,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherit,
                         write ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Children end with this process, even when it dies: a child left behind would keep holding
// what it holds, and CTest's output pipe.
HANDLE ChildrenJob() {
    static HANDLE job = [] {
        HANDLE created = ::CreateJobObjectW(nullptr, nullptr);
        JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
        limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
        if (created != nullptr &&
            !::SetInformationJobObject(created, JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
            ::CloseHandle(created);
            created = nullptr;
        }
        return created;
    }();
    return job;
}

HANDLE InheritableCopy(HANDLE handle) {
    HANDLE copy = nullptr;
    ::DuplicateHandle(::GetCurrentProcess(), handle, ::GetCurrentProcess(), &copy, 0, TRUE,
                      DUPLICATE_SAME_ACCESS);
    return copy;
}

}  // namespace

pid_t StartProcess(const std::string& executable, const std::vector<std::string>& args,
                   const ProcessOptions& options, int* input) {
    const std::wstring path = Wide(executable);
    std::wstring commandLine;
    AppendArgument(commandLine, path);
    for (const std::string& a : args) {
        commandLine += L' ';
        AppendArgument(commandLine, Wide(a));
    }
    std::vector<std::wstring> extra;
    for (const std::string& e : options.environment)
        extra.push_back(Wide(e));
    std::wstring environment;
    if (wchar_t* block = ::GetEnvironmentStringsW()) {
        for (const wchar_t* entry = block; *entry != L'\0'; entry += std::wcslen(entry) + 1) {
            if (std::none_of(extra.begin(), extra.end(),
                             [&](const std::wstring& e) { return SameVariable(entry, e); }))
                environment.append(entry).push_back(L'\0');
        }
        ::FreeEnvironmentStringsW(block);
    }
    for (const std::wstring& e : extra)
        environment.append(e).push_back(L'\0');
    environment.push_back(L'\0');

    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    HANDLE inputWrite = nullptr;
    const bool redirect = options.withInput || !options.output.empty() || !options.error.empty();
    // Inheritable handles go to every child started meanwhile: one start at a time.
    static std::mutex startMutex;
    std::lock_guard<std::mutex> startLock(startMutex);
    if (redirect) {
        startup.dwFlags = STARTF_USESTDHANDLES;
        if (options.withInput) {
            SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
            if (!::CreatePipe(&startup.hStdInput, &inputWrite, &inherit, 0))
                return -1;
            ::SetHandleInformation(inputWrite, HANDLE_FLAG_INHERIT, 0);
        } else {
            startup.hStdInput = InheritableFile("", false);
        }
        startup.hStdOutput = options.output.empty() ? InheritableCopy(::GetStdHandle(STD_OUTPUT_HANDLE))
                                                    : InheritableFile(options.output, true);
        startup.hStdError = options.error.empty() ? InheritableCopy(::GetStdHandle(STD_ERROR_HANDLE))
                                                  : InheritableFile(options.error, true);
    }
    PROCESS_INFORMATION info{};
    const bool started = ::CreateProcessW(path.c_str(), commandLine.data(), nullptr, nullptr, redirect,
                                          CREATE_UNICODE_ENVIRONMENT | CREATE_SUSPENDED, environment.data(),
                                          nullptr, &startup, &info);
    for (HANDLE handle : {startup.hStdInput, startup.hStdOutput, startup.hStdError}) {
        if (handle != nullptr && handle != INVALID_HANDLE_VALUE)
            ::CloseHandle(handle);
    }
    if (!started) {
        if (inputWrite != nullptr)
            ::CloseHandle(inputWrite);
        return -1;
    }
    if (input != nullptr && inputWrite != nullptr)
        *input = _open_osfhandle(reinterpret_cast<intptr_t>(inputWrite), _O_WRONLY | _O_BINARY);
    if (HANDLE job = ChildrenJob())
        ::AssignProcessToJobObject(job, info.hProcess);
    ::ResumeThread(info.hThread);
    ::CloseHandle(info.hThread);
    const pid_t pid = static_cast<pid_t>(info.dwProcessId);
    std::lock_guard<std::mutex> lock(ChildrenMutex());
    Children()[pid] = info.hProcess;
    return pid;
}

int WaitChild(pid_t pid) {
    HANDLE process = TakeChild(pid);
    if (process == nullptr)
        return -1;
    DWORD code = 0;
    const bool ended =
        ::WaitForSingleObject(process, INFINITE) == WAIT_OBJECT_0 && ::GetExitCodeProcess(process, &code);
    KeepEnded(process);
    return ended ? static_cast<int>(code) : -1;
}

namespace Windows {

// Only a child not yet waited for: Windows hands a freed process ID to a new process at once,
// so killing by ID could hit another test.
int Kill(pid_t pid, int signal) {
    std::lock_guard<std::mutex> lock(ChildrenMutex());  // the handle stays open meanwhile
    auto it = Children().find(pid);
    return it != Children().end() && ::TerminateProcess(it->second, 128 + static_cast<unsigned>(signal)) ? 0
                                                                                                         : -1;
}

pid_t WaitPid(pid_t pid, int* status, int options) {
    HANDLE process = FindChild(pid);
    if (process == nullptr)
        return -1;
    if (::WaitForSingleObject(process, (options & WNOHANG) != 0 ? 0 : INFINITE) != WAIT_OBJECT_0)
        return 0;
    DWORD code = 0;
    ::GetExitCodeProcess(process, &code);
    if (status != nullptr)
        *status = static_cast<int>((code & 0xFF) << 8);
    KeepEnded(TakeChild(pid));
    return pid;
}

char* MakeTemporaryDirectory(char* pattern) {
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string candidate(pattern);
        const std::size_t x = candidate.rfind("XXXXXX");
        if (x == std::string::npos || x + 6 != candidate.size())
            return nullptr;
        static unsigned counter = 0;
        std::snprintf(candidate.data() + x, 7, "%06u",
                      static_cast<unsigned>((::GetCurrentProcessId() * 7919u + counter++) % 1000000u));
        if (::CreateDirectoryA(candidate.c_str(), nullptr)) {
            std::copy(candidate.begin(), candidate.end(), pattern);
            return pattern;
        }
        if (::GetLastError() != ERROR_ALREADY_EXISTS)
            return nullptr;
    }
    return nullptr;
}

void SleepForever() {
    for (;;)
        ::Sleep(INFINITE);
}

}  // namespace Windows

#else

pid_t StartProcess(const std::string& executable, const std::vector<std::string>& args,
                   const ProcessOptions& options, int* input) {
    std::vector<std::string> argvStrings{executable};
    argvStrings.insert(argvStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argvStrings)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    auto sameVariable = [](std::string_view entry, std::string_view assignment) {
        const std::size_t equals = assignment.find('=');
        return entry.substr(0, equals + 1) == assignment.substr(0, equals + 1);
    };
    std::vector<std::string> envStrings;
    for (char** e = environ; *e != nullptr; ++e) {
        if (std::none_of(options.environment.begin(), options.environment.end(),
                         [&](const std::string& extra) { return sameVariable(*e, extra); }))
            envStrings.emplace_back(*e);
    }
    envStrings.insert(envStrings.end(), options.environment.begin(), options.environment.end());
    std::vector<char*> envp;
    for (auto& e : envStrings)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int pipeEnds[2] = {-1, -1};
    if (options.withInput) {
        if (pipe2(pipeEnds, O_CLOEXEC) != 0)
            return -1;
        posix_spawn_file_actions_adddup2(&actions, pipeEnds[0], 0);
    } else if (!options.output.empty() || !options.error.empty()) {
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    }
    if (!options.output.empty())
        posix_spawn_file_actions_addopen(&actions, 1, options.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
    if (!options.error.empty())
        posix_spawn_file_actions_addopen(&actions, 2, options.error.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
    pid_t pid = -1;
    const bool started =
        posix_spawn(&pid, executable.c_str(), &actions, nullptr, argv.data(), envp.data()) == 0;
    posix_spawn_file_actions_destroy(&actions);
    if (options.withInput) {
        close(pipeEnds[0]);
        if (started && input != nullptr)
            *input = pipeEnds[1];
        else
            close(pipeEnds[1]);
    }
    return started ? pid : -1;
}

int WaitChild(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

#endif

bool RemoveFile(const std::string& path, int timeoutMs) {
    return WaitFor(
        [&] {
            std::error_code error;
            return std::filesystem::remove(path, error) || !error;
        },
        timeoutMs);
}

bool WaitFor(const std::function<bool()>& condition, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace Tracing::Test

int main(int argc, char** argv) {
    using namespace Tracing::Test;
    if (const char* role = std::getenv(kRoleVariable)) {
        // A child shares its parent's prefix, which it inherits through the environment.
        const char* prefix = std::getenv("TRACE_PREFIX");
        PrefixStorage() = prefix != nullptr ? prefix : "";
        auto it = Roles().find(role);
        if (it == Roles().end()) {
            std::fprintf(stderr, "unknown child role '%s'\n", role);
            return 125;
        }
        std::vector<std::string> args(argv + 1, argv + argc);
        return it->second(args);
    }
#ifdef _WIN32
    // Copies of this binary elsewhere find the library and the runtime DLLs beside the original.
    const std::string self = SelfExecutable();
    const char* path = std::getenv("PATH");
    const std::string directory = self.substr(0, self.find_last_of('\\'));
    _putenv_s("PATH", (directory + ";" + (path != nullptr ? path : "")).c_str());
#endif
    // Set before anything reads the configuration, so no test meets another's shared memory.
    PrefixStorage() =
        std::string(PAXLTRACE_TEST_PREFIX) + std::to_string(Tracing::Platform::CurrentProcessId());
    setenv("TRACE_PREFIX", PrefixStorage().c_str(), 1);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
