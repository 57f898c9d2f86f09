#include "Trace/Reading/TraceUpdateManager.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <system_error>

#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Records/PrintMsg.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Time/TraceTimer.h"
#include "paxltrace.h"
#include "platform/Clock.h"
#include "platform/Process.h"
#include "platform/Thread.h"

namespace Tracing {
namespace {

constexpr unsigned StartWaitSleeps = 1000;
constexpr unsigned StopCheckMs = 16;
constexpr unsigned StopRetries = 10;
constexpr unsigned UpdateStartPollMs = 20;
constexpr std::chrono::milliseconds FirstWarningAfter{3000};
constexpr std::chrono::milliseconds BlockedAfter{60000};

// Each can be set once in the life of the process: a stopped updater never comes back.
std::atomic<bool> started{false};
std::atomic<bool> stopRequested{false};

// Stops the thread when static objects are destroyed at exit; made right after the manager, so it
// runs after the destructors of everything made later (which unregister their items first).
class StopAtExit {
public:
    explicit StopAtExit(TraceUpdateManager& manager) : m_manager(manager) {}
    ~StopAtExit() { m_manager.Stop(TraceUpdateManager::ExitStopTimeoutMs); }

    StopAtExit(const StopAtExit&) = delete;
    StopAtExit& operator=(const StopAtExit&) = delete;

private:
    TraceUpdateManager& m_manager;
};

}  // namespace

TraceUpdateManager& TraceUpdateManager::GetInstance() {
    static TraceUpdateManager* const instance = [] {
        // Stop prints through it at exit, so it must outlive the guard below.
        TraceConfigurationPrivate::GetInstance();
        return new TraceUpdateManager();
    }();
    static const StopAtExit stopAtExit(*instance);
    return *instance;
}

void TraceUpdateManager::AddItem(IUpdaterItem& item) {
    Add(m_items, item);
}

void TraceUpdateManager::RemoveItem(IUpdaterItem& item) {
    Remove(m_items, item);
}

void TraceUpdateManager::AddReader(IUpdaterItem& reader) {
    Add(m_readers, reader);
}

void TraceUpdateManager::RemoveReader(IUpdaterItem& reader) {
    Remove(m_readers, reader);
}

void TraceUpdateManager::Add(std::vector<IUpdaterItem*>& list, IUpdaterItem& entry) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (std::find(list.begin(), list.end(), &entry) == list.end())
            list.push_back(&entry);
    }
    // Outside the lock: the first Start waits for the thread.
    Start();
}

void TraceUpdateManager::Remove(std::vector<IUpdaterItem*>& list, IUpdaterItem& entry) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto it = std::find(list.begin(), list.end(), &entry);
    if (it == list.end())
        return;
    list.erase(it);
    // The running cycle skips it too: its owner may destroy it as soon as we return.
    std::replace(m_snapshot.begin(), m_snapshot.end(), &entry, static_cast<IUpdaterItem*>(nullptr));
    // On the updater thread the call in progress is the caller's own (or the caller's caller).
    if (OnUpdaterThread())
        return;
    m_callDone.wait(lock, [&] { return m_current != &entry || m_detached.load(std::memory_order_seq_cst); });
}

bool TraceUpdateManager::OnUpdaterThread() const {
    return m_threadId.load(std::memory_order_seq_cst) == Platform::CurrentThreadId();
}

void TraceUpdateManager::Start() {
    if (started.exchange(true, std::memory_order_seq_cst))
        return;
    std::lock_guard<std::mutex> lifecycle(m_lifecycleMutex);
    if (stopRequested.load(std::memory_order_seq_cst) || IsRunning())
        return;
    m_stopping.store(false, std::memory_order_seq_cst);
    try {
        m_thread = std::thread([this] { ThreadProcedure(); });
    } catch (const std::system_error& error) {
        TraceDiagnostics::GetInstance().Warning(
            TraceMessage("Couldn't start the trace updater thread: %1").Add(error.what()));
        return;
    }
    for (unsigned sleeps = 0; sleeps < StartWaitSleeps && !IsRunning(); ++sleeps)
        Platform::SleepMs(1);
}

