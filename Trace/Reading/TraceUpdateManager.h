// The trace updater thread: the library's only background thread.
//
// About every 50 ms the thread runs one cycle: every registered item (buffer and registry updaters)
// in order of addition, then every reader. The thread starts with the first item or reader added
// and is stopped once, at process exit at the latest; it is never restarted.
//
// Lifetime: the manager itself is never freed, because a thread that had to be detached may still
// come back from a blocked item and must find its state intact. What "destroying" it means at exit
// (stopping the thread, waiting up to 11 x 1500 ms) is done by a guard made right after it, so the
// stop runs after every object made later is gone. Singletons that register items make the manager
// first, and items and readers remove themselves in their destructors.
//
// Removal contract: when RemoveItem/RemoveReader returns on any thread but the updater thread, the
// entry is not being called and will not be called again, so its owner may destroy it. Hence they
// must not be called while holding a lock that the entry's Update takes.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "Trace/Reading/IUpdaterItem.h"

namespace Tracing {

class TraceUpdateManager {
public:
    static TraceUpdateManager& GetInstance();

    // Append if not present / remove if present. Adding starts the thread.
    void AddItem(IUpdaterItem& item);
    void RemoveItem(IUpdaterItem& item);
    // Readers run after all items in every cycle; a TraceReader is an IUpdaterItem.
    void AddReader(IUpdaterItem& reader);
    void RemoveReader(IUpdaterItem& reader);

    // Starts the thread once per process; nothing once it ran or a stop was requested.
    void Start();
    // What the process gives the thread at exit.
    static constexpr unsigned long ExitStopTimeoutMs = 1500;

    // Stops the thread once per process: waits up to timeoutMs, then ten more times, then detaches.
    void Stop(unsigned long timeoutMs);

    // One cycle; run by the updater thread only.
    void Update();

    // Waits until a complete cycle that started after the call has ended; true at once when the
    // thread does not run, false at once on the updater thread itself and after a minute without
    // any progress of the thread.
    bool WaitForAllUpdates();
    // True when a cycle runs or starts within the timeout (or there is no thread to wait for).
    bool WaitForUpdateStart(unsigned timeoutMs);

    bool IsRunning() const { return m_running.load(std::memory_order_seq_cst); }
    bool IsStopping() const { return m_stopping.load(std::memory_order_seq_cst); }

    // Milliseconds from the start of one cycle to the start of the next.
    static unsigned GetThreadSleepValue() { return ThreadSleepMs; }

    // The sleep after a cycle that ran from t0 to t1 (100 ns units): the rest of the period, 1 when
    // the cycle took the whole period or more, the full period when the clock did not advance.
    static unsigned SleepAfterCycle(uint64_t t0, uint64_t t1);

    TraceUpdateManager(const TraceUpdateManager&) = delete;
    TraceUpdateManager& operator=(const TraceUpdateManager&) = delete;

private:
    static constexpr unsigned ThreadSleepMs = 50;

    TraceUpdateManager() = default;
    ~TraceUpdateManager() = delete;

    void ThreadProcedure();
    // The library's own engine for this thread, and its start message.
    void TraceOwnThreadStart();
    void Add(std::vector<IUpdaterItem*>& list, IUpdaterItem& entry);
    void Remove(std::vector<IUpdaterItem*>& list, IUpdaterItem& entry);
    bool OnUpdaterThread() const;
    // Waits up to timeoutMs for the thread to end and joins it; true when it has ended.
    bool WaitForThreadEnd(unsigned long timeoutMs);

    // Guards the lists, the snapshot and the entry being called.
    std::mutex m_mutex;
    std::vector<IUpdaterItem*> m_items;
    std::vector<IUpdaterItem*> m_readers;
    // The entries of the running cycle; removed entries are nulled so that they are skipped.
    std::vector<IUpdaterItem*> m_snapshot;
    IUpdaterItem* m_current = nullptr;
    // Signalled when the call of m_current returns; removers wait for it.
    std::condition_variable m_callDone;

    // Guards the counter's changes and running; signalled at the end of each cycle, when the
    // thread ends, and when a stop is requested (which also ends the thread's sleep).
    std::mutex m_cycleMutex;
    std::condition_variable m_cycleDone;
    // Odd while a cycle runs.
    std::atomic<uint32_t> m_updateCounter{0};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_stopping{false};
    // Set once the thread was given up; nobody may wait for it after that.
    std::atomic<bool> m_detached{false};
    // Set once the thread's own engine is set up (or given up).

    // Serialises the first Start with the first Stop.
    std::mutex m_lifecycleMutex;
    std::thread m_thread;
    std::atomic<uint32_t> m_threadId{0};
};

}  // namespace Tracing
