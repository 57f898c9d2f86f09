#include "platform/ExecutablePath.h"

#include <unistd.h>

#include <vector>

namespace Tracing::Platform {

std::string ExecutableFilePath() {
    std::vector<char> buffer(4096);
    const ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (length <= 0 || static_cast<size_t>(length) >= buffer.size())
        return {};
    return std::string(buffer.data(), static_cast<size_t>(length));
}

}  // namespace Tracing::Platform
