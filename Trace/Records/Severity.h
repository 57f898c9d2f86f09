// Severity names and the severity list text.
//
// A severity word holds the severity in bits 0-2 and flags in bits 4-31; bit 3 is never shown.
#pragma once

#include <cstdint>
#include <string>

namespace Tracing {
class TraceBuffer;
}

namespace Tracing::Severity {

enum Type : uint32_t {
    None = 0,
    Fatal = 1,
    Error = 2,
    Warning = 3,
    Info = 4,
    Verbose = 5,
    Debug = 6,
    Call = 7,
};

// Mask of the severity bits in a severity or filter word.
constexpr uint32_t Mask = 7;

// out = the names from "None" (withNone) or "Fatal" to "Call", separated by separator.
void List(std::string& out, bool withNone, const char* separator);

// The name of a severity 0-7, "invalid severity" above.
const char* Name(unsigned value);

// Exact, case-sensitive lookup of a name; null and unknown texts give None.
Type FromName(const char* text);

// The severity name of word & 7, followed by " | " and the flags text when the producer-side
// buffer of bufferID names any flag.
void ToString(std::string& out, unsigned int severityWord, int bufferID, int moduleID);

// The names of the flag bits 4-31 set in the word, ascending, joined by ", "; a bit the module
// does not name reads "<Unknown flag n>". Empty when no flag bit is set.
void GetFlagsAsString(std::string& out, unsigned int severityWord, const TraceBuffer& buffer, int moduleID);
// The same with the producer-side buffer of bufferID; empty when there is none.
void GetFlagsAsString(std::string& out, unsigned int severityWord, int bufferID, int moduleID);

}  // namespace Tracing::Severity
