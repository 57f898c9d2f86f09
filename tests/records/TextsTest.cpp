#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>

#include "Trace/Records/CsvField.h"
#include "Trace/Records/OSError.h"
#include "Trace/Records/PrintMsg.h"
#include "Trace/Records/Severity.h"
#include "Trace/Records/TraceIDTextMap.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Time/TimestampMode.h"
#include "paxltrace.h"

namespace Tracing {

TEST(RecordTexts, SeverityAndTimestampModeNames) {
    EXPECT_STREQ(trace_severity_to_string(7), "Call");
    EXPECT_STREQ(trace_severity_to_string(8), "invalid severity");
    EXPECT_EQ(trace_severity_from_string("Info"), 4u);
    EXPECT_EQ(trace_severity_from_string("info"), 0u);  // case matters here
    EXPECT_EQ(trace_severity_from_string(nullptr), 0u);
    std::string list;
    Severity::List(list, false, ",");
    EXPECT_EQ(list, "Fatal,Error,Warning,Info,Verbose,Debug,Call");
    Severity::List(list, true, " | ");
    EXPECT_EQ(list.substr(0, 15), "None | Fatal | ");

    EXPECT_EQ(TimestampMode::FromString("optimal"), TimestampMode::OPTIMAL);  // but not here
    EXPECT_EQ(TimestampMode::FromString("PRECISEX"), TimestampMode::NotSet);
    EXPECT_EQ(TimestampMode::FromString(nullptr), TimestampMode::NotSet);
    EXPECT_EQ(TimestampMode::ToString(static_cast<TimestampMode::Type>(5)), nullptr);
}

TEST(RecordTexts, TextMapLastFileWinsAndClearForgets) {
    TraceIDTextMap& map = TraceIDTextMap::GetInstance();
    map.Clear();
    TraceIDTextFile first("first", {{7, "first seven"}, {8, "eight"}});
    // Short texts live inside the string object: their addresses move with the file.
    TraceIDTextFile second("second", {{7, "7"}});
    map.AddFile(std::move(first));
    map.AddFile(std::move(second));
    EXPECT_STREQ(map.GetText(7), "7");
    EXPECT_STREQ(map.GetText(8), "eight");
    EXPECT_EQ(map.GetText(9), nullptr);
    ASSERT_EQ(map.BrowseFiles().size(), 2u);
    map.Clear();
    EXPECT_EQ(map.GetText(7), nullptr);
    EXPECT_TRUE(map.BrowseFiles().empty());
}

TEST(RecordTexts, CsvFieldsQuoteAndReadBack) {
    const struct {
        const char* text;
        const char* written;
    } cases[] = {
        {"plain", "plain"},
        {"a;b", "\"a;b\""},
        {"say \"hi\"", "\"say \"\"hi\"\"\""},
        {"two words", "\"two words\""},
        {"line\r\nbreak", "\"line\r\nbreak\""},
        {"a|b", "a|b"},
    };
    for (const auto& c : cases) {
        std::ostringstream out;
        Internal::WriteCsvField(out, std::string(c.text), ';');
        EXPECT_EQ(out.str(), c.written);
        const std::string line = out.str() + ";next";
        const char* cursor = line.c_str();
        std::string field;
        Internal::ReadCsvField(cursor, field, ';');
        EXPECT_EQ(field, c.text);
        EXPECT_STREQ(cursor, "next");
    }

    std::string field;
    const char* missingQuote = "\"open \"\" field;rest";
    Internal::ReadCsvField(missingQuote, field, ';');
    EXPECT_EQ(field, "open \" field;rest");
    EXPECT_EQ(*missingQuote, '\0');

    // Log fields: blanks trimmed, line ends stop without being consumed, junk after quotes stays.
    const char* log = "   padded   |x\r\n";
    Internal::ReadCsvField(log, field, '|');
    EXPECT_EQ(field, "padded");
    Internal::ReadCsvField(log, field, '|');
    EXPECT_EQ(field, "x");
    EXPECT_STREQ(log, "\r\n");
    const char* junk = "\"q\"x;y";
    Internal::ReadCsvField(junk, field, ';');
    EXPECT_EQ(field, "q");
    EXPECT_STREQ(junk, "x;y");
}

TEST(RecordTexts, CFunctionsHandleNullAndOwnership) {
    EXPECT_TRUE(!trace_string_copy(nullptr) && !trace_string_wide_to_narrow(nullptr) &&
                !trace_string_narrow_to_wide(nullptr));
    char* copy = trace_string_copy("copy me");
    EXPECT_STREQ(copy, "copy me");
    trace_free(copy);
    wchar_t* wide = trace_string_narrow_to_wide("gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80");
    EXPECT_STREQ(wide, L"gr\u00fc\u00df \U0001F600");
    char* narrow = trace_string_wide_to_narrow(wide);
    EXPECT_STREQ(narrow, "gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80");
    trace_free(narrow);
    trace_free(wide);

    const char* longText = "a text that does not fit inline";
    ::TraceParameter params[5];
    trace_param_init(&params[0], TRACE_PARAM_STRING, nullptr);
    trace_param_init(&params[1], TRACE_PARAM_WIDE_STRING_REF, nullptr);
    trace_param_init(&params[2], TRACE_PARAM_STRING, longText);
    trace_param_init(&params[3], TRACE_PARAM_STRING_REF, longText);
    const int32_t value = -5;
    trace_param_init(&params[4], TRACE_PARAM_INT32, &value);
    // Strings are copied into an owned block, references are not.
    EXPECT_TRUE(params[2].owned == 1 && params[2].data.pointer != longText);
    EXPECT_TRUE(params[3].owned == 0 && params[3].data.pointer == longText);

    ::TraceParameter copies[5];
    trace_param_copy(copies, params, 5);
    EXPECT_TRUE(copies[2].owned == 1 && copies[2].data.pointer != params[2].data.pointer);
    EXPECT_EQ(copies[3].data.pointer, longText);
    trace_param_clear(params, 5);
    EXPECT_EQ(params[2].data.pointer, nullptr);

    char* text = trace_param_format("%1 %2 %3 %4 %5", 0, 5, copies);
    EXPECT_STREQ(text, "<NULL> <NULL> a text that does not fit inline a text that does not fit inline -5");
    trace_free(text);
    trace_param_clear(copies, 5);
    EXPECT_EQ(trace_param_init(nullptr, TRACE_PARAM_INT32, &value), nullptr);
    trace_param_clear(nullptr, 3);
}

TEST(RecordTexts, MessagesAndConsoleLines) {
    TraceMessage m("%1 and %2");
    for (int i = 0; i < 12; ++i)
        m.Add(i);  // beyond nine ignored
    EXPECT_EQ(m.GetParameterCount(), 9);
    m.Add(static_cast<const char*>(nullptr)).Add(std::string("s"));
    EXPECT_EQ(m.Format(), "0 and 1");

    TraceMessage warning("disk %1 is full");
    warning.Add(u"C:");
    testing::internal::CaptureStderr();
    Internal::PrintMsg(Severity::Warning, warning, true);
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_NE(line.find(", Warning: disk C: is full\n"), std::string::npos) << line;
    EXPECT_NE(line.find(" (" + std::to_string(getpid()) + "): "), std::string::npos) << line;

    testing::internal::CaptureStdout();
    Internal::PrintMsg(Severity::Info, TraceMessage("info"), true);
    Internal::PrintMsg(Severity::Info, TraceMessage("silent"), false);
    const std::string info = testing::internal::GetCapturedStdout();
    EXPECT_EQ(info.find("Info"), std::string::npos);
    EXPECT_EQ(info.substr(info.size() - 7), ", info\n");

#ifdef _WIN32
    EXPECT_EQ(Internal::GetOSErrorText(2), "File not found.") << "the system's text without its line end";
#else
    EXPECT_EQ(Internal::GetOSErrorText(ENOENT), std::strerror(ENOENT));
#endif
    EXPECT_EQ(Internal::GetOSErrorText(-12345), "");
}

}  // namespace Tracing
