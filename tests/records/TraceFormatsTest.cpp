// Log and CSV lines of records: exact layout, exact CSV round trips on messy texts, the log
// reader's joining of continuation lines, and hostile input into both readers.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Trace/Records/CsvField.h"
#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Records/TraceParameter.h"

namespace Tracing {
namespace {

using Records = std::vector<std::unique_ptr<Trace>>;
// The 13 columns of a record as texts, in their order.
using Columns = std::array<std::string, 13>;

const std::string kCsvHeader =
    "#;Host;System;Application;Subsystem;Module;Severity;Flags;Timestamp;Process/Thread;Text;Filename;"
    "\"Line #\"\n";
const std::string kLogHeader =
    "         #|Host                |System              |Application         |Subsystem           |"
    "Module              |Severity         |Flags     |Timestamp                    |Process/Thread|"
    "Text|Filename                 |Line #\n";
// The columns of the typical record from the host to the thread, as the log writes them.
const std::string kLogColumns =
    "|host one            |sys                 |app                 |sub                 |"
    "mod                 |Warning          |0x30      |2024.01.02 03:04:05.678901   |42 (0x1f)     |";

// clang-format off
Columns Typical(const std::string& message, const std::string& id = "7") {
    return {id, "host one", "sys", "app", "sub", "mod", "Warning", "0x30", "2024.01.02 03:04:05.678901",
            "42 (0x1f)", message, "file.cpp", "12"};
}

Columns Of(const Trace& t) {
    return {std::to_string(t.GetID()), t.GetHostName(), t.GetSystemName(), t.GetApplicationName(),
            t.GetSubSystemName(), t.GetModuleName(), t.GetSeverityText(), t.GetFlags(), t.GetTimestampText(),
            t.GetThreadIDText(), t.GetFormattedMessage(), t.GetFileName(),
            t.GetLineNumber() != 0 ? std::to_string(t.GetLineNumber()) : ""};
}

// Messages that break naive quoting, line splitting or trimming.
const std::vector<std::string> kMessyMessages = {
    "a;b", "a,b|c\tz", "say \"hi\"", "\"", "\"\"", "", " padded ", "line1\nline2", "cr\r\nkept", "\n",
    "ends\r", "\r", "\"\n\"\n", "#;looks like a header", "äöü € 😀", "x|x|x|x|x|x|x|x|x|x|x|x"};
// clang-format on

// The line the CSV writer must produce, built with the field writer.
std::string CsvLine(const Columns& columns, char separator = ';') {
    std::string line;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (i != 0)
            line += separator;
        Internal::AppendCsvField(line, columns[i].data(), columns[i].size(), separator);
    }
    return line + '\n';
}

Records Read(const std::string& text, bool csv, char separator, unsigned maxCount = 0) {
    std::istringstream in(text);
    Records traces;
    csv ? Trace::ReadCsvFromStream(in, traces, maxCount, separator)
        : Trace::ReadFromStream(in, traces, maxCount, separator);
    return traces;
}
Records ReadCsv(const std::string& text) {
    return Read(text, true, ';');
}

std::string WriteCsv(const Records& traces, char separator = ';') {
    std::ostringstream out;
    Trace::GetTraceCsvHeader(out, separator);
    for (const auto& t : traces)
        t->WriteCsvToStream(out, separator);
    return out.str();
}

std::string WriteLog(const Records& traces) {
    std::ostringstream out;
    Trace::GetTraceHeader(out, '|');
    for (const auto& t : traces)
        t->WriteToStream(out, '|');
    return out.str();
}

}  // namespace

