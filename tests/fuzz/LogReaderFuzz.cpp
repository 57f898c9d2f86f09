// Log text from the fuzzer through the log reader; every record read is written back in both
// formats.
//
// Input: one byte choosing the separator and maxCount, then the text.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Trace/Records/Trace.h"

using Tracing::Trace;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    static constexpr char kSeparators[] = {'|', ';', ',', ' ', '"', '\0', '\r', '#'};
    const char separator = kSeparators[data[0] & 7];
    const unsigned maxCount = data[0] >> 5;
    std::istringstream in(std::string(reinterpret_cast<const char*>(data + 1), size - 1));

    std::vector<std::unique_ptr<Trace>> traces;
    if (data[0] & 8)
        traces.push_back(nullptr);  // a caller's vector ending in an empty slot
    Trace::ReadFromStream(in, traces, maxCount, separator);
    if (maxCount != 0 && traces.size() > maxCount + 1)
        __builtin_trap();

    std::ostringstream out;
    for (const auto& trace : traces) {
        if (trace == nullptr)
            continue;
        trace->WriteToStream(out, separator);
        trace->WriteCsvToStream(out, separator);
    }
    return 0;
}
