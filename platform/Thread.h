// Threads: the current thread's ID, yielding and sleeping.
//
// Contract: CurrentThreadId is cheap enough for the write path (no system call after the first
// call on a thread). SleepMs sleeps at least the given milliseconds.
#pragma once

#include <cstdint>

namespace Tracing::Platform {

namespace Detail {
uint32_t QueryCurrentThreadId();
}

// The calling thread's ID, as the operating system numbers it.
inline uint32_t CurrentThreadId() {
    thread_local const uint32_t id = Detail::QueryCurrentThreadId();
    return id;
}

void YieldThread();
void SleepMs(unsigned milliseconds);

}  // namespace Tracing::Platform
