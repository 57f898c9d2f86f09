#include "Trace/Ipc/TraceProcessData.h"

#include "platform/Process.h"

namespace Tracing {

bool TraceProcessData::Fill(int64_t pid) {
    uint64_t creationTime = 0;
    switch (Platform::QueryProcess(pid, creationTime)) {
        case Platform::ProcessState::NotFound:
            return false;
        case Platform::ProcessState::AccessDenied:
            // Exists but belongs to someone else: alive, identity unknown.
            return true;
        case Platform::ProcessState::Exited:
            // Ended, though something still holds its object: its ID may come back soon.
            return false;
        case Platform::ProcessState::Running:
            if (creationTime == 0)
                return true;  // times unreadable: alive, identity unknown
            Set(pid, creationTime);
            return true;
    }
    return false;
}

bool TraceProcessData::IsAlive() const {
    TraceProcessData fresh;
    if (!fresh.Fill(GetPID()))
        return false;
    // A different creation time means the ID now belongs to another process.
    return fresh.GetCreationTime() == 0 || fresh.GetCreationTime() == GetCreationTime();
}

bool TraceProcessData::IsProcessAlive(int64_t pid) {
    uint64_t creationTime = 0;
    switch (Platform::QueryProcess(pid, creationTime)) {
        case Platform::ProcessState::Running:
        case Platform::ProcessState::AccessDenied:
            return true;
        case Platform::ProcessState::Exited:
        case Platform::ProcessState::NotFound:
            return false;
    }
    return false;
}

TraceProcessData TraceProcessData::MakeCurrent() {
    TraceProcessData current;
    const int64_t pid = Platform::CurrentProcessId();
    // Without a readable creation time the ID alone still names the lock owner in warnings.
    if (!current.Fill(pid) || current.GetPID() == 0)
        current.Set(pid, 0);
    return current;
}

}  // namespace Tracing
