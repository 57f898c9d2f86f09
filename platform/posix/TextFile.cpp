#include "platform/TextFile.h"

#include <fstream>
#include <sstream>

namespace Tracing::Platform {

bool ReadWholeFile(const std::string& utf8Path, std::string& content) {
    std::ifstream file(utf8Path, std::ios::in | std::ios::binary);
    if (!file)
        return false;
    std::ostringstream text;
    text << file.rdbuf();
    if (file.bad())
        return false;
    content = text.str();
    return true;
}

}  // namespace Tracing::Platform
