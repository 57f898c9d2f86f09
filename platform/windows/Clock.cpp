#include "platform/Clock.h"

#include <windows.h>

#include <ctime>

namespace Tracing::Platform {
namespace {

// 100 ns units from 1601-01-01 to 1970-01-01.
constexpr uint64_t kEpochDifference = 116444736000000000ULL;

uint64_t ToTimestamp(const FILETIME& time) {
    const uint64_t value = (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    return value - kEpochDifference;
}

using PreciseTimeFunction = VOID(WINAPI*)(LPFILETIME);

// Absent before Windows 8: looked up at run time so that the library still loads there.
PreciseTimeFunction PreciseTime() {
    static const PreciseTimeFunction function = [] {
        HMODULE kernel = ::GetModuleHandleW(L"kernel32");
        return kernel != nullptr ? reinterpret_cast<PreciseTimeFunction>(reinterpret_cast<void (*)()>(
                                       ::GetProcAddress(kernel, "GetSystemTimePreciseAsFileTime")))
                                 : nullptr;
    }();
    return function;
}

}  // namespace

uint64_t PreciseWallClock() {
    FILETIME time;
    if (PreciseTimeFunction precise = PreciseTime())
        precise(&time);
    else
        ::GetSystemTimeAsFileTime(&time);
    return ToTimestamp(time);
}

uint64_t WallClock() {
    FILETIME time;
    ::GetSystemTimeAsFileTime(&time);
    return ToTimestamp(time);
}

uint32_t TickMs() {
    return ::timeGetTime();
}

int64_t PerformanceCounter() {
    LARGE_INTEGER counter;
    ::QueryPerformanceCounter(&counter);
    return counter.QuadPart;
}

int64_t PerformanceFrequency() {
    static const int64_t frequency = [] {
        LARGE_INTEGER value;
        return ::QueryPerformanceFrequency(&value) ? value.QuadPart : 0;
    }();
    return frequency;
}

bool LocalTime(int64_t seconds, std::tm& out) {
    const __time64_t t = static_cast<__time64_t>(seconds);
    return ::_localtime64_s(&out, &t) == 0;
}

int64_t MakeLocalTime(std::tm& time) {
    time.tm_isdst = -1;
    const __time64_t t = ::_mktime64(&time);
    return t == static_cast<__time64_t>(-1) ? -1 : static_cast<int64_t>(t);
}

}  // namespace Tracing::Platform
