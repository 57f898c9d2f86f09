#include "platform/SystemError.h"

#include <windows.h>

#include "platform/TextConversion.h"

namespace Tracing::Platform {

int LastError() {
    return static_cast<int>(::GetLastError());
}

std::string ErrorText(int code) {
    constexpr DWORD kCapacity = 256;
    wchar_t buffer[kCapacity];
    DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                    static_cast<DWORD>(code), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                                    buffer, kCapacity, nullptr);
    // A text that fills the buffer may be cut off: better none than half of one.
    if (length == 0 || length >= kCapacity)
        return {};
    while (length > 0 && buffer[length - 1] <= 32)
        --length;
    return WideToUtf8(buffer, length);
}

}  // namespace Tracing::Platform
