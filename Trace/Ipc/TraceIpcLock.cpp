#include "Trace/Ipc/TraceIpcLock.h"

#include "Trace/Records/PrintMsg.h"
#include "Trace/Records/TraceMessage.h"
#include "platform/Clock.h"
#include "platform/Process.h"
#include "platform/Thread.h"

namespace Tracing {

namespace {

constexpr int YieldRounds = 100;
constexpr int SleepRounds = 10;
// Passes between two warnings of a waiter; about 2 s when each pass sleeps 10 ms.
constexpr unsigned WarningPeriod = 200;
// How long a holder may go without recording itself before it counts as having died right after
// its exchange. Recording takes a few stores, so only a stopped process is ever this slow; a
// killed one blocks every waiter for this long and no longer.
constexpr uint32_t UnrecordedGraceMs = 1000;

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

bool TraceIpcLock::ReadRecordedOwner(uint32_t held, TraceProcessData& owner) const {
    const uint32_t recordedFor =
        std::atomic_ref<uint32_t>(const_cast<uint32_t&>(m_ownerState)).load(std::memory_order_acquire);
    if (recordedFor != held)
        return false;
    owner = GetOwner();
    // Read like a sequence lock: a new holder writes the owner only after changing the state. The
    // thread sanitizer does not model fences (and its owner loads are atomic anyway); its builds
    // keep the compiler's order, which on x86 is all the fence amounts to.
#if defined(__SANITIZE_THREAD__)
    std::atomic_signal_fence(std::memory_order_acquire);
#else
    std::atomic_thread_fence(std::memory_order_acquire);
#endif
    return State().load(std::memory_order_seq_cst) == held;
}

void TraceIpcLock::LockContended(const TraceProcessData& self, const char* file, unsigned line) {
    unsigned counter = 0;
    // The held state seen without a recorded owner, and since when.
    uint32_t unrecordedState = 0;
    uint32_t unrecordedSince = 0;
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
                // The same holder throughout. Only an owner recorded for this very state tells who
                // it is; the owner field may still name the previous holder.
                bool takeOver = false;
                if (ReadRecordedOwner(state, suspect)) {
                    takeOver = !suspect.IsAlive();
                } else if ((unrecordedState & 1) == 0 || unrecordedState != state) {
                    unrecordedState = state;
                    unrecordedSince = Platform::TickMs();
                } else {
                    takeOver = Platform::TickMs() - unrecordedSince >= UnrecordedGraceMs;
                }
                if (takeOver) {
                    uint32_t expected = state;
                    if (State().compare_exchange_strong(expected, state + 2, std::memory_order_seq_cst)) {
                        RecordOwner(self, state + 2);
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
            RecordOwner(self, state | 1u);
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
