#include "platform/TextFile.h"

#include <cstdio>
#include <utility>

#include "platform/TextConversion.h"

namespace Tracing::Platform {

bool ReadWholeFile(const std::string& utf8Path, std::string& content) {
    // A narrow name would go through the ANSI code page, which mangles UTF-8 paths.
    const std::wstring path = Utf8ToWide(utf8Path.c_str(), utf8Path.size());
    FILE* file = ::_wfopen(path.c_str(), L"rb");
    if (file == nullptr)
        return false;
    std::string text;
    char chunk[4096];
    size_t read = 0;
    while ((read = std::fread(chunk, 1, sizeof chunk, file)) > 0)
        text.append(chunk, read);
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed)
        return false;
    content = std::move(text);
    return true;
}

}  // namespace Tracing::Platform
