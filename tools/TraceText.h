// Texts of a trace for formats other than the library's own: valid UTF-8 and Unix time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tracing {
class Trace;
}

namespace Tracing::Tool {

// The text with every byte that is not part of a well-formed UTF-8 sequence replaced by U+FFFD:
// syslog and JSON receivers refuse or mangle anything else.
std::string ValidUtf8(std::string_view text);

// The trace's time in microseconds since 1970 (with the 100 ns digit as a fraction); none for a
// trace stamped with sequence numbers instead of time.
std::optional<double> UnixMicroseconds(const Trace& trace);

// "2026-11-23T20:25:52.123456Z".
std::string Rfc3339(uint64_t unixMicroseconds);

}  // namespace Tracing::Tool
