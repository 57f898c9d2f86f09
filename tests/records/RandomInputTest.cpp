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
    const std::string parameterBytes[] = {
        ""s,
        "\x04"s,
        "\x04"
        "ab"s,
        "\x02"
        "abc"s,
        "\x03"
        "a"s,
        "\x03"
        "a\0b"s,
        "\x00"s,
        "\x01\x01\x01"s,
        "\x0b"
        "abcdefgh"s,
        "\x0c\x0d\x0e"s,
        "\x09\x01"s,
        "\x02\0\x07"s,
        many,
    };
    for (const std::string& parameters : parameterBytes)
        for (const bool binary : {false, true})
            for (const unsigned slack : {0u, 3u})
                for (const unsigned locationSize : {0u, slack, slack + 2}) {
                    const std::string message = "%1 %{2:x} %3:p %{9} %%";
                    std::vector<char> entry;
                    if (binary) {
                        const uint64_t id = 2;
                        entry.insert(entry.end(), reinterpret_cast<const char*>(&id),
                                     reinterpret_cast<const char*>(&id) + 8);
                    } else {
                        entry.insert(entry.end(), message.begin(), message.end());
                        entry.push_back('\0');
                    }
                    entry.insert(entry.end(), parameters.begin(), parameters.end());
                    // Exact-size heap block: the entry ends where the readable bytes end.
                    entry.resize(entry.size() + slack, 'L');
                    const unsigned messageSize = binary ? 0 : static_cast<unsigned>(message.size() + 1);
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
