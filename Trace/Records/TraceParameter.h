// Typed trace parameters: their types, sizes, serialised form, texts and the placeholder language
// of message texts.
//
// The one data type of a parameter is the C record ::TraceParameter of paxltrace.h (16 bytes:
// u16 type, u8 owned, u8 reserved, u32 size, 8 data bytes). Callers of the C interface and the ring
// writer hold plain arrays of it, so every operation here is a static function on the raw record;
// the class Tracing::TraceParameter is a value wrapper whose only member is that record.
//
// Record invariants: size 0 means no data; size 1-8 means the data sits inline in data.bytes
// (strings too); a larger size means data.pointer, owned (heap copy, owned == 1) for String and
// WideString and borrowed for StringRef and WideStringRef.
//
// Serialised form (inside a ring entry): one type byte (StringRef written as String, WideStringRef
// as WideString), then the data bytes as they stand, no size and no padding. Data may therefore
// start at any address; wide strings are UTF-16 on every platform and are only ever read bytewise
// or through memcpy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "paxltrace.h"

namespace Tracing {

namespace ParameterTypes {
// Stored in shared memory and log files: the numbers must not change.
enum Values : uint16_t {
    Invalid = 0,
    TooLong = 1,
    String = 2,
    WideString = 3,
    Int32 = 4,
    UInt32 = 5,
    Int64 = 6,
    UInt64 = 7,
    Float = 8,
    Double = 9,
    Bool = 10,
    StringRef = 11,
    WideStringRef = 12,
};
}  // namespace ParameterTypes

// The serialised parameter: a type byte followed by the data.
struct TraceParameterData {
    static constexpr unsigned SizeWithoutData = 1;
};

class TraceParameter {
public:
    // Values up to this many bytes are held inline.
    static constexpr unsigned BufferSize = 8;
    // Longest text of one number (ToString buffers hold this plus the terminator).
    static constexpr unsigned MaxNumberTextLength = 20;
    // At most this many parameters per trace (placeholders %1 to %9).
    static constexpr unsigned MaxParameters = 9;

    enum FormatSpecifiers { Default = 0, Hex = 1, Pointer = 2 };

    // --- the value class ---------------------------------------------------------------------
    TraceParameter() noexcept : m_raw{} {}
    TraceParameter(ParameterTypes::Values type, const void* data) : m_raw{} { Init(m_raw, type, data); }
    TraceParameter(const TraceParameter& other) : m_raw{} { Copy(m_raw, other.m_raw); }
    TraceParameter(TraceParameter&& other) noexcept : m_raw(other.m_raw) { other.m_raw = {}; }
    TraceParameter& operator=(const TraceParameter& other);
    TraceParameter& operator=(TraceParameter&& other) noexcept;
    ~TraceParameter() { Clear(m_raw); }

    ParameterTypes::Values GetType() const { return static_cast<ParameterTypes::Values>(m_raw.type); }
    uint32_t GetDataSize() const { return m_raw.size; }
    const void* GetData() const { return GetData(m_raw); }
    bool FitsInBuffer() const { return m_raw.size <= BufferSize; }
    char* CopyParameter(char* dest) const { return CopyParameter(m_raw, dest); }
    void SetToTooLong() { SetToTooLong(m_raw); }
    void SetTruncated(unsigned int n) { SetTruncated(m_raw, n); }
    void AppendToString(std::string& out, FormatSpecifiers specifier = Default) const {
        AppendToString(out, m_raw, specifier);
    }

    ::TraceParameter& Raw() { return m_raw; }
    const ::TraceParameter& Raw() const { return m_raw; }

    // --- operations on raw records -----------------------------------------------------------