TEST(TraceFormats, HeadersAndLogLinesHaveFixedColumns) {
    std::ostringstream header, semicolon, slash;
    Trace::GetTraceHeader(header, '|');
    EXPECT_EQ(header.str(), kLogHeader);
    Trace::GetTraceCsvHeader(semicolon, ';');
    EXPECT_EQ(semicolon.str(), kCsvHeader);
    // CSV header quoting ignores the separator: "Process/Thread" stays unquoted here.
    Trace::GetTraceCsvHeader(slash, '/');
    std::string slashed = kCsvHeader;
    std::replace(slashed.begin(), slashed.end(), ';', '/');
    EXPECT_EQ(slash.str(), slashed);

    Columns withoutFile = Typical("hello");
    withoutFile[11] = withoutFile[12] = "";
    Columns longHost = Typical("m", "4294967295");
    longHost[1] = "a host name of 25 chars!!";
    const Records traces = ReadCsv(CsvLine(Typical("hello")) + CsvLine(withoutFile) + CsvLine(longHost));
    ASSERT_EQ(traces.size(), 3u);
    std::ostringstream out;
    for (const auto& t : traces)
        t->WriteToStream(out, '|');
    EXPECT_EQ(out.str(), "         7" + kLogColumns + "hello|file.cpp                 |12    \n" +
                             "         7" + kLogColumns + "hello\n" +
                             "4294967295|a host name of 25 chars!!|sys" + kLogColumns.substr(25) +
                             "m|file.cpp                 |12    \n");

    // A record from a ring entry: the formatted message and the entry's location are written.
    TraceMessage parameters;
    parameters.Add(int32_t{5});
    std::vector<char> entry = {'m', ' ', '%', '1', '\0'};
    const std::size_t parameterSize = TraceParameter::GetSerializedSize(parameters.GetParameters()[0]);
    entry.resize(entry.size() + parameterSize);
    TraceParameter::Serialize(parameters.GetParameters()[0], entry.data() + 5);
    const uint32_t line = 77;
    entry.insert(entry.end(), reinterpret_cast<const char*>(&line), reinterpret_cast<const char*>(&line) + 4);
    entry.insert(entry.end(), {'f', '.', 'c', 'p', 'p', '\0'});
    Trace created;
    ASSERT_TRUE(created.Create(9, 1, 0, 0, 0, 0, 4, 5, static_cast<unsigned>(parameterSize), 10, entry.data(),
                               nullptr, entry.data() + entry.size()));
    std::ostringstream log, csv;
    created.WriteToStream(log, '|');
    created.WriteCsvToStream(csv, ';');
    EXPECT_TRUE(log.str().ends_with("|m 5|f.cpp                    |77    \n")) << log.str();
    EXPECT_EQ(csv.str(), "9;;;;;;;;;;\"m 5\";f.cpp;77\n");
}

TEST(TraceFormats, CsvRoundTripRestoresEveryColumn) {
    for (const char separator : {';', ',', '|', '\t'}) {
        SCOPED_TRACE(testing::Message() << "separator " << static_cast<int>(separator));
        std::ostringstream header;
        Trace::GetTraceCsvHeader(header, separator);
        std::string text = header.str();
        std::vector<Columns> expected;
        for (const std::string& message : kMessyMessages) {
            Columns columns = Typical(message, std::to_string(expected.size() + 1));
            columns[1] = "host;\"quoted\", |piped|";
            columns[11] = expected.size() % 2 ? "" : " dir name/file\n;1.cpp";
            columns[12] = expected.size() % 2 ? "" : std::to_string(4000000000u - expected.size());
            text += CsvLine(columns, separator);
            expected.push_back(columns);
        }
        const Records traces = Read(text, true, separator);
        ASSERT_EQ(traces.size(), expected.size());
        for (std::size_t i = 0; i < traces.size(); ++i) {
            EXPECT_EQ(Of(*traces[i]), expected[i]);
            // The numbers come back through their texts.
            EXPECT_EQ(traces[i]->GetSeverity(), 3u);
            EXPECT_EQ(traces[i]->GetProcessID(), 42);
            EXPECT_EQ(traces[i]->GetThreadID(), 0x1fu);
            EXPECT_EQ(traces[i]->GetTimestampMode(), TimestampMode::PRECISE);
            // The text read is the formatted message; the record has no message of its own.
            EXPECT_EQ(traces[i]->GetMessageString(), "");
        }
        EXPECT_EQ(WriteCsv(traces, separator), text);
    }
}

