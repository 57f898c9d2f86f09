// One field of a CSV or log line.
#pragma once

#include <istream>
#include <ostream>
#include <string>

namespace Tracing::Internal {

// Writes text as one field: nothing when empty; quoted (inner quotes doubled) when it holds the
// separator, a double quote, a carriage return, a line feed or a space; otherwise as it stands.
void WriteCsvField(std::ostream& out, const std::string& text, char separator);
void WriteCsvField(std::ostream& out, const char* text, char separator);

// Appends the field that text would be written as to out (same rule as WriteCsvField).
void AppendCsvField(std::string& out, const char* text, std::size_t length, char separator);

// Reads one field at cursor into out and moves cursor behind it (and behind its separator).
// A quoted field runs to its closing quote (doubled quotes are one quote) or to the end of the
// text; an unquoted one is trimmed of spaces and ends at the separator, CR, LF or the end.
void ReadCsvField(const char*& cursor, std::string& out, char separator);

// Reads one column of a log line: the unquoted form of ReadCsvField (a double quote is text).
void ReadLogField(const char*& cursor, std::string& out, char separator);

// Reads one logical line into out: physical lines are joined with a line feed while the count of
// double quotes is odd (a quoted field holds a line break). One trailing carriage return is
// dropped. A last physical line without a line feed is left out, so an unbalanced quote ends at
// the end of the stream.
void ReadCsvLine(std::istream& in, std::string& out);

}  // namespace Tracing::Internal
