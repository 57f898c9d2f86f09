#include "platform/TextConversion.h"

#include <windows.h>

#include <climits>

namespace Tracing::Platform {
namespace {

// Flags 0: invalid input becomes U+FFFD instead of failing the call.
std::string ToUtf8(const wchar_t* text, std::size_t length) {
    if (length == 0 || length > INT_MAX)
        return {};
    const int size =
        ::WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), nullptr, 0, nullptr, nullptr);
    if (size <= 0)
        return {};
    std::string out(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), out.data(), size, nullptr, nullptr);
    return out;
}

std::wstring FromUtf8(const char* text, std::size_t length) {
    if (length == 0 || length > INT_MAX)
        return {};
    const int size = ::MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(length), nullptr, 0);
    if (size <= 0)
        return {};
    std::wstring out(static_cast<std::size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(length), out.data(), size);
    return out;
}

}  // namespace

static_assert(sizeof(wchar_t) == sizeof(char16_t), "wchar_t is UTF-16 on Windows");

std::string Utf16ToUtf8(const char16_t* text, std::size_t length) {
    return ToUtf8(reinterpret_cast<const wchar_t*>(text), length);
}

std::u16string Utf8ToUtf16(const char* text, std::size_t length) {
    const std::wstring wide = FromUtf8(text, length);
    return std::u16string(reinterpret_cast<const char16_t*>(wide.data()), wide.size());
}

std::string WideToUtf8(const wchar_t* text, std::size_t length) {
    return ToUtf8(text, length);
}

std::wstring Utf8ToWide(const char* text, std::size_t length) {
    return FromUtf8(text, length);
}

}  // namespace Tracing::Platform
