#include "Trace/Records/TraceParameter.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Trace/Records/CsvField.h"
#include "Trace/Records/TraceIDTextMap.h"
#include "platform/TextConversion.h"

namespace Tracing {
namespace {

constexpr const char kNullText[] = "<NULL>";
constexpr const char16_t kNullWideText[] = u"<NULL>";
// Room for the longest number text and its terminator.
constexpr std::size_t kNumberBufferSize = TraceParameter::MaxNumberTextLength + 1;

bool IsNarrowString(uint16_t type) {
    return type == ParameterTypes::String || type == ParameterTypes::StringRef;
}

bool IsWideString(uint16_t type) {
    return type == ParameterTypes::WideString || type == ParameterTypes::WideStringRef;
}

bool IsReference(uint16_t type) {
    return type == ParameterTypes::StringRef || type == ParameterTypes::WideStringRef;
}

// Size of the fixed-size types; 0 for the others.
unsigned FixedSize(uint16_t type) {
    switch (type) {
        case ParameterTypes::Int32:
        case ParameterTypes::UInt32:
        case ParameterTypes::Float:
            return 4;
        case ParameterTypes::Int64:
        case ParameterTypes::UInt64:
        case ParameterTypes::Double:
            return 8;
        case ParameterTypes::Bool:
            return 1;
        default:
            return 0;
    }
}

void ClearDataWord(::TraceParameter& raw) {
    std::memset(&raw.data, 0, sizeof(raw.data));
}

// Wide data may sit at an odd address, and Utf16ToUtf8 reads char16_t: copy it aligned first.
void AppendWide(std::string& out, const void* data, std::size_t units) {
    if (units == 0)
        return;
    std::u16string aligned(units, u'\0');
    std::memcpy(aligned.data(), data, units * sizeof(char16_t));
    out += Platform::Utf16ToUtf8(aligned.data(), units);
}

// UTF-16 units before the terminator within maxBytes bytes; maxBytes / 2 when there is none.
std::size_t BoundedWideLength(const unsigned char* p, std::size_t maxBytes) {
    std::size_t i = 0;
    for (; i + 1 < maxBytes; i += 2) {
        if (p[i] == 0 && p[i + 1] == 0)
            break;
    }
    return i / 2;
}

void CopyTruncated(const char* text, std::size_t length, char* buffer, std::size_t size) {
    if (size == 0)
        return;
    if (length >= size)
        length = size - 1;
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// The value class

TraceParameter& TraceParameter::operator=(const TraceParameter& other) {
    if (this != &other) {
        Clear(m_raw);
        Copy(m_raw, other.m_raw);
    }
    return *this;
}

TraceParameter& TraceParameter::operator=(TraceParameter&& other) noexcept {
    if (this != &other) {
        Clear(m_raw);
        m_raw = other.m_raw;
        other.m_raw = {};
    }
    return *this;
}

// ---------------------------------------------------------------------------------------------
// Raw records

void TraceParameter::Init(::TraceParameter& raw, ParameterTypes::Values type, const void* data) {
    if (data == nullptr) {
        if (IsNarrowString(type))
            data = kNullText;
        else if (IsWideString(type))
            data = kNullWideText;
    }
    const uint64_t size = GetParameterSize(type, data);
    if (size > UINT32_MAX) [[unlikely]] {
        raw = {};
        SetToTooLong(raw);
        return;
    }
    InitWithSize(raw, type, data, static_cast<uint32_t>(size));
}

void TraceParameter::InitWithSize(::TraceParameter& raw, ParameterTypes::Values type, const void* data,
                                  uint32_t size) {
    raw.type = type;
    raw.owned = 0;
    raw.reserved = 0;
    raw.size = size;
    SetData(raw, data);
}

void TraceParameter::SetData(::TraceParameter& raw, const void* data) {
    raw.owned = 0;
    ClearDataWord(raw);
    const uint32_t size = raw.size;
    if (size == 0)
        return;
    if (size <= BufferSize) {
        if (data != nullptr)
            std::memcpy(raw.data.bytes, data, size);
        return;
    }
    if (IsReference(raw.type)) {
        if (data == nullptr)
            raw.size = 0;
        raw.data.pointer = data;
        return;
    }
    void* block = std::malloc(size);
    if (block == nullptr) [[unlikely]] {
        SetToTooLong(raw);
        return;
    }
    if (data != nullptr)
        std::memcpy(block, data, size);
    else
        std::memset(block, 0, size);
    raw.data.pointer = block;
    raw.owned = 1;
}

void TraceParameter::SetTruncated(::TraceParameter& raw, unsigned int n) {
    if (raw.type != ParameterTypes::String && raw.type != ParameterTypes::WideString)
        return;
    const unsigned width = raw.type == ParameterTypes::WideString ? 2 : 1;
    if (n == 0)
        n = 1;
    // Nothing to cut when the text already fits.
    if (static_cast<uint64_t>(n) * width >= raw.size)
        return;
    if (raw.size > BufferSize && raw.owned == 0) {
        // Never write into storage that is not ours.
        SetData(raw, raw.data.pointer);
        if (raw.type == ParameterTypes::TooLong)
            return;
    }
    unsigned char* bytes = raw.size <= BufferSize
                               ? raw.data.bytes
                               : static_cast<unsigned char*>(const_cast<void*>(raw.data.pointer));
    std::memset(bytes + static_cast<std::size_t>(n - 1) * width, 0, width);
    if (n > 5) {
        for (unsigned k = n - 4; k <= n - 2; ++k) {
            bytes[static_cast<std::size_t>(k) * width] = '.';
            if (width == 2)
                bytes[static_cast<std::size_t>(k) * width + 1] = 0;
        }
    }
    // Scanned again, so an embedded earlier terminator shortens the text further.
    const uint32_t newSize = static_cast<uint32_t>(
        GetParameterSize(static_cast<ParameterTypes::Values>(raw.type), bytes, bytes + raw.size));
    if (raw.size > BufferSize && newSize <= BufferSize) {
        unsigned char inlineBytes[BufferSize];
        std::memcpy(inlineBytes, bytes, newSize);
        std::free(bytes);
        raw.owned = 0;
        ClearDataWord(raw);
        std::memcpy(raw.data.bytes, inlineBytes, newSize);
    }
    raw.size = newSize;
}

void TraceParameter::SetToTooLong(::TraceParameter& raw) {
    Clear(raw);
    raw.type = ParameterTypes::TooLong;
}

void TraceParameter::Clear(::TraceParameter& raw) {
    if (raw.owned != 0 && raw.size > BufferSize)
        std::free(const_cast<void*>(raw.data.pointer));
    raw.owned = 0;
    raw.size = 0;
    ClearDataWord(raw);
}

void TraceParameter::Copy(::TraceParameter& dest, const ::TraceParameter& src) {
    if (&dest == &src)
        return;
    dest.type = src.type;
    dest.reserved = 0;
    dest.size = src.size;
    SetData(dest, GetData(src));
}

char* TraceParameter::CopyParameter(const ::TraceParameter& raw, char* dest) {
    if (raw.size != 0)
        std::memcpy(dest, GetData(raw), raw.size);
    return dest + raw.size;
}

char* TraceParameter::Serialize(const ::TraceParameter& raw, char* dest) {
    uint16_t type = raw.type;
    if (type == ParameterTypes::StringRef)
        type = ParameterTypes::String;
    else if (type == ParameterTypes::WideStringRef)
        type = ParameterTypes::WideString;
    *dest = static_cast<char>(type);
    return CopyParameter(raw, dest + TraceParameterData::SizeWithoutData);
}

// ---------------------------------------------------------------------------------------------
// Sizes

uint64_t TraceParameter::GetParameterSize(ParameterTypes::Values type, const void* data) {
    if (IsNarrowString(type))
        return data == nullptr ? 0 : std::strlen(static_cast<const char*>(data)) + 1;
    if (IsWideString(type))
        return data == nullptr ? 0 : 2 * GetWideStringLength(data) + 2;
    return FixedSize(type);
}

uint64_t TraceParameter::GetParameterSize(ParameterTypes::Values type, const void* data,
                                          const void* dataEnd) {
    const auto* p = static_cast<const unsigned char*>(data);
    const auto* end = static_cast<const unsigned char*>(dataEnd);
    if (p == nullptr || end == nullptr || p >= end)
        return 0;
    const std::size_t available = static_cast<std::size_t>(end - p);
    if (IsNarrowString(type)) {
        const void* terminator = std::memchr(p, 0, available);
        return terminator == nullptr ? 0 : static_cast<const unsigned char*>(terminator) - p + 1;
    }
    if (IsWideString(type)) {
        const std::size_t units = BoundedWideLength(p, available);
        return 2 * units + 2 <= available ? 2 * units + 2 : 0;
    }
    const unsigned size = FixedSize(type);
    return size <= available ? size : 0;
}

uint64_t TraceParameter::GetWideStringLength(const void* data) {
    // Byte pairs: no 16-bit loads, so any alignment is fine.
    const auto* p = static_cast<const unsigned char*>(data);
    uint64_t units = 0;
    while (p[0] != 0 || p[1] != 0) {
        p += 2;
        ++units;
    }
    return units;
}

// ---------------------------------------------------------------------------------------------
// Texts of one value

namespace {

template <typename Unsigned>
std::size_t FormatHex(char* first, char* last, Unsigned value, TraceParameter::FormatSpecifiers specifier) {
    if (specifier == TraceParameter::Pointer) {
        // "0x%08x" / "0x%016I64x": full width with leading zeros.
        constexpr int digits = 2 * sizeof(Unsigned);
        char* p = first;
        *p++ = '0';
        *p++ = 'x';
        for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
            *p++ = "0123456789abcdef"[(value >> shift) & 0xF];
        return static_cast<std::size_t>(p - first);
    }
    return static_cast<std::size_t>(std::to_chars(first, last, value, 16).ptr - first);
}

template <typename Signed, typename Unsigned>
void IntegerToString(Signed value, char* buffer, std::size_t size,
                     TraceParameter::FormatSpecifiers specifier) {
    char text[kNumberBufferSize];
    std::size_t length;
    if (specifier == TraceParameter::Default)
        length = static_cast<std::size_t>(std::to_chars(text, text + sizeof(text), value).ptr - text);
    else
        length = FormatHex(text, text + sizeof(text), static_cast<Unsigned>(value), specifier);
    CopyTruncated(text, length, buffer, size);
}

}  // namespace

void TraceParameter::ToString(int32_t value, char* buffer, std::size_t size, FormatSpecifiers specifier) {
    IntegerToString<int32_t, uint32_t>(value, buffer, size, specifier);
}

void TraceParameter::ToString(uint32_t value, char* buffer, std::size_t size, FormatSpecifiers specifier) {
    IntegerToString<uint32_t, uint32_t>(value, buffer, size, specifier);
}

void TraceParameter::ToString(int64_t value, char* buffer, std::size_t size, FormatSpecifiers specifier) {
    IntegerToString<int64_t, uint64_t>(value, buffer, size, specifier);
}

void TraceParameter::ToString(uint64_t value, char* buffer, std::size_t size, FormatSpecifiers specifier) {
    IntegerToString<uint64_t, uint64_t>(value, buffer, size, specifier);
}

void TraceParameter::ToString(float value, char* buffer, std::size_t size) {
    ToString(static_cast<double>(value), buffer, size);
}

void TraceParameter::ToString(double value, char* buffer, std::size_t size) {
    if (size != 0)
        std::snprintf(buffer, size, "%g", value);
}

void TraceParameter::ToString(bool value, char* buffer, std::size_t size) {
    const char* text = value ? "true" : "false";
    CopyTruncated(text, std::strlen(text), buffer, size);
}

namespace {

// Types 4-10 from size-checked bytes at data (any alignment).
void AppendNumber(std::string& out, uint16_t type, const void* data,
                  TraceParameter::FormatSpecifiers specifier) {
    char text[kNumberBufferSize];
    switch (type) {
        case ParameterTypes::Int32: {
            int32_t v;
            std::memcpy(&v, data, sizeof(v));
            TraceParameter::ToString(v, text, sizeof(text), specifier);
            break;
        }
        case ParameterTypes::UInt32: {
            uint32_t v;
            std::memcpy(&v, data, sizeof(v));
            TraceParameter::ToString(v, text, sizeof(text), specifier);
            break;
        }
        case ParameterTypes::Int64: {
            int64_t v;
            std::memcpy(&v, data, sizeof(v));
            TraceParameter::ToString(v, text, sizeof(text), specifier);
            break;
        }
        case ParameterTypes::UInt64: {
            uint64_t v;
            std::memcpy(&v, data, sizeof(v));
            TraceParameter::ToString(v, text, sizeof(text), specifier);
            break;
        }
        case ParameterTypes::Float: {
            float v;
            std::memcpy(&v, data, sizeof(v));
            TraceParameter::ToString(v, text, sizeof(text));
            break;
        }
        case ParameterTypes::Double: {
            double v;
            std::memcpy(&v, data, sizeof(v));
            TraceParameter::ToString(v, text, sizeof(text));
            break;
        }
        default: {
            TraceParameter::ToString(*static_cast<const unsigned char*>(data) != 0, text, sizeof(text));
            break;
        }
    }
    out += text;
}

[[gnu::cold]] void AppendInvalid(std::string& out, uint16_t type) {
    out += "<Invalid parameter (type: ";
    out += std::to_string(static_cast<int>(type));
    out += ")!>";
}

}  // namespace

void TraceParameter::AppendToString(std::string& out, ParameterTypes::Values type, const void* data,
                                    FormatSpecifiers specifier) {
    if (type == ParameterTypes::TooLong) {
        out += "<Parameter too long, removed!>";
    } else if (IsNarrowString(type)) {
        if (data != nullptr)
            out += static_cast<const char*>(data);
    } else if (IsWideString(type)) {
        if (data != nullptr)
            AppendWide(out, data, GetWideStringLength(data));
    } else if (FixedSize(type) != 0) {
        if (data != nullptr)
            AppendNumber(out, type, data, specifier);
    } else {
        AppendInvalid(out, type);
    }
}

void TraceParameter::AppendToString(std::string& out, const ::TraceParameter& raw,
                                    FormatSpecifiers specifier) {
    const uint16_t type = raw.type;
    const void* data = GetData(raw);
    if (type == ParameterTypes::TooLong) {
        out += "<Parameter too long, removed!>";
    } else if (IsNarrowString(type)) {
        if (data != nullptr) {
            const char* text = static_cast<const char*>(data);
            const void* terminator = std::memchr(text, 0, raw.size);
            out.append(text, terminator == nullptr ? raw.size : static_cast<const char*>(terminator) - text);
        }
    } else if (IsWideString(type)) {
        if (data != nullptr)
            AppendWide(out, data, BoundedWideLength(static_cast<const unsigned char*>(data), raw.size));
    } else if (FixedSize(type) != 0 && raw.size <= BufferSize) {
        // Inline bytes: always 8 of them, whatever the recorded size.
        AppendNumber(out, type, data, specifier);
    } else {
        AppendInvalid(out, type);
    }
}

// ---------------------------------------------------------------------------------------------
// Message texts

void TraceParameter::FormatString(std::string& out, const char* format, uint64_t binaryTraceId, uint8_t count,
                                  const ::TraceParameter* params) {
    if (format == nullptr) {
        if (binaryTraceId == 0) {
            out = "<No format string!>";
            return;
        }
        format = TraceIDTextMap::GetInstance().GetText(binaryTraceId);
        if (format == nullptr) {
            FormatFailedBinaryTrace(out, binaryTraceId, count, params);
            return;
        }
    }
    if (params == nullptr)
        count = 0;
    out.clear();
    out.reserve(std::strlen(format) + kNumberBufferSize * count);

    const char* p = format;
    for (;;) {
        const char* percent = std::strchr(p, '%');
        if (percent == nullptr) {
            out.append(p);
            return;
        }
        out.append(p, percent);
        const char* q = percent + 1;
        if (*q == '%') {
            out += '%';
            p = q + 1;
            continue;
        }
        if (*q == '\0') {
            out += '%';  // a lone trailing '%' survives
            return;
        }
        bool braced = false;
        if (*q == '{' && q[1] != '\0' && (q[2] == '}' || (q[2] == ':' && q[3] != '\0' && q[4] == '}'))) {
            braced = true;
            ++q;
        }
        const char c = *q;
        if (c < '1' || c > '9') {
            out += braced ? "%{" : "%";
            out += c;
            p = q + 1;
            continue;
        }
        const unsigned index = static_cast<unsigned>(c - '1');
        if (index >= count) {
            // In the braced form the '}' stays as plain text after the marker, deliberately.
            out += "<Unknown parameter (";
            out += c;
            out += ")!>";
            p = q + 1;
            continue;
        }
        if (q[1] != ':') {
            AppendToString(out, params[index], Default);
            p = q + (braced ? 2 : 1);
            continue;
        }
        const char letter = q[2];
        FormatSpecifiers specifier;
        if (letter == 'x' || letter == 'X') {
            specifier = Hex;
        } else if (letter == 'p' || letter == 'P') {
            specifier = Pointer;
        } else if (braced) {
            // Unknown specifier in braces: the whole placeholder stays as written.
            out += "%{";
            out += c;
            p = q + 1;
            continue;
        } else {
            // ":" and the letter stay in the text that follows.
            AppendToString(out, params[index], Default);
            p = q + 1;
            continue;
        }
        AppendToString(out, params[index], specifier);
        p = q + (braced ? 4 : 3);
    }
}

void TraceParameter::FormatFailedBinaryTrace(std::string& out, uint64_t binaryTraceId, uint8_t count,
                                             const ::TraceParameter* params) {
    out = "Binary trace ID '";
    out += std::to_string(binaryTraceId);
    out += "' not found!";
    if (params == nullptr || count == 0)
        return;
    out += " Params:";
    out += std::to_string(count);
    out += " ;";
    std::string value;
    for (unsigned i = 0; i < count; ++i) {
        out += std::to_string(params[i].type);
        out += ':';
        value.clear();
        AppendToString(value, params[i], Default);
        Internal::AppendCsvField(out, value.data(), value.size(), ';');
        out += ';';
    }
}

void TraceParameter::ParseFailedBinaryTrace(std::string& out, const char* text) {
    static constexpr char kPrefix[] = "Binary trace ID '";
    constexpr std::size_t kPrefixLength = sizeof(kPrefix) - 1;
    if (text == nullptr || std::strncmp(text, kPrefix, kPrefixLength) != 0)
        return;
    if (std::strchr(text + kPrefixLength, '\'') == nullptr)
        return;
    unsigned long long id = 0;
    if (std::sscanf(text + kPrefixLength - 1, "'%llu'", &id) != 1 || id == 0)
        return;
    const char* idText = TraceIDTextMap::GetInstance().GetText(id);
    if (idText == nullptr)
        return;
    const char* semicolon = std::strchr(text, ';');
    if (semicolon == nullptr) {
        out = idText;
        return;
    }

    ::TraceParameter params[MaxParameters] = {};
    uint8_t kept = 0;
    std::string field;
    std::string typeText;
    const char* cursor = semicolon + 1;
    while (*cursor != '\0') {
        const char* colon = std::strchr(cursor, ':');
        if (colon == nullptr)
            break;
        typeText.assign(cursor, colon);
        int type = 0;
        std::sscanf(typeText.c_str(), "%d", &type);
        cursor = colon + 1;
        Internal::ReadCsvField(cursor, field, ';');
        if (kept >= MaxParameters)
            continue;
        ::TraceParameter& param = params[kept++];
        switch (type) {
            case ParameterTypes::Int32: {
                int32_t v = 0;
                std::sscanf(field.c_str(), "%" SCNd32, &v);
                Init(param, ParameterTypes::Int32, &v);
                break;
            }
            case ParameterTypes::UInt32: {
                uint32_t v = 0;
                std::sscanf(field.c_str(), "%" SCNu32, &v);
                Init(param, ParameterTypes::UInt32, &v);
                break;
            }
            case ParameterTypes::Int64: {
                long long v = 0;
                std::sscanf(field.c_str(), "%lld", &v);
                const int64_t value = v;
                Init(param, ParameterTypes::Int64, &value);
                break;
            }
            case ParameterTypes::UInt64: {
                unsigned long long v = 0;
                std::sscanf(field.c_str(), "%llu", &v);
                const uint64_t value = v;
                Init(param, ParameterTypes::UInt64, &value);
                break;
            }
            default:
                Init(param, ParameterTypes::String, field.c_str());
                break;
        }
    }
    FormatString(out, idText, 0, kept, params);
    for (unsigned i = 0; i < kept; ++i)
        Clear(params[i]);
}

}  // namespace Tracing
