// The path of the running executable.
#pragma once

#include <string>

namespace Tracing::Platform {

// Separator of path components ('\' on Windows, '/' elsewhere).
#ifdef _WIN32
inline constexpr char PathSeparator = '\\';
#else
inline constexpr char PathSeparator = '/';
#endif

// Full path of the executable in UTF-8; empty when it cannot be determined.
std::string ExecutableFilePath();

}  // namespace Tracing::Platform
