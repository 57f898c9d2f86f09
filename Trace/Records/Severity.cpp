#include "Trace/Records/Severity.h"

#include <cstring>

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

}  // namespace Tracing::Severity
