#include "Trace/Records/Severity.h"

#include <cstring>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Records/ITraceRecordContext.h"

namespace Tracing::Severity {
namespace {

constexpr const char* kNames[] = {"None", "Fatal", "Error", "Warning", "Info", "Verbose", "Debug", "Call"};
constexpr unsigned kCount = sizeof(kNames) / sizeof(kNames[0]);

}  // namespace

void List(std::string& out, bool withNone, const char* separator) {
    out.clear();
    for (unsigned i = withNone ? None : Fatal; i < Call; ++i) {
        out += kNames[i];
        if (separator != nullptr)
            out += separator;
    }
    out += kNames[Call];
}

const char* Name(unsigned value) {
    return value < kCount ? kNames[value] : "invalid severity";
}

Type FromName(const char* text) {
    if (text == nullptr)
        return None;
    for (unsigned i = 0; i < kCount; ++i) {
        if (std::strcmp(text, kNames[i]) == 0)
            return static_cast<Type>(i);
    }
    return None;
}

void GetFlagsAsString(std::string& out, unsigned int severityWord, const TraceBuffer& buffer, int moduleID) {
    out.clear();
    std::string name;
    for (unsigned bit = 4; bit < 32; ++bit) {
        if ((severityWord & (1u << bit)) == 0)
            continue;
        if (!out.empty())
            out += ", ";
        if (buffer.GetFlagName(moduleID, static_cast<uint8_t>(bit), name)) {
            out += name;
        } else {
            out += "<Unknown flag ";
            out += std::to_string(bit);
            out += '>';
        }
    }
}

void GetFlagsAsString(std::string& out, unsigned int severityWord, int bufferID, int moduleID) {
    out.clear();
    ITraceRecordContext* context = ITraceRecordContext::Get();
    if (const TraceBuffer* buffer = context != nullptr ? context->FindProducerBuffer(bufferID) : nullptr)
        GetFlagsAsString(out, severityWord, *buffer, moduleID);
}

void ToString(std::string& out, unsigned int severityWord, int bufferID, int moduleID) {
    std::string flags;
    GetFlagsAsString(flags, severityWord, bufferID, moduleID);
    out = Name(severityWord & Mask);
    if (!flags.empty()) {
        out += " | ";
        out += flags;
    }
}

}  // namespace Tracing::Severity
