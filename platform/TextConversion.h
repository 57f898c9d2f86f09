// Conversions between UTF-8, UTF-16 and the platform's wchar_t (UTF-16 on Windows, UTF-32 on
// POSIX). Invalid input is replaced by U+FFFD; nothing throws.
#pragma once

#include <cstddef>
#include <string>

namespace Tracing::Platform {

std::string Utf16ToUtf8(const char16_t* text, std::size_t length);
std::u16string Utf8ToUtf16(const char* text, std::size_t length);
std::string WideToUtf8(const wchar_t* text, std::size_t length);
std::wstring Utf8ToWide(const char* text, std::size_t length);

}  // namespace Tracing::Platform
