#include "platform/Process.h"

#include <windows.h>
// After windows.h, which it needs.
#include <versionhelpers.h>

#include <limits>

namespace Tracing::Platform {
namespace {

uint64_t ToUInt64(const FILETIME& time) {
    return (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

// The limited right lets us look at processes of other users; systems before 6.0 lack it.
DWORD OpenAccessRight() {
    static const DWORD right = IsWindowsVersionOrGreater(6, 0, 0) ? 0x1000 : 0x400;
    return right;
}

}  // namespace

int64_t CurrentProcessId() {
    static const int64_t pid = static_cast<int64_t>(::GetCurrentProcessId());
    return pid;
}

ProcessState QueryProcess(int64_t pid, uint64_t& creationTime) {
    creationTime = 0;
    // A pid read from shared memory may be anything.
    if (pid <= 0 || pid > std::numeric_limits<DWORD>::max())
        return ProcessState::NotFound;
    HANDLE process = ::OpenProcess(OpenAccessRight(), FALSE, static_cast<DWORD>(pid));
    if (process == nullptr)
        return ::GetLastError() == ERROR_ACCESS_DENIED ? ProcessState::AccessDenied : ProcessState::NotFound;
    FILETIME creation{};
    FILETIME exit{};
    FILETIME kernel{};
    FILETIME user{};
    const BOOL read = ::GetProcessTimes(process, &creation, &exit, &kernel, &user);
    ::CloseHandle(process);
    if (!read)
        return ProcessState::Running;
    // The process object outlives the process while anyone holds a handle to it.
    if (ToUInt64(exit) != 0)
        return ProcessState::Exited;
    creationTime = ToUInt64(creation);
    return ProcessState::Running;
}

bool IsServiceProcess() {
    static const bool service = [] {
        DWORD session = 0;
        return ::ProcessIdToSessionId(::GetCurrentProcessId(), &session) && session == 0;
    }();
    return service;
}

bool ProcessIsEnding() {
    using ShutdownFunction = BOOLEAN(WINAPI*)();
    static const ShutdownFunction inProgress = [] {
        HMODULE ntdll = ::GetModuleHandleW(L"ntdll");
        return ntdll != nullptr ? reinterpret_cast<ShutdownFunction>(reinterpret_cast<void (*)()>(
                                      ::GetProcAddress(ntdll, "RtlDllShutdownInProgress")))
                                : nullptr;
    }();
    return inProgress != nullptr && inProgress();
}

}  // namespace Tracing::Platform