TEST(TraceFormats, CsvFieldQuotingSeesEveryPosition) {
    // The writer scans in blocks: a character that forces quotes must count wherever it stands.
    for (std::size_t length = 1; length <= 40; ++length) {
        std::string plain(length, 'x');
        std::string field;
        Internal::AppendCsvField(field, plain.data(), plain.size(), ',');
        ASSERT_EQ(field, plain);
        for (std::size_t at = 0; at < length; ++at)
            for (const char trigger : {',', '"', '\r', '\n', ' '}) {
                std::string text = plain;
                text[at] = trigger;
                field.clear();
                Internal::AppendCsvField(field, text.data(), text.size(), ',');
                ASSERT_TRUE(field.size() > length && field.front() == '"' && field.back() == '"')
                    << length << " " << at << " " << static_cast<int>(trigger);
            }
    }
    // No padding byte may pass for the separator.
    std::string field;
    Internal::AppendCsvField(field, "abc", 3, '\0');
    EXPECT_EQ(field, "abc");
}

// A stream that logs a record of its own while a line is being written to it.
struct NestingBuffer : std::stringbuf {
    explicit NestingBuffer(const Trace& inner) : inner(inner) {}
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        if (nested.str().empty())
            inner.WriteToStream(nested, '|');
        return std::stringbuf::xsputn(s, n);
    }
    const Trace& inner;
    std::ostringstream nested;
};

TEST(TraceFormats, NestedWritesKeepTheirOwnLines) {
    const Records traces = ReadCsv(CsvLine(Typical("outer")) + CsvLine(Typical("inner", "8")));
    NestingBuffer buffer(*traces.at(1));
    std::ostream out(&buffer);
    traces[0]->WriteCsvToStream(out, ';');
    EXPECT_EQ(buffer.str(), CsvLine(Typical("outer")));
    EXPECT_EQ(buffer.nested.str(), "         8" + kLogColumns + "inner|file.cpp                 |12    \n");
}

TEST(TraceFormats, CsvLogicalLinesSpanPhysicalLines) {
    std::istringstream in("1;\"a\r\nb\";x\r\n2;y\n3;\"open\nrest");
    std::string line;
    Internal::ReadCsvLine(in, line);
    EXPECT_EQ(line, "1;\"a\r\nb\";x");  // the inner carriage return belongs to the field
    Internal::ReadCsvLine(in, line);
    EXPECT_EQ(line, "2;y");
    // An unbalanced quote runs to the end of the stream; the unterminated last line is left out.
    Internal::ReadCsvLine(in, line);
    EXPECT_EQ(line, "3;\"open\n");
    EXPECT_FALSE(in.good());

    // The header is skipped only before the first record; empty lines and CR LF endings are skipped.
    const Records traces = ReadCsv(kCsvHeader + kCsvHeader + "\r\n\n5;h\r\n#;again\n6;final");
    ASSERT_EQ(traces.size(), 2u);
    EXPECT_EQ(traces[0]->GetID(), 5u);
    EXPECT_EQ(traces[0]->GetHostName(), "h");
    EXPECT_EQ(traces[1]->GetID(), 0u);
    EXPECT_EQ(traces[1]->GetHostName(), "again");
}

