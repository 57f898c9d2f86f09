#include "Trace/Time/TraceTimer.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace Tracing {
namespace {

constexpr uint64_t UnitsPerSecond = 10000000;

// Resolution of OPTIMAL timestamps in Format; PRECISE until someone chooses otherwise.
std::atomic<uint32_t> optimalFormatMode{TimestampMode::PRECISE};

// counter ticks -> 100 ns units without overflowing for long intervals.
int64_t CounterToUnits(int64_t ticks, int64_t frequency) {
    return ticks / frequency * static_cast<int64_t>(UnitsPerSecond) +
           ticks % frequency * static_cast<int64_t>(UnitsPerSecond) / frequency;
}

void FormatNumber(uint64_t value, std::string& text) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%" PRIu64, value);
    text = buffer;
}

}  // namespace

TraceTimer& TraceTimer::GetInstance() {
    // Never destroyed: other objects' destructors may still take timestamps at exit.
    static TraceTimer* const instance = new TraceTimer();
    return *instance;
}

TraceTimer::TraceTimer() {
    m_reference.store(&m_localReference, std::memory_order_release);
    // The precise system clock exists on every system this library supports; the counter path
    // stays for systems without it.
    m_hasPreciseClock = true;
    m_frequency = Platform::PerformanceFrequency();
    m_hasCounter = m_frequency > 0;
}

void TraceTimer::BindReference(const TraceTimeReference* reference) {
    m_reference.store(reference != nullptr ? reference : &m_localReference, std::memory_order_release);
}

const TraceTimeReference& TraceTimer::CurrentBlock() {
    return *m_reference.load(std::memory_order_acquire);
}

void TraceTimer::WriteReference(const TraceTimeReference& block, const uint64_t* staleTime) const {
    std::atomic_ref<uint32_t> indicator = block.GetUpdateIndicator();
    uint32_t idle = 0;
    if (!indicator.compare_exchange_strong(idle, 1, std::memory_order_seq_cst))
        return;
    uint64_t time = 0;
    uint64_t tick = 0;
    int64_t counter = 0;
    block.Get(time, tick, counter);
    if (staleTime == nullptr || time == *staleTime) {
        // The precise clock rather than a coarse one: every FAST timestamp inherits this error.
        time = Platform::PreciseWallClock();
        counter = m_hasCounter ? Platform::PerformanceCounter() : 0;
        tick = Platform::TickMs();
        block.Set(time, tick, counter);
    }
    indicator.store(0, std::memory_order_seq_cst);
}

uint64_t TraceTimer::RenewAndGetFastTimestamp(const TraceTimeReference& block, uint64_t staleTime) {
    WriteReference(block, &staleTime);
    uint64_t time = 0;
    uint64_t tick = 0;
    int64_t counter = 0;
    block.Get(time, tick, counter);
    // Another process is still writing the very first reference.
    if (time == ReferenceNotSet)
        return Platform::PreciseWallClock();
    const int64_t elapsed = static_cast<int64_t>(Platform::TickMs()) - static_cast<int64_t>(tick);
    return elapsed > 0 ? time + static_cast<uint64_t>(elapsed) * MSecMultiplicator : time;
}

uint64_t TraceTimer::GetCounterTimestamp() {
    if (!m_hasCounter)
        return GetFastTimestamp();
    const TraceTimeReference& block = CurrentBlock();
    uint64_t time = 0;
    uint64_t tick = 0;
    int64_t reference = 0;
    block.Get(time, tick, reference);
    int64_t elapsed = CounterToUnits(Platform::PerformanceCounter() - reference, m_frequency);
    // Truncated to 32 bits on purpose: periods above 2^32 / 10000 ms wrap like everywhere else.
    const int64_t limit = static_cast<uint32_t>(block.GetResynchronizationPeriod() * MSecMultiplicator);
    if (elapsed > limit || time == ReferenceNotSet) {
        WriteReference(block, &time);
        block.Get(time, tick, reference);
        if (time == ReferenceNotSet)
            return Platform::PreciseWallClock();
        elapsed = CounterToUnits(Platform::PerformanceCounter() - reference, m_frequency);
    }
    return time + static_cast<uint64_t>(elapsed);
}