void TraceUpdateManager::TraceOwnThreadStart() {
    // Kept for the life of the process, like the manager itself.
    static TraceEngine* engine = nullptr;
    static uint8_t threadStartFlag = 0;
    static std::once_flag once;
    std::call_once(once, [] {
        trace_engine_create("Core", "Thread", 0, 0, true, &engine, nullptr);
        threadStartFlag = trace_engine_register_flag_checked(engine, "ThreadStart", false);
    });
    // A failed registration (bit 0) never reads as set.
    if (trace_engine_get_flag(engine, threadStartFlag)) {
        // Clearing bits 1 and 3 of the flag mask leaves the flag bit; the severity is Verbose.
        const uint32_t severityWord = ((1u << threadStartFlag) & ~0xAu) | Severity::Verbose;
        TraceMessage message("Started thread 0x%1:x with the name %2");
        message.Add(Platform::CurrentThreadId()).Add("Trace updater thread");
        trace_engine_write(engine, nullptr, 0, severityWord, message.GetText(), 0,
                           message.GetParameterCount(), message.GetParameters());
    }
}

void TraceUpdateManager::ThreadProcedure() {
    m_threadId.store(Platform::CurrentThreadId(), std::memory_order_seq_cst);
    m_running.store(true, std::memory_order_seq_cst);
    // After running is set: the engine waits for a registry set-up that may itself be waiting in
    // Start for this thread to run.
    TraceOwnThreadStart();

    TraceTimer& timer = TraceTimer::GetInstance();
    while (!IsStopping()) {
        const uint64_t t0 = timer.GetTimestamp(TimestampMode::FAST);
        Update();
        const uint64_t t1 = timer.GetTimestamp(TimestampMode::FAST);
        // A stop ends the sleep at once, so that exit does not wait for the next cycle.
        std::unique_lock<std::mutex> lock(m_cycleMutex);
        m_cycleDone.wait_for(lock, std::chrono::milliseconds(SleepAfterCycle(t0, t1)),
                             [this] { return IsStopping(); });
    }

    m_threadId.store(0, std::memory_order_seq_cst);
    {
        std::lock_guard<std::mutex> lock(m_cycleMutex);
        m_running.store(false, std::memory_order_seq_cst);
    }
    m_cycleDone.notify_all();
}

unsigned TraceUpdateManager::SleepAfterCycle(uint64_t t0, uint64_t t1) {
    if (t1 <= t0)
        return ThreadSleepMs;
    const uint64_t elapsed = t1 - t0;
    if (elapsed >= ThreadSleepMs * TraceTimer::MSecMultiplicator)
        return 1;
    return ThreadSleepMs - static_cast<unsigned>(elapsed / TraceTimer::MSecMultiplicator);
}

void TraceUpdateManager::Update() {
    {
        std::lock_guard<std::mutex> lock(m_cycleMutex);
        m_updateCounter.fetch_add(1, std::memory_order_seq_cst);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_snapshot.assign(m_items.begin(), m_items.end());
        m_snapshot.insert(m_snapshot.end(), m_readers.begin(), m_readers.end());
    }
    for (size_t index = 0;; ++index) {
        IUpdaterItem* entry = nullptr;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (index >= m_snapshot.size() || IsStopping())
                break;
            entry = m_snapshot[index];
            if (entry == nullptr)
                continue;
            m_current = entry;
        }
        try {
            entry->Update();
        } catch (...) {
            // A listener's failure must not take the thread (and every other reader) down.
            TraceDiagnostics::GetInstance().Warning(
                TraceMessage("An updater item (0x%1:x) failed with an exception.")
                    .Add(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(entry))));
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_current = nullptr;
        }
        m_callDone.notify_all();
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_snapshot.clear();
    }
    {
        std::lock_guard<std::mutex> lock(m_cycleMutex);
        m_updateCounter.fetch_add(1, std::memory_order_seq_cst);
    }
    m_cycleDone.notify_all();
}

