// The consumer's record of one trace.
//
// Built from a ring entry by Create (every size checked against the readable end) or from the
// text columns of a log or CSV line. The message is formatted lazily, on first request.
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "Trace/Time/TimestampMode.h"

namespace Tracing {

class TraceBuffer;
class TraceMessage;

class Trace {
public:
    enum Type : uint32_t { Text = 0, Binary = 1 };

    static constexpr char LOG_SEPARATOR = '|';
    static constexpr char CSV_SEPARATOR = ';';

    Trace() = default;
    Trace(const Trace& other);
    Trace& operator=(const Trace& other);
    Trace(Trace&&) noexcept = default;
    Trace& operator=(Trace&&) noexcept = default;
    ~Trace() = default;

    // Records come from a pool that keeps its memory (see TracePool).
    static void* operator new(std::size_t size);
    static void operator delete(void* block, std::size_t size) noexcept;

    // Fills the record from the variable part of a ring entry at data: the message (messageSize
    // bytes with terminator) or an 8-byte binary ID, parameterSize bytes of parameters, then the
    // location (4-byte line, file name with terminator). dataEnd, when not null, bounds every
    // read. False on a malformed entry; the fields stored so far stay.
    bool Create(unsigned int id, int bufferID, int moduleID, uint64_t timestamp, int64_t processID,
                unsigned int threadID, unsigned int severityWord, unsigned int messageSize,
                unsigned int parameterSize, unsigned int locationSize, const char* data,
                const TraceBuffer* buffer, const char* dataEnd);

    // Fills the text fields from the producer's buffer.
    void FillExtendedData(const TraceBuffer* buffer);

    const std::string& GetFormattedMessage() const;
    void SetFormattedMessage(const std::string& text);
    void AppendMessage(const char* text);
    // Formats again a message that was shown as an unresolved binary trace.
    void RefreshBinaryTrace();

    void FillTraceMessage(TraceMessage& message) const;
    // Fills up to nine parameters from a serialised parameter block of size bytes; never reads
    // past it.
    static void FillTraceMessage(TraceMessage& message, unsigned int size,
                                 const unsigned char* parameterBuffer);

    // Moves "<@T=...=T@>" (timestamp) and "<@H=...=H@>" (host) prefixes of the message into the
    // record's fields.
    void ExtractOverrideValuesFromMessage();

    // Compares the numbers, message, parameters and location; the text fields take no part.
    bool operator==(const Trace& other) const;
    static bool LessById(const std::unique_ptr<Trace>& left, const std::unique_ptr<Trace>& right) {
        return left->m_id < right->m_id;
    }

    // Log and CSV lines (defined with the log format).
    static void GetTraceHeader(std::ostream& out, char separator);
    static void GetTraceCsvHeader(std::ostream& out, char separator);
    void WriteToStream(std::ostream& out, char separator) const;
    void WriteCsvToStream(std::ostream& out, char separator) const;
    static void ReadFromStream(std::istream& in, std::vector<std::unique_ptr<Trace>>& traces,
                               unsigned int maxCount, char separator);
    static void ReadCsvFromStream(std::istream& in, std::vector<std::unique_ptr<Trace>>& traces,
                                  unsigned int maxCount, char separator);

    unsigned int GetID() const { return m_id; }
    Type GetType() const { return m_type; }
    int GetBufferID() const { return m_bufferID; }
    int GetModuleID() const { return m_moduleID; }
    uint64_t GetTimestamp() const { return m_timestamp; }
    TimestampMode::Type GetTimestampMode() const { return m_timestampMode; }
    int64_t GetProcessID() const { return m_processID; }
    unsigned int GetThreadID() const { return m_threadID; }
    unsigned int GetSeverity() const { return m_severityWord & 7; }
    unsigned int GetSeverityMask() const { return m_severityWord; }
    const std::string& GetMessageString() const { return m_message; }
    uint64_t GetBinaryTraceID() const { return m_binaryTraceId; }
    const unsigned char* GetParameterBuffer() const {
        if (m_parameterBufferSize == 0)
            return nullptr;
        return m_parameterBufferSize <= InlineParameterBytes ? m_inlineParameters : m_parameterBuffer.get();
    }
    unsigned int GetParameterBufferSize() const { return m_parameterBufferSize; }
    const std::string& GetFileName() const { return m_fileName; }
    unsigned int GetLineNumber() const { return m_lineNumber; }
    const std::string& GetTimestampText() const { return m_timestampText; }
    const std::string& GetThreadIDText() const { return m_threadIDText; }
    const std::string& GetSeverityText() const { return m_severityText; }
    const std::string& GetFlags() const { return m_flagsText; }
    const std::string& GetHostName() const { return m_hostName; }
    const std::string& GetSystemName() const { return m_systemName; }
    const std::string& GetApplicationName() const { return m_applicationName; }
    const std::string& GetSubSystemName() const { return m_subSystemName; }
    const std::string& GetModuleName() const { return m_moduleName; }

    void SetSystemName(const std::string& name) { m_systemName = name; }
    void SetApplicationName(const std::string& name) { m_applicationName = name; }
    void SetModuleName(const std::string& name) { m_moduleName = name; }

private:
    void OverrideTraceTimestamp(const std::string& text);
    void OverrideTraceHost(const std::string& host);
    // Derives severity, timestamp and IDs from the text fields read from a log or CSV line.
    void FillFromTextFields();
    bool HasParameters() const;
    // Copies size bytes of serialised parameters into the record.
    void SetParameters(const void* data, unsigned int size);

    // Most traces carry a few numbers and a short text: their parameters stay in the record.
    static constexpr unsigned int InlineParameterBytes = 32;

    unsigned int m_id = 0;
    Type m_type = Text;
    int m_bufferID = -1;
    int m_moduleID = -1;
    uint64_t m_timestamp = 0;
    TimestampMode::Type m_timestampMode = TimestampMode::NotSet;
    int64_t m_processID = 0;
    unsigned int m_threadID = 0;
    unsigned int m_severityWord = 0;
    std::string m_message;
    uint64_t m_binaryTraceId = 0;
    // Inline up to InlineParameterBytes, else in m_parameterBuffer; none when the size is 0.
    unsigned int m_parameterBufferSize = 0;
    unsigned char m_inlineParameters[InlineParameterBytes];
    std::unique_ptr<unsigned char[]> m_parameterBuffer;
    std::string m_fileName;
    unsigned int m_lineNumber = 0;
    mutable std::string m_formattedMessage;  // cache of GetFormattedMessage
    std::string m_timestampText;
    std::string m_threadIDText;
    std::string m_severityText;
    std::string m_flagsText;
    std::string m_hostName;
    std::string m_systemName;
    std::string m_applicationName;
    std::string m_subSystemName;
    std::string m_moduleName;
};

namespace Internal {
inline int GetBufferID(const Trace& trace) {
    return trace.GetBufferID();
}
inline int GetModuleID(const Trace& trace) {
    return trace.GetModuleID();
}
}  // namespace Internal

}  // namespace Tracing