unsigned TraceTimer::GetResynchronizationPeriod() {
    return GetInstance().CurrentBlock().GetResynchronizationPeriod();
}

void TraceTimer::SetResynchronizationPeriod(unsigned periodMs) {
    GetInstance().CurrentBlock().SetResynchronizationPeriod(periodMs);
}

void TraceTimer::Synchronize() {
    TraceTimer& timer = GetInstance();
    timer.WriteReference(timer.CurrentBlock(), nullptr);
}

bool TraceTimer::Timestamp2Tm(uint64_t timestamp, std::tm& time, int& milliseconds, int& microseconds) {
    milliseconds = static_cast<int>(timestamp / MSecMultiplicator % 1000);
    microseconds = static_cast<int>(timestamp / 10 % 1000);
    time = std::tm{};
    return Platform::LocalTime(static_cast<int64_t>(timestamp / UnitsPerSecond), time);
}

void TraceTimer::Format(uint64_t timestamp, std::string& text, TimestampMode::Type mode) {
    if (mode == TimestampMode::SEQ_ID) {
        FormatNumber(timestamp, text);
        return;
    }
    // A reader formats many timestamps of the same second: the date and time up to the second
    // are converted once per second and thread, only the fraction each time.
    struct SecondText {
        uint64_t second = UINT64_MAX;
        char text[24];
        std::size_t length = 0;
    };
    thread_local SecondText cached;
    const uint64_t second = timestamp / UnitsPerSecond;
    if (second != cached.second) {
        std::tm time;
        int milliseconds = 0;
        int microseconds = 0;
        // A time the system cannot convert is shown as the raw number rather than as a made-up date.
        if (!Timestamp2Tm(timestamp, time, milliseconds, microseconds)) {
            FormatNumber(timestamp, text);
            return;
        }
        const int length = std::snprintf(cached.text, sizeof cached.text, "%04d.%02d.%02d %02d:%02d:%02d.",
                                         time.tm_year + 1900, time.tm_mon + 1, time.tm_mday, time.tm_hour,
                                         time.tm_min, time.tm_sec);
        if (length <= 0 || static_cast<std::size_t>(length) >= sizeof cached.text) {
            FormatNumber(timestamp, text);
            return;
        }
        cached.length = static_cast<std::size_t>(length);
        cached.second = second;
    }
    const uint32_t effective =
        mode == TimestampMode::OPTIMAL ? optimalFormatMode.load(std::memory_order_relaxed) : mode;
    // Milliseconds, then microseconds unless FAST.
    const unsigned fraction = static_cast<unsigned>(timestamp % UnitsPerSecond / 10);
    const unsigned digits = effective == TimestampMode::FAST ? 3 : 6;
    char buffer[32];
    std::memcpy(buffer, cached.text, cached.length);
    unsigned value = effective == TimestampMode::FAST ? fraction / 1000 : fraction;
    for (unsigned i = digits; i-- != 0; value /= 10)
        buffer[cached.length + i] = static_cast<char>('0' + value % 10);
    text.assign(buffer, cached.length + digits);
}

void TraceTimer::FormatTime(uint64_t timestamp, std::string& text, TimestampMode::Type mode) {
    std::tm time;
    int milliseconds = 0;
    int microseconds = 0;
    if (mode == TimestampMode::SEQ_ID || !Timestamp2Tm(timestamp, time, milliseconds, microseconds)) {
        FormatNumber(timestamp, text);
        return;
    }
    // OPTIMAL is deliberately not resolved here: time-of-day texts always show microseconds.
    char buffer[64];
    if (mode == TimestampMode::FAST) {
        std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d.%03d", time.tm_hour, time.tm_min, time.tm_sec,
                      milliseconds);
    } else {
        std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d.%03d%03d", time.tm_hour, time.tm_min,
                      time.tm_sec, milliseconds, microseconds);
    }
    text = buffer;
}