bool TraceUpdateManager::WaitForAllUpdates() {
    // The thread cannot wait for its own cycle to end.
    if (OnUpdaterThread())
        return false;
    std::unique_lock<std::mutex> lock(m_cycleMutex);
    if (!IsRunning())
        return true;
    const uint32_t start = m_updateCounter.load(std::memory_order_seq_cst);
    // A cycle that is running already began before the call: wait for it and the next one.
    const uint32_t needed = (start & 1) != 0 ? 3 : 2;
    const auto done = [&] {
        return !IsRunning() || m_updateCounter.load(std::memory_order_seq_cst) - start >= needed;
    };
    const auto begin = std::chrono::steady_clock::now();
    if (m_cycleDone.wait_until(lock, begin + FirstWarningAfter, done))
        return true;
    lock.unlock();
    Internal::PrintMsg(Severity::Warning,
                       TraceMessage("WARNING: TraceUpdateManager::WaitForAllUpdates() is waiting for more "
                                    "than %1 ms.")
                           .Add(static_cast<int64_t>(FirstWarningAfter.count())),
                       true);
    lock.lock();
    if (m_cycleDone.wait_until(lock, begin + BlockedAfter, done))
        return true;
    const uint32_t now = m_updateCounter.load(std::memory_order_seq_cst);
    lock.unlock();
    Internal::PrintMsg(Severity::Warning,
                       TraceMessage("WARNING: TraceUpdateManager::WaitForAllUpdates() is waiting for more "
                                    "than %1 ms.")
                           .Add(static_cast<int64_t>(BlockedAfter.count())),
                       true);
    if (now == start) {
        // A minute without a single cycle starting or ending: waiting on would hang the caller.
        Internal::PrintMsg(
            Severity::Error,
            TraceMessage("ERROR: TraceUpdateManager::WaitForAllUpdates() updater seems to be blocked. %1.")
                .Add(now),
            true);
        return false;
    }
    // Slow but moving: the full cycle will come.
    lock.lock();
    m_cycleDone.wait(lock, done);
    return true;
}

bool TraceUpdateManager::WaitForUpdateStart(unsigned timeoutMs) {
    if (!IsRunning())
        return true;
    if (OnUpdaterThread())
        return false;
    const uint32_t start = m_updateCounter.load(std::memory_order_seq_cst);
    if ((start & 1) != 0)
        return true;
    for (unsigned waited = 0; waited < timeoutMs; waited += UpdateStartPollMs) {
        Platform::SleepMs(std::min(UpdateStartPollMs, timeoutMs - waited));
        if (m_updateCounter.load(std::memory_order_seq_cst) != start)
            return true;
    }
    return m_updateCounter.load(std::memory_order_seq_cst) != start;
}

bool TraceUpdateManager::WaitForThreadEnd(unsigned long timeoutMs) {
    const int64_t frequency = Platform::PerformanceFrequency();
    const int64_t begin = Platform::PerformanceCounter();
    std::unique_lock<std::mutex> lock(m_cycleMutex);
    while (IsRunning()) {
        const int64_t elapsedMs = (Platform::PerformanceCounter() - begin) * 1000 / frequency;
        if (elapsedMs >= static_cast<int64_t>(timeoutMs))
            return false;
        const int64_t step = std::min<int64_t>(StopCheckMs, static_cast<int64_t>(timeoutMs) - elapsedMs);
        m_cycleDone.wait_for(lock, std::chrono::milliseconds(step));
    }
    lock.unlock();
    m_thread.join();
    return true;
}

void TraceUpdateManager::Stop(unsigned long timeoutMs) {
    if (stopRequested.exchange(true, std::memory_order_seq_cst))
        return;
    if (Platform::ProcessIsEnding()) {
        // The system has ended the thread, maybe holding our mutexes: nothing to wait for.
        m_stopping.store(true, std::memory_order_seq_cst);
        if (m_thread.joinable())
            m_thread.detach();
        return;
    }
    std::lock_guard<std::mutex> lifecycle(m_lifecycleMutex);
    {
        std::lock_guard<std::mutex> lock(m_cycleMutex);
        m_stopping.store(true, std::memory_order_seq_cst);
    }
    m_cycleDone.notify_all();
    if (!m_thread.joinable())
        return;
    if (OnUpdaterThread()) {
        // Waiting for ourselves could only time out; the thread ends after the current call.
        m_thread.detach();
        return;
    }
    if (WaitForThreadEnd(timeoutMs))
        return;
    for (unsigned retry = 1; retry <= StopRetries; ++retry) {
        Internal::PrintMsg(
            Severity::Verbose,
            TraceMessage("The trace updater thread is not responding, will wait another %1 x %2 ms")
                .Add(static_cast<int32_t>(StopRetries - retry))
                .Add(static_cast<uint32_t>(timeoutMs)),
            true);
        if (WaitForThreadEnd(timeoutMs))
            return;
    }
    Internal::PrintMsg(Severity::Warning,
                       TraceMessage("The trace updater thread is not responding, trying to detach from it."),
                       true);
    {
        // Whoever waits for a call of the blocked thread to return would wait for ever.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_detached.store(true, std::memory_order_seq_cst);
    }
    m_callDone.notify_all();
    m_thread.detach();
    Internal::PrintMsg(Severity::Warning, TraceMessage("Successfully detached the trace updater thread."),
                       true);
}

}  // namespace Tracing
