#include "tools/TraceFileReader.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sstream>

#include "Trace/Records/CsvField.h"
#include "Trace/Records/Trace.h"

namespace Tracing::Tool {
namespace {

constexpr std::size_t CsvSeparators = 12;
constexpr std::size_t LogSeparatorsBeforeMessage = 10;

std::size_t CountOf(const std::string& line, char c) {
    return static_cast<std::size_t>(std::count(line.begin(), line.end(), c));
}

}  // namespace

TraceFileReader::TraceFileReader(std::istream& in, Format format, char separator)
    : m_in(in), m_format(format), m_separator(separator) {
    std::ostringstream header;
    if (format == Format::Csv)
        Trace::GetTraceCsvHeader(header, separator);
    else
        Trace::GetTraceHeader(header, separator);
    m_headerStart = header.str();
    m_headerStart.resize(m_headerStart.find(separator) + 1);
}

TraceFileReader::~TraceFileReader() = default;

bool TraceFileReader::IsCsvRecord(const std::string& line) const {
    // The ID: digits, as the writer puts them.
    std::size_t i = line.find_first_not_of(' ');
    const std::size_t digits = i;
    while (i < line.size() && line[i] >= '0' && line[i] <= '9')
        ++i;
    if (i == digits || i >= line.size() || line[i] != m_separator)
        return false;
    // Separators outside quotes; a quoted field's doubled quotes toggle twice.
    std::size_t separators = 0;
    bool quoted = false;
    for (; i < line.size(); ++i) {
        const char c = line[i];
        if (c == '"')
            quoted = !quoted;
        else if (c == m_separator && !quoted)
            ++separators;
    }
    return separators >= CsvSeparators;
}

bool TraceFileReader::CollectCsv(std::size_t maxLines) {
    for (std::size_t lines = 0; lines < maxLines && m_in.good();) {
        Internal::ReadCsvLine(m_in, m_line);
        if (m_line.empty())
            continue;
        if (!m_seenRecord && m_line.starts_with(m_headerStart))
            continue;
        if (!IsCsvRecord(m_line)) {
            ++m_skipped;
            continue;
        }
        m_seenRecord = true;
        m_chunk += m_line;
        m_chunk += '\n';
        ++lines;
    }
    return m_in.good();
}

bool TraceFileReader::CollectLog(std::size_t maxLines) {
    for (std::size_t lines = 0; lines < maxLines;) {
        std::getline(m_in, m_line);
        if (!m_in.good()) {
            // A last line without its line feed is not read (it may still be being written).
            if (!m_line.empty())
                ++m_skipped;
            return false;
        }
        if (!m_seenRecord) {
            if (m_line.starts_with(m_headerStart))
                continue;
            if (CountOf(m_line, m_separator) < LogSeparatorsBeforeMessage) {
                // Nothing to continue yet.
                if (!m_line.empty() && m_line != "\r")
                    ++m_skipped;
                continue;
            }
            m_seenRecord = true;
        }
        m_chunk += m_line;
        m_chunk += '\n';
        ++lines;
    }
    return true;
}

void TraceFileReader::Parse(std::vector<std::unique_ptr<Trace>>& into) {
    m_chunkBuffer.Reset(m_chunk);
    std::istream chunk(&m_chunkBuffer);
    if (m_format == Format::Csv)
        Trace::ReadCsvFromStream(chunk, into, 0, m_separator);
    else
        Trace::ReadFromStream(chunk, into, 0, m_separator);
    m_chunk.clear();
}

bool TraceFileReader::ReadBatch(std::vector<std::unique_ptr<Trace>>& traces, std::size_t maxLines) {
    if (m_ended)
        return false;
    maxLines = std::max<std::size_t>(maxLines, 1);
    if (m_format == Format::Csv) {
        m_ended = !CollectCsv(maxLines);
        const std::size_t before = traces.size();
        Parse(traces);
        return traces.size() != before || !m_ended;
    }
    m_ended = !CollectLog(maxLines);
    std::vector<std::unique_ptr<Trace>> batch;
    if (m_last != nullptr)
        batch.push_back(std::move(m_last));
    Parse(batch);
    if (!m_ended && !batch.empty()) {
        m_last = std::move(batch.back());
        batch.pop_back();
    }
    const bool any = !batch.empty();
    traces.insert(traces.end(), std::make_move_iterator(batch.begin()), std::make_move_iterator(batch.end()));
    return any || !m_ended;
}

}  // namespace Tracing::Tool
