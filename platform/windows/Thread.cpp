#include "platform/Thread.h"

#include <windows.h>

namespace Tracing::Platform {

namespace Detail {
uint32_t QueryCurrentThreadId() {
    return static_cast<uint32_t>(::GetCurrentThreadId());
}
}  // namespace Detail

void YieldThread() {
    ::SwitchToThread();
}

void SleepMs(unsigned milliseconds) {
    ::Sleep(milliseconds);
}

}  // namespace Tracing::Platform
