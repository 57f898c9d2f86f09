#include "tools/ToolOs.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace Tracing::Tool {

void SleepUnlessStopped(unsigned milliseconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!StopRequested() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(milliseconds, 20u)));
    }
}

}  // namespace Tracing::Tool
