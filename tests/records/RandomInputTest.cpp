// Hostile bytes and texts through the entry and placeholder parsers: no crash, no read out of bounds
// (the ASan build checks the latter), and results that stay within their documented shapes.
// The fuzz targets search wider; this is a small fixed sample of what they look for.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceIDTextMap.h"
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

TEST(RecordsRandomInput, PlaceholderAndFailedBinaryTexts) {
    TraceIDTextMap& map = TraceIDTextMap::GetInstance();
    map.Clear();
    TraceIDTextFile file("random");
    file.SetText(5, "%1|%{2}|%3:x|%{4:p}|%9|%%");
    map.AddFile(std::move(file));

    TraceMessage m;
    m.Add(int32_t{-7}).Add(uint64_t{1} << 50).Add("a;b \"%1\" '|:\r\n").Add(u"w\u00e9").Add(0.1);
    TraceParameter::SetToTooLong(*m.AddRawParameter());
    for (const char* format : {"%", "%{", "%{}", "%{:}", "%{1:", "%{1:p", "%1:%", "%{99999999999}",
                               "%4294967297", "%{0}", "%0:x", "%%%{1}}}", "%{6}%{6:x}%6:p"}) {
        std::string out;
        TraceParameter::FormatString(out, format, 0, m.GetParameterCount(), m.GetParameters());
    }

    // The fallback text gives back what the known text gives; cut anywhere or padded with noise,
    // it is only never misread.
    std::string failed;
    TraceParameter::FormatFailedBinaryTrace(failed, 5, m.GetParameterCount(), m.GetParameters());
    std::string expected, parsed;
    TraceParameter::FormatString(expected, nullptr, 5, m.GetParameterCount(), m.GetParameters());
    TraceParameter::ParseFailedBinaryTrace(parsed, failed.c_str());
    EXPECT_EQ(parsed, expected) << failed;
    for (std::size_t cut = 0; cut < failed.size(); ++cut)
        for (const char* noise : {"", ";", "'", ":%x;\"", "\"\";;9:"}) {
            TraceParameter::ParseFailedBinaryTrace(parsed, (failed.substr(0, cut) + noise).c_str());
            TraceParameter::ParseFailedBinaryTrace(parsed,
                                                   ("Binary trace ID '5' " + std::string(noise)).c_str());
        }

    map.Clear();
}

}  // namespace Tracing