void TraceTimer::FormatDiff(uint64_t difference, std::string& text) {
    const uint64_t hours = difference / 36000000000ULL;
    const uint64_t minutes = difference / 600000000ULL - hours * 60;
    const uint64_t seconds = difference / UnitsPerSecond - (difference / 600000000ULL) * 60;
    const uint64_t milliseconds = difference / MSecMultiplicator % 1000;
    const uint64_t microseconds = difference / 10 % 1000;
    char buffer[24];
    if (microseconds != 0) {
        std::snprintf(buffer, sizeof buffer, "%02u:%02u:%02u.%03u%03u", static_cast<unsigned>(hours),
                      static_cast<unsigned>(minutes), static_cast<unsigned>(seconds),
                      static_cast<unsigned>(milliseconds), static_cast<unsigned>(microseconds));
    } else {
        std::snprintf(buffer, sizeof buffer, "%02u:%02u:%02u.%03u", static_cast<unsigned>(hours),
                      static_cast<unsigned>(minutes), static_cast<unsigned>(seconds),
                      static_cast<unsigned>(milliseconds));
    }
    text = buffer;
}

uint64_t TraceTimer::Parse(const char* text, TimestampMode::Type& mode) {
    mode = TimestampMode::NotSet;
    if (text == nullptr)
        return 0;
    const size_t length = std::strlen(text);

    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    unsigned fraction = 0;
    int fractionStart = -1;
    int end = -1;
    const int fields = std::sscanf(text, "%4d.%2d.%2d %2d:%2d:%2d.%n%u%n", &year, &month, &day, &hour,
                                   &minute, &second, &fractionStart, &fraction, &end);
    const int digits = end - fractionStart;
    if (fields == 7 && fractionStart >= 0 && end >= 0 && static_cast<size_t>(end) == length && digits <= 7) {
        // A file holds many timestamps of one second, and each conversion asks the system for the
        // time zone: convert once per second and thread.
        struct SecondValue {
            int key[6] = {-1, -1, -1, -1, -1, -1};
            int64_t seconds = 0;
        };
        thread_local SecondValue cached;
        const int key[6] = {year, month, day, hour, minute, second};
        if (std::memcmp(key, cached.key, sizeof key) != 0) {
            std::tm time{};
            time.tm_year = year - 1900;
            time.tm_mon = month - 1;
            time.tm_mday = day;
            time.tm_hour = hour;
            time.tm_min = minute;
            time.tm_sec = second;
            cached.seconds = Platform::MakeLocalTime(time);
            std::memcpy(cached.key, key, sizeof key);
        }
        const int64_t seconds = cached.seconds;
        // Times before 1970 are refused like the failures: a timestamp cannot hold them.
        if (seconds < 0)
            return 0;
        uint64_t units = fraction;
        for (int i = digits; i < 7; ++i)
            units *= 10;
        mode = digits < 4 ? TimestampMode::FAST : TimestampMode::PRECISE;
        return static_cast<uint64_t>(seconds) * UnitsPerSecond + units;
    }

    unsigned long long number = 0;
    end = -1;
    if (std::sscanf(text, "%llu%n", &number, &end) == 1 && end >= 0 && static_cast<size_t>(end) == length) {
        mode = TimestampMode::SEQ_ID;
        return number;
    }
    return 0;
}

uint64_t TraceTimer::Parse(const std::string& text, TimestampMode::Type& mode) {
    // An embedded zero would end the scan early; the whole text must be consumed.
    if (text.find('\0') != std::string::npos) {
        mode = TimestampMode::NotSet;
        return 0;
    }
    return Parse(text.c_str(), mode);
}

void TraceTimer::SetTimestampOptimalFormat(TimestampMode::Type mode) {
    if (mode != TimestampMode::OPTIMAL)
        optimalFormatMode.store(mode, std::memory_order_relaxed);
}

}  // namespace Tracing