TEST(TraceFormats, LogReaderJoinsContinuationLines) {
    std::string csv;
    for (const char* message : {"two\nlines", "trailing\n", "cr\r\ninside", "first\na|b|c|d|e|f|g|h|i|j|k"}) {
        Columns columns = Typical(message);
        columns[11] = columns[12] = "";
        csv += CsvLine(columns);
    }
    csv += CsvLine(Typical("hello"));
    const std::string log = WriteLog(ReadCsv(csv));
    // Text before the first record has nothing to continue; an unterminated last line is not read.
    const Records traces =
        Read("orphan line\n" + log + "         8|h|s|a|u|m|Info|f|t|p|unterminated", false, '|');
    ASSERT_EQ(traces.size(), 5u);
    EXPECT_EQ(traces[0]->GetFormattedMessage(), "two\nlines");
    EXPECT_EQ(traces[1]->GetFormattedMessage(), "trailing\n");
    EXPECT_EQ(traces[2]->GetFormattedMessage(), "cr\ninside");
    EXPECT_EQ(traces[3]->GetFormattedMessage(), "first\na|b|c|d|e|f|g|h|i|j|k");
    // The log does not restore the location: it stays in the message.
    EXPECT_EQ(traces[4]->GetFormattedMessage(), "hello|file.cpp                 |12    ");
    EXPECT_EQ(traces[4]->GetFileName(), "");
    EXPECT_EQ(traces[4]->GetLineNumber(), 0u);
    Columns expected = Typical("hello|file.cpp                 |12    ");
    expected[11] = expected[12] = "";
    EXPECT_EQ(Of(*traces[4]), expected);
    EXPECT_EQ(traces[4]->GetSeverity(), 3u);

    // A line of ten separators is a record if its severity is known, its severity column has the
    // written width, or it says "None" or "No Severity"; otherwise it continues the message.
    const Records severities = Read(
        "1|h|s|a|u|m|Info|f|t|p|first\n"
        "2|h|s|a|u|m|Bogus|f|t|p|continues\r\n"
        "3|h|s|a|u|m|Bogus            |f|t|p|written width\n"
        "4|h|s|a|u|m|None|f|t|p|none\n"
        "5|h|s|a|u|m|No Severity|f|t|p|none either\n",
        false, '|');
    ASSERT_EQ(severities.size(), 4u);
    EXPECT_EQ(severities[0]->GetFormattedMessage(), "first\n2|h|s|a|u|m|Bogus|f|t|p|continues");
    EXPECT_EQ(severities[1]->GetID(), 3u);
    EXPECT_EQ(severities[1]->GetSeverity(), 0u);
    EXPECT_EQ(severities[3]->GetFormattedMessage(), "none either");

    // Continuation text never lands in a binary record; a null last entry still allows a header.
    std::vector<char> id(9, 0);
    id[0] = 42;
    Records mixed;
    mixed.push_back(std::make_unique<Trace>());
    ASSERT_TRUE(mixed.back()->Create(1, 1, 0, 0, 0, 0, 4, 0, 0, 0, id.data(), nullptr, id.data() + 8));
    std::istringstream loose("loose text\n\n");
    Trace::ReadFromStream(loose, mixed, 0, '|');
    ASSERT_EQ(mixed.size(), 1u);
    EXPECT_EQ(mixed[0]->GetMessageString(), "");
    mixed.push_back(nullptr);
    std::istringstream afterNull(kLogHeader + "loose\n");
    Trace::ReadFromStream(afterNull, mixed, 0, '|');
    EXPECT_EQ(mixed.size(), 2u);
}

TEST(TraceFormats, MaxCountStopsAfterEnoughRecords) {
    std::string csv;
    for (int i = 1; i <= 5; ++i)
        csv += CsvLine(Typical("line\nnext", std::to_string(i)));
    const std::string log = WriteLog(ReadCsv(csv));
    for (const bool isCsv : {true, false}) {
        std::istringstream in(isCsv ? csv : log);
        Records traces;
        const auto read = [&](unsigned maxCount) {
            isCsv ? Trace::ReadCsvFromStream(in, traces, maxCount, ';')
                  : Trace::ReadFromStream(in, traces, maxCount, '|');
        };
        read(2);
        ASSERT_EQ(traces.size(), 2u);
        read(2);  // already full: one more record
        ASSERT_EQ(traces.size(), 3u);
        EXPECT_EQ(traces[2]->GetID(), 3u);
        read(0);
        EXPECT_EQ(traces.size(), 5u);
    }
}

