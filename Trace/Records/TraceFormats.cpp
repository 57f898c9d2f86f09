// Log and CSV lines of trace records.
//
// Writing sits on the consumer's hot path (a collector logs every record it reads), so a line is
// built in one reused per-thread buffer and handed to the stream in a single write instead of
// padding each column through the stream's formatting.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "Trace/Records/CsvField.h"
#include "Trace/Records/Severity.h"
#include "Trace/Records/Trace.h"

namespace Tracing {
namespace {

struct Column {
    std::string_view header;
    std::size_t width;
};

// Both formats share the columns; widths are minimums of the log format (0: no padding).
constexpr Column kColumns[] = {
    {"#", 10},      {"Host", 20},     {"System", 20}, {"Application", 20}, {"Subsystem", 20},
    {"Module", 20}, {"Severity", 17}, {"Flags", 10},  {"Timestamp", 29},   {"Process/Thread", 14},
    {"Text", 0},    {"Filename", 25}, {"Line #", 6},
};
constexpr std::size_t kColumnCount = std::size(kColumns);
enum ColumnIndex : std::size_t {
    Id,
    Host,
    System,
    Application,
    Subsystem,
    Module,
    SeverityColumn,
    Flags,
    Timestamp,
    ThreadId,
    Message,
    FileName,
    LineNumber
};
static_assert(kColumnCount == LineNumber + 1);

// A log record has a separator after each column before the message.
constexpr std::ptrdiff_t kSeparatorsBeforeMessage = Message;

// A record's severity column as the writer produces it: the padded text and its separator. A line
// with many separators whose severity column has another width is message text, not a record.
constexpr std::size_t kWrittenSeverityColumn = kColumns[SeverityColumn].width + 1;

// Capacity kept between lines; a line with a huge message gives its memory back afterwards.
constexpr std::size_t kKeptLineCapacity = 64 * 1024;

// The calling thread's line, reused so that writing a line allocates nothing once warmed up. A
// nested write (a stream or a diagnostic that logs a record itself) gets a line of its own.
class LineBuffer {
public:
    LineBuffer() : m_shared(Shared()), m_owner(!m_shared.busy) {
        if (m_owner) {
            m_shared.busy = true;
            m_shared.line.clear();
        }
    }
    ~LineBuffer() {
        if (!m_owner)
            return;
        if (m_shared.line.capacity() > kKeptLineCapacity) {
            m_shared.line.clear();
            m_shared.line.shrink_to_fit();
        }
        m_shared.busy = false;
    }
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;

