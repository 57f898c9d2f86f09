#include "platform/TextConversion.h"

#include <cstdint>

namespace Tracing::Platform {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

bool IsScalar(char32_t c) {
    return c < 0x110000 && (c < 0xD800 || c > 0xDFFF);
}

// Decodes one code point at text[i], advancing i; malformed input gives U+FFFD and moves on.
char32_t DecodeUtf8(const unsigned char* text, std::size_t length, std::size_t& i) {
    const unsigned char lead = text[i++];
    if (lead < 0x80)
        return lead;
    int extra;
    char32_t c;
    if ((lead & 0xE0) == 0xC0) {
        extra = 1;
        c = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        extra = 2;
        c = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        extra = 3;
        c = lead & 0x07;
    } else {
        return kReplacement;
    }
    for (int k = 0; k < extra; ++k) {
        if (i >= length || (text[i] & 0xC0) != 0x80)
            return kReplacement;
        c = (c << 6) | (text[i++] & 0x3F);
    }
    static constexpr char32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
    if (c < kMinimum[extra] || !IsScalar(c))
        return kReplacement;
    return c;
}

void AppendUtf16(std::u16string& out, char32_t c) {
    if (c < 0x10000) {
        out += static_cast<char16_t>(c);
    } else {
        c -= 0x10000;
        out += static_cast<char16_t>(0xD800 + (c >> 10));
        out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    }
}

}  // namespace

std::string Utf16ToUtf8(const char16_t* text, std::size_t length) {
    std::string out;
    out.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < length && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = kReplacement;
        }
        AppendUtf8(out, c);
    }
    return out;
}

std::u16string Utf8ToUtf16(const char* text, std::size_t length) {
    std::u16string out;
    out.reserve(length);
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    for (std::size_t i = 0; i < length;)
        AppendUtf16(out, DecodeUtf8(bytes, length, i));
    return out;
}

std::string WideToUtf8(const wchar_t* text, std::size_t length) {
    std::string out;
    out.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
        const char32_t c = static_cast<char32_t>(text[i]);
        AppendUtf8(out, IsScalar(c) ? c : kReplacement);
    }
    return out;
}

std::wstring Utf8ToWide(const char* text, std::size_t length) {
    std::wstring out;
    out.reserve(length);
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    for (std::size_t i = 0; i < length;)
        out += static_cast<wchar_t>(DecodeUtf8(bytes, length, i));
    return out;
}

}  // namespace Tracing::Platform
