#include "platform/ExecutablePath.h"

#include <windows.h>

#include <vector>

#include "platform/TextConversion.h"

namespace Tracing::Platform {

std::string ExecutableFilePath() {
    // Long enough for any path the system allows (\\?\ paths included).
    constexpr DWORD kCapacity = 65535;
    std::vector<wchar_t> buffer(kCapacity);
    const DWORD length = ::GetModuleFileNameW(nullptr, buffer.data(), kCapacity);
    if (length == 0 || length >= kCapacity)
        return {};
    return WideToUtf8(buffer.data(), length);
}

}  // namespace Tracing::Platform
