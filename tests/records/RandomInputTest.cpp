// Hostile parameter bytes in record entries: no crash, no read out of bounds
// (the ASan build checks the latter), and results that stay within their documented shapes.
// The fuzz targets search wider; this is a small fixed sample of what they look for.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceMessage.h"

namespace Tracing {

TEST(RecordsRandomInput, EntriesWithHostileParameterBytes) {
    using namespace std::string_literals;
    std::string many;
    for (unsigned i = 0; i <= TraceMessage::MaxParameters; ++i)
        many += "\x0a\x01"s;  // one more bool than a message holds
    const std::string message = "%1 %{2:x} %3:p %{9} %%";
    for (const std::string& parameters :
         {""s, "\004"s, "\004ab"s, "\002abc"s, "\003a"s, "\003a\000b"s, "\000"s, "\001\001\001"s,
          "\013abcdefgh"s, "\014\015\016"s, "\011\001"s, "\002\000\007"s, many})
        for (const bool binary : {false, true})
            for (const unsigned slack : {0u, 3u})
                for (const unsigned locationSize : {0u, slack, slack + 2}) {
                    const uint64_t id = 2;
                    std::string bytes =
                        binary ? std::string(reinterpret_cast<const char*>(&id), 8) : message + '\0';
                    const auto messageSize = static_cast<unsigned>(binary ? 0 : bytes.size());
                    bytes += parameters + std::string(slack, 'L');
                    // Exact-size heap block: the entry ends where the readable bytes end.
                    const std::vector<char> entry(bytes.begin(), bytes.end());
                    Trace t;
                    if (t.Create(1, 1, 1, 0, 0, 0, 4, messageSize, static_cast<unsigned>(parameters.size()),
                                 locationSize, entry.data(), nullptr, entry.data() + entry.size())) {
                        const std::string& text = t.GetFormattedMessage();
                        EXPECT_TRUE(!binary || text.starts_with("Binary trace ID '")) << text;
                        t.RefreshBinaryTrace();
                        t.ExtractOverrideValuesFromMessage();
                    }
                    TraceMessage direct;
                    Trace::FillTraceMessage(
                        direct, static_cast<unsigned>(parameters.size()),
                        reinterpret_cast<const unsigned char*>(entry.data() + messageSize));
                    ASSERT_LE(direct.GetParameterCount(), TraceMessage::MaxParameters);
                }
}

}  // namespace Tracing
