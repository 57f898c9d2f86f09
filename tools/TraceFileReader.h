// Reads a log or CSV trace file batch by batch, in memory bounded by the batch, not the file.
//
// Lines that cannot be records are counted and left out instead of being read as records: a CSV
// line needs its thirteen columns and a numeric ID; a log line before the first record needs to
// look like one (after the first record, such lines continue its message, as in the log format).
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

namespace Tracing {
class Trace;
}

namespace Tracing::Tool {

class TraceFileReader {
public:
    enum class Format { Log, Csv };

    TraceFileReader(std::istream& in, Format format, char separator);
    ~TraceFileReader();
    TraceFileReader(const TraceFileReader&) = delete;
    TraceFileReader& operator=(const TraceFileReader&) = delete;

    // Appends the records of up to about maxLines further lines; false once nothing is left. A
    // log record is handed out only when the line after it shows that its message is complete.
    bool ReadBatch(std::vector<std::unique_ptr<Trace>>& traces, std::size_t maxLines);

    // Lines that were not records (and did not continue one), including an unfinished last line.
    uint64_t GetSkippedLines() const { return m_skipped; }

private:
    // Reads the lines of one batch into m_chunk; false at the end of the input.
    bool CollectCsv(std::size_t maxLines);
    bool CollectLog(std::size_t maxLines);
    bool IsCsvRecord(const std::string& line) const;
    void Parse(std::vector<std::unique_ptr<Trace>>& into);

    // The batch's accepted lines, parsed by the record functions from memory.
    class ChunkBuffer : public std::streambuf {
    public:
        void Reset(std::string& text) { setg(text.data(), text.data(), text.data() + text.size()); }
    };

    std::istream& m_in;
    Format m_format;
    char m_separator;
    std::string m_headerStart;
    std::string m_line;
    std::string m_chunk;
    ChunkBuffer m_chunkBuffer;
    std::unique_ptr<Trace> m_last;  // log: the last record, whose message may go on
    bool m_seenRecord = false;
    bool m_ended = false;
    uint64_t m_skipped = 0;
};

}  // namespace Tracing::Tool