    // Sets type, size (GetParameterSize) and data; null strings become "<NULL>". The record's
    // previous content is not freed (call Clear first if it owned a block).
    static void Init(::TraceParameter& raw, ParameterTypes::Values type, const void* data);
    // As Init with a size already known (used for bytes whose size was checked against a bound).
    static void InitWithSize(::TraceParameter& raw, ParameterTypes::Values type, const void* data,
                             uint32_t size);
    // Places data of raw.size bytes: inline when it fits, borrowed for the reference types,
    // otherwise a fresh owned copy. Null data with a size gives zero bytes.
    static void SetData(::TraceParameter& raw, const void* data);
    // Shortens a String or WideString to n characters (terminator included), ending in "..."
    // when n > 5. Other types are left alone.
    static void SetTruncated(::TraceParameter& raw, unsigned int n);
    // Frees an owned block; the record becomes TooLong without data.
    static void SetToTooLong(::TraceParameter& raw);
    // Frees an owned block and clears size and data; the type stays.
    static void Clear(::TraceParameter& raw);
    // Copies type, size and data by the SetData rule into dest (whose content is not freed).
    static void Copy(::TraceParameter& dest, const ::TraceParameter& src);
    static const void* GetData(const ::TraceParameter& raw) {
        return raw.size <= BufferSize ? static_cast<const void*>(raw.data.bytes) : raw.data.pointer;
    }
    // Copies the data bytes (not the type) to dest; returns dest + size.
    static char* CopyParameter(const ::TraceParameter& raw, char* dest);

    // Bytes of the serialised form: the type byte and the data.
    static uint64_t GetSerializedSize(const ::TraceParameter& raw) {
        return TraceParameterData::SizeWithoutData + raw.size;
    }
    // Writes the serialised form (reference types as their copying types) to dest; returns the
    // byte after it.
    static char* Serialize(const ::TraceParameter& raw, char* dest);

    // Data size in bytes of a value of this type (terminators included); 0 for Invalid, TooLong,
    // unknown types and null strings.
    static uint64_t GetParameterSize(ParameterTypes::Values type, const void* data);
    // As above for untrusted bytes: never reads at or past dataEnd; 0 when the value does not fit.
    static uint64_t GetParameterSize(ParameterTypes::Values type, const void* data, const void* dataEnd);
    // UTF-16 units before the terminator (any alignment).
    static uint64_t GetWideStringLength(const void* data);

    // Number texts into buffer (truncated to size, always terminated when size > 0).
    static void ToString(int32_t value, char* buffer, std::size_t size, FormatSpecifiers specifier);
    static void ToString(uint32_t value, char* buffer, std::size_t size, FormatSpecifiers specifier);
    static void ToString(int64_t value, char* buffer, std::size_t size, FormatSpecifiers specifier);
    static void ToString(uint64_t value, char* buffer, std::size_t size, FormatSpecifiers specifier);
    static void ToString(float value, char* buffer, std::size_t size);
    static void ToString(double value, char* buffer, std::size_t size);
    static void ToString(bool value, char* buffer, std::size_t size);

    // Appends the text of a value of this type at data (strings are read up to their terminator).
    static void AppendToString(std::string& out, ParameterTypes::Values type, const void* data,
                               FormatSpecifiers specifier);
    // Appends the text of a record (strings are read at most raw.size bytes).
    static void AppendToString(std::string& out, const ::TraceParameter& raw, FormatSpecifiers specifier);

    // out = format with %1..%9 (also "%{n}", ":x", ":p") replaced by the parameters. A null
    // format takes the text of binaryTraceId from the text map.
    static void FormatString(std::string& out, const char* format, uint64_t binaryTraceId, uint8_t count,
                             const ::TraceParameter* params);
    // out = "Binary trace ID '<id>' not found!" and the parameters as "type:value;" fields.
    static void FormatFailedBinaryTrace(std::string& out, uint64_t binaryTraceId, uint8_t count,
                                        const ::TraceParameter* params);
    // Re-formats a text of FormatFailedBinaryTrace whose ID now has a text; otherwise out stays.
    static void ParseFailedBinaryTrace(std::string& out, const char* text);

private:
    ::TraceParameter m_raw;
};

static_assert(sizeof(::TraceParameter) == 16);
static_assert(offsetof(::TraceParameter, type) == 0);
static_assert(offsetof(::TraceParameter, owned) == 2);
static_assert(offsetof(::TraceParameter, reserved) == 3);
static_assert(offsetof(::TraceParameter, size) == 4);
static_assert(offsetof(::TraceParameter, data) == 8);
static_assert(sizeof(TraceParameter) == sizeof(::TraceParameter));
static_assert(std::is_standard_layout_v<TraceParameter>);

}  // namespace Tracing
