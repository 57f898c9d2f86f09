// The C interface's parameter, string and severity functions. Nothing may throw out of them.
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>

#include "Trace/Records/Severity.h"
#include "Trace/Records/TraceParameter.h"
#include "paxltrace.h"
#include "platform/TextConversion.h"

namespace {

// A malloc'd copy of length bytes and a terminator, or null.
char* MallocCopy(const char* text, std::size_t length) {
    auto* copy = static_cast<char*>(std::malloc(length + 1));
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}

}  // namespace

extern "C" {

PAXLTRACE_API void trace_free(void* pointer) {
    std::free(pointer);
}

PAXLTRACE_API char* trace_string_copy(const char* text) {
    if (text == nullptr)
        return nullptr;
    return MallocCopy(text, std::strlen(text));
}

PAXLTRACE_API char* trace_string_wide_to_narrow(const wchar_t* text) {
    if (text == nullptr)
        return nullptr;
    try {
        const std::string narrow = Tracing::Platform::WideToUtf8(text, std::wcslen(text));
        return MallocCopy(narrow.data(), narrow.size());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

PAXLTRACE_API wchar_t* trace_string_narrow_to_wide(const char* text) {
    if (text == nullptr)
        return nullptr;
    try {
        const std::wstring wide = Tracing::Platform::Utf8ToWide(text, std::strlen(text));
        auto* copy = static_cast<wchar_t*>(std::malloc((wide.size() + 1) * sizeof(wchar_t)));
        if (copy == nullptr)
            return nullptr;
        std::memcpy(copy, wide.c_str(), (wide.size() + 1) * sizeof(wchar_t));
        return copy;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// In parentheses: the header maps calls of this name to its inline form.
PAXLTRACE_API TraceParameter*(trace_param_init)(TraceParameter* record, unsigned type, const void* value) {
    if (record == nullptr)
        return nullptr;
    // Types beyond 16 bits would alias small ones when narrowed; they are simply invalid.
    const auto parameterType =
        type > 0xFFFF ? Tracing::ParameterTypes::Invalid : static_cast<Tracing::ParameterTypes::Values>(type);
    Tracing::TraceParameter::Init(*record, parameterType, value);
    return record;
}

PAXLTRACE_API TraceParameter* trace_param_copy(TraceParameter* destination, const TraceParameter* source,
                                               unsigned char count) {
    if (destination == nullptr || source == nullptr)
        return destination;
    for (unsigned i = 0; i < count; ++i)
        Tracing::TraceParameter::Copy(destination[i], source[i]);
    return destination;
}

PAXLTRACE_API void trace_param_clear(TraceParameter* records, unsigned char count) {
    if (records == nullptr)
        return;
    for (unsigned i = 0; i < count; ++i)
        Tracing::TraceParameter::Clear(records[i]);
}

PAXLTRACE_API char* trace_param_format(const char* format, unsigned long long binaryTextId,
                                       unsigned char count, const TraceParameter* parameters) {
    try {
        std::string text;
        Tracing::TraceParameter::FormatString(text, format, binaryTextId, count, parameters);
        return MallocCopy(text.data(), text.size());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

PAXLTRACE_API const char* trace_severity_to_string(unsigned severity) {
    return Tracing::Severity::Name(severity);
}

PAXLTRACE_API unsigned trace_severity_from_string(const char* text) {
    return Tracing::Severity::FromName(text);
}

}  // extern "C"
