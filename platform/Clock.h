// Clocks and local time.
//
// Timestamps are unsigned 64-bit counts of 100 ns units since 1970-01-01 00:00:00 UTC.
// Contract: PreciseWallClock is the precise system time (sub-microsecond); WallClock may be
// coarser. TickMs is a millisecond tick that wraps at 2^32 like the Windows tick count.
// PerformanceCounter is monotonic, in units of PerformanceFrequency per second.
#pragma once

#include <cstdint>
#include <ctime>

namespace Tracing::Platform {

uint64_t PreciseWallClock();
uint64_t WallClock();
uint32_t TickMs();
int64_t PerformanceCounter();
int64_t PerformanceFrequency();

// Broken-down local time of seconds since 1970; false when the time cannot be represented.
bool LocalTime(int64_t seconds, std::tm& out);
// Seconds since 1970 of a broken-down local time (tm_isdst is decided by the system); -1 on failure.
int64_t MakeLocalTime(std::tm& time);

}  // namespace Tracing::Platform
