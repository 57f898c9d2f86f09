#include "tools/TraceText.h"

#include <chrono>
#include <cstdio>

#include "Trace/Records/Trace.h"

namespace Tracing::Tool {

std::string ValidUtf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        size_t length = byte < 0x80                    ? 1
                        : byte >= 0xC2 && byte <= 0xDF ? 2
                        : byte >= 0xE0 && byte <= 0xEF ? 3
                        : byte >= 0xF0 && byte <= 0xF4 ? 4
                                                       : 0;
        bool valid = length != 0 && i + length <= text.size();
        for (size_t k = 1; valid && k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            valid = (next & 0xC0) == 0x80;
            // Overlong forms, surrogates and code points beyond U+10FFFF.
            if (k == 1 && valid) {
                valid = !(byte == 0xE0 && next < 0xA0) && !(byte == 0xED && next > 0x9F) &&
                        !(byte == 0xF0 && next < 0x90) && !(byte == 0xF4 && next > 0x8F);
            }
        }
        if (valid) {
            out.append(text.substr(i, length));
            i += length;
        } else {
            out.append("\xEF\xBF\xBD");
            ++i;
        }
    }
    return out;
}

std::optional<double> UnixMicroseconds(const Trace& trace) {
    if (trace.GetTimestampMode() == TimestampMode::SEQ_ID || trace.GetTimestamp() == 0) {
        return std::nullopt;
    }
    // 100 ns units since 1970.
    return static_cast<double>(trace.GetTimestamp() / 10) +
           static_cast<double>(trace.GetTimestamp() % 10) / 10;
}

std::string Rfc3339(uint64_t unixMicroseconds) {
    using namespace std::chrono;
    const sys_time<microseconds> time{microseconds(unixMicroseconds)};
    const auto day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss<microseconds> clock{time - day};
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%06lldZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()),
                  static_cast<long long>(clock.subseconds().count()));
    return text;
}

}  // namespace Tracing::Tool
