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

// Every trace asks for it: the initial-exec model makes the cached ID one load at a fixed offset
// from the thread pointer instead of a call into the dynamic linker.
#if defined(__ELF__)
#define PAXLTRACE_FAST_TLS [[gnu::tls_model("initial-exec")]]
#else
#define PAXLTRACE_FAST_TLS
#endif

// The calling thread's ID, as the operating system numbers it (never 0).
inline uint32_t CurrentThreadId() {
    PAXLTRACE_FAST_TLS static thread_local uint32_t id = 0;
    if (id == 0) [[unlikely]]
        id = Detail::QueryCurrentThreadId();
    return id;
}

void YieldThread();
void SleepMs(unsigned milliseconds);

}  // namespace Tracing::Platform
