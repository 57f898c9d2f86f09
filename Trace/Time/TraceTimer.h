// Timestamps of trace entries, and their texts.
//
// A timestamp counts 100 ns units since 1970-01-01 00:00:00 UTC (in SEQ_ID mode it is a sequence
// number that the ring assigns). FAST timestamps are computed from a millisecond tick and a time
// reference that all processes share through the registry block, so that cheap timestamps taken in
// different processes agree; PRECISE and OPTIMAL read the precise system clock. The shared reference
// is renewed by whichever process first finds it older than the resynchronisation period. A process
// without a registry block keeps a reference of its own, so that its FAST timestamps stay right.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>

#include "Trace/Time/TimestampMode.h"
#include "Trace/Time/TraceTimeReference.h"
#include "platform/Clock.h"

namespace Tracing {

class TraceTimer {
public:
    // A reference time of 0 has never been synchronised.
    static constexpr uint64_t ReferenceNotSet = 0;
    // Milliseconds; the period a new registry block starts with.
    static constexpr unsigned DefaultResyncPeriod = 10000;
    // Timestamp units per millisecond.
    static constexpr uint64_t MSecMultiplicator = 10000;

    static TraceTimer& GetInstance();

    // FAST: tick-based; PRECISE and OPTIMAL: precise clock; any other mode: 0.
    uint64_t GetTimestamp(TimestampMode::Type mode) {
        if (mode == TimestampMode::FAST)
            return GetFastTimestamp();
        if (mode == TimestampMode::PRECISE || mode == TimestampMode::OPTIMAL)
            return GetPreciseTimestamp();
        return 0;
    }

    // The shared resynchronisation period in milliseconds.
    static unsigned GetResynchronizationPeriod();
    static void SetResynchronizationPeriod(unsigned periodMs);

    // Takes a new shared reference (wall clock, tick and counter read together).
    static void Synchronize();

    // Date and time in local time; mode 1 prints the number, mode 2 milliseconds, others microseconds
    // (OPTIMAL at the resolution chosen by SetTimestampOptimalFormat).
    static void Format(uint64_t timestamp, std::string& text, TimestampMode::Type mode);
    // Time of day only; OPTIMAL always prints microseconds here.
    static void FormatTime(uint64_t timestamp, std::string& text, TimestampMode::Type mode);
    // A duration in timestamp units; hours do not wrap at 24.
    static void FormatDiff(uint64_t difference, std::string& text);
    // Reads a text of Format back: a date gives FAST (up to 3 fraction digits) or PRECISE, a plain
    // number gives SEQ_ID; anything else gives 0 and mode NotSet.
    static uint64_t Parse(const char* text, TimestampMode::Type& mode);
    static uint64_t Parse(const std::string& text, TimestampMode::Type& mode);

    // The resolution used to print OPTIMAL timestamps; OPTIMAL itself is ignored.
    static void SetTimestampOptimalFormat(TimestampMode::Type mode);

    // Local broken-down time and the two sub-second parts; false when the time cannot be represented.
    static bool Timestamp2Tm(uint64_t timestamp, std::tm& time, int& milliseconds, int& microseconds);

    TraceTimer(const TraceTimer&) = delete;
    TraceTimer& operator=(const TraceTimer&) = delete;

private:
    friend class TraceRegistry;

    TraceTimer();

    // The registry hands over the shared reference of its block (kept as long as the process
    // runs); null makes the timer use a reference of its own (this process has no registry).
    void BindReference(const TraceTimeReference* reference);
    ~TraceTimer() = delete;

    uint64_t GetFastTimestamp() { return FastTimestamp(*m_reference.load(std::memory_order_acquire)); }

    uint64_t GetPreciseTimestamp() {
        if (m_hasPreciseClock) [[likely]]
            return Platform::PreciseWallClock();
        return GetCounterTimestamp();
    }

    uint64_t FastTimestamp(const TraceTimeReference& block) {
        uint64_t time = 0;
        uint64_t tick = 0;
        int64_t counter = 0;
        block.Get(time, tick, counter);
        const unsigned period = block.GetResynchronizationPeriod();
        // The tick is read after the reference, so that a reference renewed by another process
        // just before never looks newer than now (which would count as stale and renew it again).
        const uint32_t now = Platform::TickMs();
        const int64_t elapsed = static_cast<int64_t>(now) - static_cast<int64_t>(tick);
        if (elapsed >= 0 && tick + period > now && time != ReferenceNotSet) [[likely]]
            return time + static_cast<uint64_t>(elapsed) * MSecMultiplicator;
        return RenewAndGetFastTimestamp(block, time);
    }

    [[gnu::cold]] uint64_t RenewAndGetFastTimestamp(const TraceTimeReference& block, uint64_t staleTime);
    [[gnu::cold]] uint64_t GetCounterTimestamp();
    const TraceTimeReference& CurrentBlock();
    // Writes a reference from fresh clock reads while holding the block's update indicator; nothing
    // when another writer holds it, or when staleTime is given and the reference has moved on from
    // it (someone else renewed it first).
    void WriteReference(const TraceTimeReference& block, const uint64_t* staleTime) const;

    // The registry's reference once the registry binds it, the local one until then.
    std::atomic<const TraceTimeReference*> m_reference{nullptr};
    // Stands in for the registry's reference when this process has none.
    struct LocalFields {
        uint32_t updateIndicator = 0;
        uint64_t first[2] = {};
        uint64_t second[2] = {};
        int64_t third[2] = {};
        uint32_t slot = 0;
        uint32_t resyncPeriod = DefaultResyncPeriod;
    } m_localFields;
    TraceTimeReference m_localReference{{&m_localFields.updateIndicator, m_localFields.first,
                                         m_localFields.second, m_localFields.third, &m_localFields.slot,
                                         &m_localFields.resyncPeriod}};
    // The precise system clock and the performance counter, as found when the timer was made.
    bool m_hasPreciseClock = true;
    bool m_hasCounter = false;
    int64_t m_frequency = 0;
};

}  // namespace Tracing
