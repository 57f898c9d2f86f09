// Names of system objects as single file names below a directory (internal to the POSIX layer).
#pragma once

#include <string>
#include <string_view>

namespace Tracing::Platform::Posix {

// Where shared memory and creation guards live unless told otherwise (glibc's shm_open uses it too).
inline constexpr const char* SharedMemoryDirectory = "/dev/shm";

// One path component for a name: '%', '/' and '\' are written as %25, %2F and %5C, so that
// distinct names stay distinct and none can leave the directory.
inline std::string EscapeObjectName(std::string_view name) {
    std::string result;
    result.reserve(name.size());
    for (char c : name) {
        switch (c) {
            case '%':
                result += "%25";
                break;
            case '/':
                result += "%2F";
                break;
            case '\\':
                result += "%5C";
                break;
            default:
                result += c;
        }
    }
    return result;
}

}  // namespace Tracing::Platform::Posix
