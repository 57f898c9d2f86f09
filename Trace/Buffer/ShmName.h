// Names in shared memory: fixed 33-byte fields, at most 32 bytes of text and a terminating zero.
// Writers cut longer names silently; readers never rely on the terminator another process wrote.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace Tracing::Internal {

constexpr size_t ShmNameFieldSize = 33;
constexpr size_t ShmNameMaxLength = ShmNameFieldSize - 1;

using ShmNameField = char[ShmNameFieldSize];

// Copies name (null = empty), cut to 32 bytes, and zero-fills the rest of the field.
inline void CopyShmName(ShmNameField& field, const char* name) {
    const size_t length = name == nullptr ? 0 : strnlen(name, ShmNameMaxLength);
    std::memcpy(field, name == nullptr ? "" : name, length);
    std::memset(field + length, 0, ShmNameFieldSize - length);
}

// The text of a field, never longer than the field; an unterminated field is cut at its end.
inline std::string_view ShmNameView(const ShmNameField& field) {
    return std::string_view(field, strnlen(field, ShmNameFieldSize));
}

// The field as a C string, or "" when nobody terminated it (only a hostile writer leaves it so).
inline const char* ShmNameCString(const ShmNameField& field) {
    return std::memchr(field, 0, ShmNameFieldSize) != nullptr ? field : "";
}

// Exact, case-sensitive comparison with a C string (null = empty).
inline bool ShmNameEquals(const ShmNameField& field, const char* name) {
    return ShmNameView(field) == std::string_view(name == nullptr ? "" : name);
}

}  // namespace Tracing::Internal
