#include "platform/Thread.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace Tracing::Platform {

namespace Detail {
uint32_t QueryCurrentThreadId() {
    return static_cast<uint32_t>(::syscall(SYS_gettid));
}
}  // namespace Detail

void YieldThread() {
    ::sched_yield();
}

void SleepMs(unsigned milliseconds) {
    timespec request{static_cast<time_t>(milliseconds / 1000),
                     static_cast<long>(milliseconds % 1000) * 1000000L};
    while (::nanosleep(&request, &request) != 0 && errno == EINTR) {
    }
}

}  // namespace Tracing::Platform
