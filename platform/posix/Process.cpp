#include "platform/Process.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

namespace Tracing::Platform {

int64_t CurrentProcessId() {
    // fork() is not supported while tracing, so the ID never changes under us.
    static const int64_t pid = static_cast<int64_t>(::getpid());
    return pid;
}

ProcessState QueryProcess(int64_t pid, uint64_t& creationTime) {
    creationTime = 0;
    // A pid read from shared memory may be anything: kill(0 or -1, 0) would address a group.
    if (pid <= 0 || pid > std::numeric_limits<pid_t>::max())
        return ProcessState::NotFound;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%lld/stat", static_cast<long long>(pid));
    FILE* file = std::fopen(path, "re");
    if (file == nullptr) {
        if (::kill(static_cast<pid_t>(pid), 0) == 0)
            return ProcessState::Running;
        return errno == EPERM ? ProcessState::AccessDenied : ProcessState::NotFound;
    }
    char buffer[1024];
    const size_t length = std::fread(buffer, 1, sizeof buffer - 1, file);
    std::fclose(file);
    buffer[length] = '\0';
    // The command name (field 2) may hold blanks and parentheses: fields resume after the last ')'.
    const char* rest = std::strrchr(buffer, ')');
    if (rest == nullptr)
        return ProcessState::Running;
    char state = '?';
    unsigned long long startTime = 0;
    // Field 3 is the state, field 22 the start time in clock ticks since boot.
    if (std::sscanf(rest + 1,
                    " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu",
                    &state, &startTime) < 1) {
        return ProcessState::Running;
    }
    if (state == 'Z' || state == 'X' || state == 'x')
        return ProcessState::Exited;
    creationTime = startTime;
    return ProcessState::Running;
}

bool IsServiceProcess() {
    return false;
}

bool ProcessIsEnding() {
    return false;
}

}  // namespace Tracing::Platform
