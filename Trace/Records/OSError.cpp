#include "Trace/Records/OSError.h"

#include "platform/SystemError.h"

namespace Tracing::Internal {

int GetOSError() {
    return Platform::LastError();
}

std::string GetOSErrorText(int code) {
    std::string text = Platform::ErrorText(code);
    while (!text.empty() && static_cast<unsigned char>(text.back()) <= 32)
        text.pop_back();
    return text;
}

}  // namespace Tracing::Internal