    std::string& Get() { return m_owner ? m_shared.line : m_own; }
    void WriteTo(std::ostream& out) {
        const std::string& line = Get();
        out.write(line.data(), static_cast<std::streamsize>(line.size()));
    }

private:
    struct State {
        std::string line;
        bool busy = false;
    };
    static State& Shared() {
        thread_local State state;
        return state;
    }
    State& m_shared;
    bool m_owner;
    std::string m_own;
};

void AppendLeft(std::string& line, std::string_view text, std::size_t width) {
    line.append(text);
    if (text.size() < width)
        line.append(width - text.size(), ' ');
}

void AppendRight(std::string& line, std::string_view text, std::size_t width) {
    if (text.size() < width)
        line.append(width - text.size(), ' ');
    line.append(text);
}

struct Decimal {
    explicit Decimal(unsigned int value) {
        length = std::to_chars(digits, digits + sizeof(digits), value).ptr - digits;
    }
    std::string_view View() const { return {digits, static_cast<std::size_t>(length)}; }
    char digits[16];
    std::ptrdiff_t length;
};

void AppendCsv(std::string& line, const std::string& text, char separator) {
    Internal::AppendCsvField(line, text.data(), text.size(), separator);
}

void BuildCsvHeader(std::string& line, char separator) {
    for (std::size_t i = 0; i < kColumnCount; ++i) {
        if (i != 0)
            line += separator;
        // Quoting is decided by the default separator whatever the actual one is, so that the
        // header reads the same in every file ("Line #" always quoted).
        Internal::AppendCsvField(line, kColumns[i].header.data(), kColumns[i].header.size(),
                                 Trace::CSV_SEPARATOR);
    }
    line += '\n';
}

// "%u": leading white space, an optional sign, digits; 0 when nothing converts.
unsigned int ScanUnsigned(const std::string& text) {
    unsigned int value = 0;
    if (std::sscanf(text.c_str(), "%u", &value) != 1)
        return 0;
    return value;
}

}  // namespace

void Trace::GetTraceHeader(std::ostream& out, char separator) {
    LineBuffer buffer;
    std::string& line = buffer.Get();
    for (std::size_t i = 0; i < kColumnCount; ++i) {
        if (i != 0)
            line += separator;
        if (i == Id)
            AppendRight(line, kColumns[i].header, kColumns[i].width);
        else
            AppendLeft(line, kColumns[i].header, kColumns[i].width);
    }
    line += '\n';
    buffer.WriteTo(out);
    out.flush();
}

void Trace::GetTraceCsvHeader(std::ostream& out, char separator) {
    LineBuffer buffer;
    BuildCsvHeader(buffer.Get(), separator);
    buffer.WriteTo(out);
}

void Trace::WriteToStream(std::ostream& out, char separator) const {
    LineBuffer buffer;
    std::string& line = buffer.Get();
    AppendRight(line, Decimal(m_id).View(), kColumns[Id].width);
    line += separator;
    const std::string* const texts[] = {&m_hostName,      &m_systemName,    &m_applicationName,
                                        &m_subSystemName, &m_moduleName,    &m_severityText,
                                        &m_flagsText,     &m_timestampText, &m_threadIDText};
    for (std::size_t i = 0; i < std::size(texts); ++i) {
        AppendLeft(line, *texts[i], kColumns[Host + i].width);
        line += separator;
    }
    // Written as it stands: a message with line feeds spans several physical lines.
    line += GetFormattedMessage();
    if (!m_fileName.empty()) {
        line += separator;
        AppendLeft(line, m_fileName, kColumns[FileName].width);
        line += separator;
        AppendLeft(line, Decimal(m_lineNumber).View(), kColumns[LineNumber].width);
    }
    line += '\n';
    buffer.WriteTo(out);
    out.flush();
}

void Trace::WriteCsvToStream(std::ostream& out, char separator) const {
    LineBuffer buffer;
    std::string& line = buffer.Get();
    line.append(Decimal(m_id).View());
    line += separator;
    const std::string* const texts[] = {
        &m_hostName,     &m_systemName,          &m_applicationName, &m_subSystemName,
        &m_moduleName,   &m_severityText,        &m_flagsText,       &m_timestampText,
        &m_threadIDText, &GetFormattedMessage(), &m_fileName};
    for (const std::string* text : texts) {
        AppendCsv(line, *text, separator);
        line += separator;
    }
    if (m_lineNumber != 0)
        line.append(Decimal(m_lineNumber).View());
    line += '\n';
    buffer.WriteTo(out);
    out.flush();
}

void Trace::ReadFromStream(std::istream& in, std::vector<std::unique_ptr<Trace>>& traces,
                           unsigned int maxCount, char separator) {
    // The header line begins with "#" right-aligned in its column and the first separator.
    std::string headerStart(kColumns[Id].width - kColumns[Id].header.size(), ' ');
    headerStart += kColumns[Id].header;
    headerStart += separator;

    // Lines that are not records continue the message of the record before them.
    const auto appendToLast = [&traces](std::string_view text) {
        Trace* last = traces.empty() ? nullptr : traces.back().get();
        if (last == nullptr || last->m_type != Text)
            return;
        last->m_message += '\n';
        last->m_message.append(text);
        last->m_formattedMessage.clear();
    };

    std::string line;
    std::string field;
    while (in.good()) {
        std::getline(in, line);
        // A last line without its line feed may still be being written.
        if (!in.good())
            break;
        if ((traces.empty() || traces.back() == nullptr) && line.starts_with(headerStart))
            continue;
        if (line.empty()) {
            appendToLast({});
            continue;
        }
        if (line.back() == '\r')
            line.pop_back();

        if (std::count(line.begin(), line.end(), separator) >= kSeparatorsBeforeMessage) {
            auto trace = std::make_unique<Trace>();
            const char* cursor = line.c_str();
            Internal::ReadLogField(cursor, field, separator);
            trace->m_id = ScanUnsigned(field);
            for (std::string* text : {&trace->m_hostName, &trace->m_systemName, &trace->m_applicationName,
                                      &trace->m_subSystemName, &trace->m_moduleName})
                Internal::ReadLogField(cursor, *text, separator);
            const char* severityStart = cursor;
            Internal::ReadLogField(cursor, trace->m_severityText, separator);
            const auto severityWidth = static_cast<std::size_t>(cursor - severityStart);
            for (std::string* text : {&trace->m_flagsText, &trace->m_timestampText, &trace->m_threadIDText})
                Internal::ReadLogField(cursor, *text, separator);
            // File name and line number columns stay in the message: the log does not restore them.
            trace->m_message.assign(cursor, static_cast<std::size_t>(line.data() + line.size() - cursor));
            trace->FillFromTextFields();

            const bool rejected = trace->GetSeverity() == Severity::None &&
                                  severityWidth != kWrittenSeverityColumn &&
                                  trace->m_severityText != Severity::Name(Severity::None) &&
                                  trace->m_severityText != "No Severity";
            if (!rejected) {
                traces.push_back(std::move(trace));
                if (maxCount != 0 && traces.size() >= maxCount)
                    return;
                continue;
            }
        }
        appendToLast(line);
    }
}

void Trace::ReadCsvFromStream(std::istream& in, std::vector<std::unique_ptr<Trace>>& traces,
                              unsigned int maxCount, char separator) {
    std::string headerStart;
    BuildCsvHeader(headerStart, separator);
    headerStart.resize(headerStart.find(separator) + 1);

    std::string line;
    std::string field;
    while (in.good()) {
        Internal::ReadCsvLine(in, line);
        if (line.empty())
            continue;
        if (traces.empty() && line.starts_with(headerStart))
            continue;

        auto trace = std::make_unique<Trace>();
        const char* cursor = line.c_str();
        Internal::ReadCsvField(cursor, field, separator);
        trace->m_id = ScanUnsigned(field);
        for (std::string* text : {&trace->m_hostName, &trace->m_systemName, &trace->m_applicationName,
                                  &trace->m_subSystemName, &trace->m_moduleName, &trace->m_severityText,
                                  &trace->m_flagsText, &trace->m_timestampText, &trace->m_threadIDText})
            Internal::ReadCsvField(cursor, *text, separator);
        std::string message;
        Internal::ReadCsvField(cursor, message, separator);
        Internal::ReadCsvField(cursor, trace->m_fileName, separator);
        Internal::ReadCsvField(cursor, field, separator);
        trace->m_lineNumber = field.empty() ? 0 : ScanUnsigned(field);
        // The text read is the formatted message; the message itself stays empty.
        trace->m_formattedMessage = std::move(message);
        trace->FillFromTextFields();

        traces.push_back(std::move(trace));
        if (maxCount != 0 && traces.size() >= maxCount)
            return;
    }
}

}  // namespace Tracing
