// CSV text from the fuzzer through the CSV reader. Records that were read once must come back
// unchanged from writing and reading them again.
//
// Input: one byte choosing the separator and maxCount, then the text.
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Trace/Records/Trace.h"

using Tracing::Trace;

namespace {

using Records = std::vector<std::unique_ptr<Trace>>;

std::array<std::string, 13> Columns(const Trace& t) {
    return {std::to_string(t.GetID()),
            t.GetHostName(),
            t.GetSystemName(),
            t.GetApplicationName(),
            t.GetSubSystemName(),
            t.GetModuleName(),
            t.GetSeverityText(),
            t.GetFlags(),
            t.GetTimestampText(),
            t.GetThreadIDText(),
            t.GetFormattedMessage(),
            t.GetFileName(),
            std::to_string(t.GetLineNumber())};
}

Records Read(const std::string& text, unsigned maxCount, char separator) {
    std::istringstream in(text);
    Records traces;
    Trace::ReadCsvFromStream(in, traces, maxCount, separator);
    return traces;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    static constexpr char kSeparators[] = {';', ',', '|', '\t', ' ', '"', '\n', '\0'};
    const char separator = kSeparators[data[0] & 7];
    const unsigned maxCount = data[0] >> 5;
    const Records traces =
        Read(std::string(reinterpret_cast<const char*>(data + 1), size - 1), maxCount, separator);
    if (maxCount != 0 && traces.size() > maxCount)
        __builtin_trap();

    std::ostringstream out;
    Trace::GetTraceCsvHeader(out, separator);
    for (const auto& trace : traces) {
        trace->WriteCsvToStream(out, separator);
        std::ostringstream log;
        trace->WriteToStream(log, separator);
    }
    // Only separators that cannot be a quote, blank or line break give an exact round trip.
    if ((data[0] & 7) > 3)
        return 0;
    const Records again = Read(out.str(), 0, separator);
    if (again.size() != traces.size())
        __builtin_trap();
    for (size_t i = 0; i < traces.size(); ++i)
        if (Columns(*again[i]) != Columns(*traces[i]))
            __builtin_trap();
    return 0;
}
