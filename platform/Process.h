// Process identity and liveness.
//
// Contract: a process is identified by its ID plus a creation time that changes when the ID is
// reused (Windows: GetProcessTimes' creation time; POSIX: the start time from /proc). A process
// of another user that cannot be inspected counts as existing.
#pragma once

#include <cstdint>

namespace Tracing::Platform {

// The calling process's ID (cached; no system call after the first).
int64_t CurrentProcessId();

enum class ProcessState {
    Running,       // exists; creationTime is filled (0 when it cannot be read)
    Exited,        // has ended, but its object still exists (zombie / exit time set)
    NotFound,      // no such process
    AccessDenied,  // exists and belongs to someone else; creationTime is 0
};

// Looks a process up. creationTime is set only for Running.
ProcessState QueryProcess(int64_t pid, uint64_t& creationTime);

// True when the process runs as a system service (Windows session 0). Always false on POSIX.
bool IsServiceProcess();

// True while the process ends after the system has stopped its other threads (Windows runs the
// library's exit-time destructors then); such threads can no longer be waited for. False on POSIX,
// where those destructors run while the other threads still run.
bool ProcessIsEnding();

}  // namespace Tracing::Platform
