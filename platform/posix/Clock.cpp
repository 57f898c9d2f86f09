#include "platform/Clock.h"

#include <time.h>

namespace Tracing::Platform {
namespace {

uint64_t ToTimestamp(const timespec& ts) {
    return static_cast<uint64_t>(ts.tv_sec) * 10000000ULL + static_cast<uint64_t>(ts.tv_nsec) / 100U;
}

}  // namespace

uint64_t PreciseWallClock() {
    timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return ToTimestamp(ts);
}

uint64_t WallClock() {
    timespec ts;
    ::clock_gettime(CLOCK_REALTIME_COARSE, &ts);
    return ToTimestamp(ts);
}

uint32_t TickMs() {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    // Wraps at 2^32 like the Windows tick count.
    return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000U +
                                 static_cast<uint64_t>(ts.tv_nsec) / 1000000U);
}

int64_t PerformanceCounter() {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int64_t PerformanceFrequency() {
    return 1000000000LL;
}

bool LocalTime(int64_t seconds, std::tm& out) {
    const time_t t = static_cast<time_t>(seconds);
    return ::localtime_r(&t, &out) != nullptr;
}

int64_t MakeLocalTime(std::tm& time) {
    time.tm_isdst = -1;
    const time_t t = ::mktime(&time);
    return t == static_cast<time_t>(-1) ? -1 : static_cast<int64_t>(t);
}

}  // namespace Tracing::Platform