TEST(TraceFormats, CsvOutputReadsAsThirteenColumnsElsewhere) {
    if (std::system("python3 -c '' >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "no python3";
    std::string csv;
    for (const std::string& message : kMessyMessages)
        csv += CsvLine(Typical(message));
    const Records traces = ReadCsv(csv);
    const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("paxltrace_formats_" + std::to_string(::getpid()) + ".csv");
    {
        std::ofstream out(file, std::ios::binary);
        out << WriteCsv(traces);
    }
    // Prints the column counts seen, then the messages, each followed by a zero byte.
    const std::string command =
        "python3 -c \"import csv,sys\n"
        "rows=list(csv.reader(open(sys.argv[1],newline='',encoding='utf-8',errors='surrogateescape'),"
        "delimiter=';'))\n"
        "print(sorted(set(len(r) for r in rows)),flush=True)\n"
        "for r in rows[1:]: sys.stdout.buffer.write(r[10].encode('utf-8','surrogateescape')+bytes(1))\" " +
        file.string();
    FILE* pipe = ::popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    char chunk[256];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof(chunk), pipe)) > 0;)
        output.append(chunk, n);
    EXPECT_EQ(::pclose(pipe), 0);
    std::filesystem::remove(file);
    std::string expected = "[13]\n";
    for (const std::string& message : kMessyMessages)
        expected += message + '\0';
    EXPECT_EQ(output, expected);
}

TEST(TraceFormats, HostileInputNeverBreaksTheReaders) {
    std::string valid;
    for (const std::string& message : kMessyMessages)
        valid += CsvLine(Typical(message));
    const std::string validLog = WriteLog(ReadCsv(valid));
    std::vector<std::string> inputs = {"\"",
                                       "\"\"\"\n",
                                       ";;;;;;;;;;;;;;\n",
                                       "||||||||||\n|||||||||||\r\n",
                                       std::string("1;\0;\"\0\"\n", 8),
                                       "#\n#;\n\r\r\n",
                                       "None|None|\n\n"};
    // Valid text cut at odd places, and with a quote or a separator dropped in.
    for (std::size_t cut = 1; cut < valid.size(); cut += 37) {
        inputs.push_back(valid.substr(cut, 300));
        inputs.push_back(validLog.substr(cut * 2, 400));
        std::string damaged = valid;
        damaged[cut] = cut % 2 ? '"' : '|';
        inputs.push_back(damaged);
    }
    for (const std::string& input : inputs)
        for (const char separator : {';', '|', '"', '\n', '\0'})
            for (const unsigned maxCount : {0u, 2u}) {
                Records fromCsv = Read(input, true, separator, maxCount);
                Records fromLog = Read(input, false, separator, maxCount);
                if (maxCount != 0) {
                    ASSERT_LE(fromCsv.size(), maxCount);
                    ASSERT_LE(fromLog.size(), maxCount);
                }
                std::ostringstream sink;
                for (const Records* records : {&fromCsv, &fromLog})
                    for (const auto& t : *records) {
                        t->WriteToStream(sink, separator);
                        t->WriteCsvToStream(sink, separator);
                    }
                // Once read, CSV records survive writing and reading again unchanged.
                if (separator == ';' || separator == '|') {
                    const std::string written = WriteCsv(fromCsv, separator);
                    const Records again = Read(written, true, separator);
                    ASSERT_EQ(again.size(), fromCsv.size()) << written;
                    for (std::size_t i = 0; i < again.size(); ++i)
                        ASSERT_EQ(Of(*again[i]), Of(*fromCsv[i])) << written;
                }
            }
}

}  // namespace Tracing
