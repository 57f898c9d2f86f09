// The few POSIX calls the tests use, for the Windows build: children are killed with
// TerminateProcess and the exit code 128 + SIGKILL, so that WaitChild reports the same on both.
#pragma once

#ifdef _WIN32

#include <sys/types.h>

#include <cstdlib>

#ifndef SIGKILL
#define SIGKILL 9
#endif

#define WNOHANG 1
#define WIFEXITED(status) true
#define WEXITSTATUS(status) (((status) >> 8) & 0xFF)
#define WIFSIGNALED(status) false
#define WTERMSIG(status) 0

namespace Tracing::Test::Windows {
int Kill(pid_t pid, int signal);
pid_t WaitPid(pid_t pid, int* status, int options);
char* MakeTemporaryDirectory(char* pattern);
[[noreturn]] void SleepForever();
}  // namespace Tracing::Test::Windows

inline char* mkdtemp(char* pattern) {
    return Tracing::Test::Windows::MakeTemporaryDirectory(pattern);
}

inline int pause() {
    Tracing::Test::Windows::SleepForever();
}

inline int kill(pid_t pid, int signal) {
    return Tracing::Test::Windows::Kill(pid, signal);
}

inline pid_t waitpid(pid_t pid, int* status, int options) {
    return Tracing::Test::Windows::WaitPid(pid, status, options);
}

inline int setenv(const char* name, const char* value, int overwrite) {
    if (!overwrite && std::getenv(name) != nullptr)
        return 0;
    return _putenv_s(name, value) == 0 ? 0 : -1;
}

inline int unsetenv(const char* name) {
    return _putenv_s(name, "") == 0 ? 0 : -1;
}

#endif  // _WIN32
