#include "Trace/Records/CsvField.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace Tracing::Internal {
namespace {

bool NeedsQuotes(const char* text, std::size_t length, char separator) {
    // Log writers format every field of every record: whole blocks without an early exit let the
    // compiler compare 16 bytes at once. A byte mask per compare is the form it vectorises.
    constexpr std::size_t kBlock = 16;
    const auto blockHits = [separator](const unsigned char(&block)[kBlock]) {
        unsigned char hits = 0;
        for (const unsigned char c : block) {
            const auto mask = [c](unsigned char target) {
                return static_cast<unsigned char>(-(c == target));
            };
            hits |=
                mask(static_cast<unsigned char>(separator)) | mask('"') | mask('\r') | mask('\n') | mask(' ');
        }
        return hits != 0;
    };
    if (length < kBlock) {
        // Most fields are short: a table lookup per byte beats assembling a padded block.
        static constexpr auto kTriggers = [] {
            std::array<bool, 256> table{};
            table['"'] = table['\r'] = table['\n'] = table[' '] = true;
            return table;
        }();
        for (std::size_t i = 0; i < length; ++i)
            if (kTriggers[static_cast<unsigned char>(text[i])] || text[i] == separator)
                return true;
        return false;
    }
    unsigned char block[kBlock];
    std::size_t i = 0;
    for (; i + kBlock <= length; i += kBlock) {
        std::memcpy(block, text + i, kBlock);
        if (blockHits(block))
            return true;
    }
    if (i == length)
        return false;
    // The rest, as the last (overlapping) block.
    std::memcpy(block, text + length - kBlock, kBlock);
    return blockHits(block);
}

template <typename Sink>
void WriteField(Sink&& write, const char* text, std::size_t length, char separator) {
    if (length == 0)
        return;
    if (!NeedsQuotes(text, length, separator)) {
        write(text, length);
        return;
    }
    write("\"", 1);
    std::size_t start = 0;
    while (const void* found = std::memchr(text + start, '"', length - start)) {
        // Write up to and including the quote, then the quote once more.
        const std::size_t quote = static_cast<std::size_t>(static_cast<const char*>(found) - text);
        write(text + start, quote + 1 - start);
        write("\"", 1);
        start = quote + 1;
    }
    write(text + start, length - start);
    write("\"", 1);
}

}  // namespace

void WriteCsvField(std::ostream& out, const std::string& text, char separator) {
    WriteField([&out](const char* p, std::size_t n) { out.write(p, static_cast<std::streamsize>(n)); },
               text.data(), text.size(), separator);
}

void WriteCsvField(std::ostream& out, const char* text, char separator) {
    if (text == nullptr)
        return;
    WriteField([&out](const char* p, std::size_t n) { out.write(p, static_cast<std::streamsize>(n)); }, text,
               std::strlen(text), separator);
}

void AppendCsvField(std::string& out, const char* text, std::size_t length, char separator) {
    WriteField([&out](const char* p, std::size_t n) { out.append(p, n); }, text, length, separator);
}

void ReadCsvField(const char*& cursor, std::string& out, char separator) {
    out.clear();
    const char* p = cursor;
    if (*p == '"') {
        ++p;
        for (;;) {
            const char* quote = std::strchr(p, '"');
            if (quote == nullptr) {
                // No closing quote: the rest of the text is the field.
                out.append(p);
                cursor = p + std::strlen(p);
                return;
            }
            out.append(p, quote);
            if (quote[1] == '"') {
                out += '"';
                p = quote + 2;
                continue;
            }
            p = quote + 1;
            if (*p == separator && *p != '\0')
                ++p;
            cursor = p;
            return;
        }
    }

    ReadLogField(cursor, out, separator);
}

void ReadLogField(const char*& cursor, std::string& out, char separator) {
    const char* p = cursor;
    while (*p == ' ')
        ++p;
    const char* start = p;
    while (*p != '\0' && *p != separator && *p != '\r' && *p != '\n')
        ++p;
    const char* end = p;
    while (end > start && end[-1] == ' ')
        --end;
    out.assign(start, end);
    if (*p == separator && *p != '\0')
        ++p;
    cursor = p;
}

void ReadCsvLine(std::istream& in, std::string& out) {
    out.clear();
    std::getline(in, out);
    std::size_t quotes = static_cast<std::size_t>(std::count(out.begin(), out.end(), '"'));
    if ((quotes & 1) != 0 && in.good()) {
        // A quoted field continues on the next physical line.
        std::string physical;
        do {
            out += '\n';
            std::getline(in, physical);
            quotes += static_cast<std::size_t>(std::count(physical.begin(), physical.end(), '"'));
            if (in.good())
                out += physical;
        } while ((quotes & 1) != 0 && in.good());
    } else if (!in.good()) {
        // Unterminated last line: it may still be being written.
        out.clear();
    }
    if (!out.empty() && out.back() == '\r')
        out.pop_back();
}

}  // namespace Tracing::Internal
