// Reading a whole file named by a UTF-8 path.
#pragma once

#include <string>

namespace Tracing::Platform {

// The file's bytes as they are; false (content untouched) when it cannot be opened or read. Paths
// with any characters work, also where the OS's narrow file names are not UTF-8.
bool ReadWholeFile(const std::string& utf8Path, std::string& content);

}  // namespace Tracing::Platform
