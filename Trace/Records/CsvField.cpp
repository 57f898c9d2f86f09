#include "Trace/Records/CsvField.h"

#include <cstring>

namespace Tracing::Internal {
namespace {

bool NeedsQuotes(const char* text, std::size_t length, char separator) {
    for (std::size_t i = 0; i < length; ++i) {
        const char c = text[i];
        if (c == separator || c == '"' || c == '\r' || c == '\n' || c == ' ')
            return true;
    }
    return false;
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
    for (std::size_t i = 0; i < length; ++i) {
        if (text[i] == '"') {
            // Write up to and including the quote, then the quote once more.
            write(text + start, i + 1 - start);
            write("\"", 1);
            start = i + 1;
        }
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

}  // namespace Tracing::Internal
