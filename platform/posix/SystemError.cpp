#include "platform/SystemError.h"

#include <cerrno>
#include <cstring>

namespace Tracing::Platform {

int LastError() {
    return errno;
}

std::string ErrorText(int code) {
    char buffer[256];
    buffer[0] = '\0';
    // The GNU strerror_r returns its text, which may or may not live in the buffer.
    const char* text = ::strerror_r(code, buffer, sizeof buffer);
    if (text == nullptr)
        return {};
    std::string result(text);
    // glibc invents "Unknown error N" for codes it has no text for: that is no system text.
    if (result.rfind("Unknown error", 0) == 0)
        return {};
    while (!result.empty() && static_cast<unsigned char>(result.back()) <= 32)
        result.pop_back();
    return result;
}

}  // namespace Tracing::Platform
