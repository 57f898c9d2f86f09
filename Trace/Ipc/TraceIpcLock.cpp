#include "Trace/Ipc/TraceIpcLock.h"

#include "Trace/Records/PrintMsg.h"
#include "Trace/Records/TraceMessage.h"
#include "platform/Process.h"
#include "platform/Thread.h"

namespace Tracing {

namespace {

constexpr int YieldRounds = 100;
constexpr int SleepRounds = 10;
// Passes between two warnings of a waiter; about 2 s when each pass sleeps 10 ms.
constexpr unsigned WarningPeriod = 200;

enum class LockWarning { Busy, Blocked, Took };

void PrintLockWarning(LockWarning kind, int64_t ownerPid, unsigned counter, const char* file, unsigned line) {
    const bool withLocation = line != 0;
    const char* text = nullptr;
    switch (kind) {
        case LockWarning::Busy:
            text = withLocation
                       ? "WARNING: TraceIpcLock in (ProcessID: %1) is always locked (but not stuck), "
                         "current owner is (ProcessID: %2) from %3 line %4"
                       : "WARNING: TraceIpcLock in (ProcessID: %1) is always locked (but not stuck), "
                         "current owner is (ProcessID: %2)";
            break;
        case LockWarning::Blocked:
            text = withLocation
                       ? "WARNING: TraceIpcLock in (ProcessID: %1) blocked by lock owner (ProcessID: %2) "
                         "from %3 line %4"
                       : "WARNING: TraceIpcLock in (ProcessID: %1) blocked by lock owner (ProcessID: %2)";
            break;
        case LockWarning::Took:
            text = withLocation
                       ? "WARNING: TraceIpcLock in (ProcessID: %1), current owner (ProcessID: %2) took %3 "
                         "iterations from %4 line %5"
                       : "WARNING: TraceIpcLock in (ProcessID: %1), current owner (ProcessID: %2) took %3 "
                         "iterations";
            break;
    }
    TraceMessage message(text);
    message.Add(Platform::CurrentProcessId()).Add(ownerPid);
    if (kind == LockWarning::Took)
        message.Add(static_cast<uint32_t>(counter));
    if (withLocation)
        message.Add(file != nullptr ? file : "").Add(static_cast<uint32_t>(line));
    Internal::PrintMsg(Severity::Warning, message, true);
}

}  // namespace

TraceProcessData TraceIpcLock::GetOwner() const {
    TraceProcessData owner;
    for (int i = 0; i < 2; ++i) {
        owner.m_pid[i] = std::atomic_ref<uint32_t>(const_cast<uint32_t&>(m_owner.m_pid[i]))
                             .load(std::memory_order_relaxed);
        owner.m_creationTime[i] = std::atomic_ref<uint32_t>(const_cast<uint32_t&>(m_owner.m_creationTime[i]))
                                      .load(std::memory_order_relaxed);
    }
    return owner;
}

void TraceIpcLock::LockContended(const char* file, unsigned line) {
    unsigned counter = 0;
    for (;;) {
        const uint32_t first = State().load(std::memory_order_seq_cst);
        TraceProcessData suspect = GetOwner();
        uint32_t state = first;

        // Short critical sections of other processes end while we yield; only then sleep.
        for (int i = 0; i < YieldRounds && (state & 1) != 0; ++i) {
            Platform::YieldThread();
            state = State().load(std::memory_order_seq_cst);
        }
        for (int i = 0; i < SleepRounds && (state & 1) != 0; ++i) {
            Platform::SleepMs(1);
            state = State().load(std::memory_order_seq_cst);
        }

        if ((state & 1) != 0) {
            if (state != first) {
                // Changed hands while we waited: busy, not stuck.
                if (++counter % WarningPeriod == 0)
                    PrintLockWarning(LockWarning::Busy, suspect.GetPID(), counter, file, line);
            } else {
                // The same holder throughout. Read the owner again: the first copy may predate
                // the holder's own store, which follows its exchange.
                suspect = GetOwner();
                if (!suspect.IsAlive()) {
                    uint32_t expected = state;
                    if (State().compare_exchange_strong(expected, state + 2, std::memory_order_seq_cst)) {
                        StoreOwner(TraceProcessData::GetCurrent());
                        return;
                    }
                } else if (++counter % WarningPeriod == 0) {
                    PrintLockWarning(LockWarning::Blocked, suspect.GetPID(), counter, file, line);
                }
                continue;
            }
        }

        // From the 200th counted pass on every attempt reports; that noise is wanted.
        if (counter >= WarningPeriod)
            PrintLockWarning(LockWarning::Took, suspect.GetPID(), counter, file, line);
        uint32_t expected = state & ~1u;
        if (State().compare_exchange_strong(expected, state | 1u, std::memory_order_seq_cst)) {
            StoreOwner(TraceProcessData::GetCurrent());
            return;
        }
    }
}

void TraceIpcLock::ReportUnexpectedUnlock() const {
    TraceMessage message(
        "WARNING: TraceIpcLock in (ProcessID: %1) detected unexpected unlocked state, current lock owner "
        "(ProcessID: %2)");
    message.Add(Platform::CurrentProcessId()).Add(GetOwner().GetPID());
    Internal::PrintMsg(Severity::Warning, message, true);
}

}  // namespace Tracing
