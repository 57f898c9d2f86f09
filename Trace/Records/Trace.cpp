#include "Trace/Records/Trace.h"

#include <charconv>
#include <cstdio>
#include <cstring>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Records/ITraceRecordContext.h"
#include "Trace/Records/Severity.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Records/TraceParameter.h"
#include "Trace/Records/TracePool.h"
#include "Trace/Time/TraceTimer.h"

namespace Tracing {
namespace {

constexpr const char kNoFormatString[] = "<No format string!>";

struct OverrideTag {
    const char* open;
    const char* close;
};
// Tried in this order at every position.
constexpr OverrideTag kTimestampTag{"<@T=", "=T@>"};
constexpr OverrideTag kHostTag{"<@H=", "=H@>"};

// Types whose value has data bytes in the serialised form (reference types are written as their
// copying counterparts; a hostile entry may still hold them).
bool CarriesData(ParameterTypes::Values type) {
    return type >= ParameterTypes::String && type <= ParameterTypes::Bool;
}

}  // namespace

Trace::Trace(const Trace& other)
    : m_id(other.m_id),
      m_type(other.m_type),
      m_bufferID(other.m_bufferID),
      m_moduleID(other.m_moduleID),
      m_timestamp(other.m_timestamp),
      m_timestampMode(other.m_timestampMode),
      m_processID(other.m_processID),
      m_threadID(other.m_threadID),
      m_severityWord(other.m_severityWord),
      m_message(other.m_message),
      m_binaryTraceId(other.m_binaryTraceId),
      m_fileName(other.m_fileName),
      m_lineNumber(other.m_lineNumber),
      m_formattedMessage(other.m_formattedMessage),
      m_timestampText(other.m_timestampText),
      m_threadIDText(other.m_threadIDText),
      m_severityText(other.m_severityText),
      m_flagsText(other.m_flagsText),
      m_hostName(other.m_hostName),
      m_systemName(other.m_systemName),
      m_applicationName(other.m_applicationName),
      m_subSystemName(other.m_subSystemName),
      m_moduleName(other.m_moduleName) {
    SetParameters(other.GetParameterBuffer(), other.m_parameterBufferSize);
}

void* Trace::operator new(std::size_t size) {
    return TracePool::Allocate(size);
}

void Trace::operator delete(void* block, std::size_t size) noexcept {
    TracePool::Release(block, size);
}

void Trace::SetParameters(const void* data, unsigned int size) {
    m_parameterBuffer.reset();
    m_parameterBufferSize = 0;
    if (data == nullptr || size == 0)
        return;
    unsigned char* to = m_inlineParameters;
    if (size > InlineParameterBytes) {
        m_parameterBuffer = std::make_unique_for_overwrite<unsigned char[]>(size);
        to = m_parameterBuffer.get();
    }
    std::memcpy(to, data, size);
    m_parameterBufferSize = size;
}

Trace& Trace::operator=(const Trace& other) {
    if (this != &other) {
        Trace copy(other);
        *this = std::move(copy);
    }
    return *this;
}

bool Trace::Create(unsigned int id, int bufferID, int moduleID, uint64_t timestamp, int64_t processID,
                   unsigned int threadID, unsigned int severityWord, unsigned int messageSize,
                   unsigned int parameterSize, unsigned int locationSize, const char* data,
                   const TraceBuffer* buffer, const char* dataEnd) {
    SetParameters(nullptr, 0);
    m_formattedMessage.clear();
    m_id = id;
    m_bufferID = bufferID;
    m_moduleID = moduleID;
    m_timestamp = timestamp;
    m_processID = processID;
    m_threadID = threadID;
    m_severityWord = severityWord;

    if (data == nullptr || (dataEnd != nullptr && dataEnd < data))
        return false;
    const char* cursor = data;
    // Bytes left to read; unbounded when no end is given.
    const auto remaining = [&]() -> uint64_t {
        return dataEnd != nullptr ? static_cast<uint64_t>(dataEnd - cursor) : UINT64_MAX;
    };

    if (messageSize != 0) {
        // A message that exactly fills the rest is refused too: the entry always has more after it.
        if (messageSize >= remaining())
            return false;
        m_type = Text;
        m_message.assign(cursor, messageSize - 1);
        m_binaryTraceId = 0;
        cursor += messageSize;
    } else {
        if (remaining() < sizeof(uint64_t))
            return false;
        m_type = Binary;
        std::memcpy(&m_binaryTraceId, cursor, sizeof(uint64_t));
        m_message.clear();
        cursor += sizeof(uint64_t);
    }

    if (parameterSize != 0) {
        if (parameterSize > remaining())
            return false;
        SetParameters(cursor, parameterSize);
        cursor += parameterSize;
    }

    if (locationSize != 0) {
        // 4 bytes of line number and at least the name's terminator.
        if (locationSize > remaining() || locationSize < 5)
            return false;
        std::memcpy(&m_lineNumber, cursor, sizeof(uint32_t));
        m_fileName.assign(cursor + sizeof(uint32_t), locationSize - 5);
    } else {
        m_lineNumber = 0;
        m_fileName.clear();
    }

    if (buffer != nullptr)
        FillExtendedData(buffer);
    return true;
}

void Trace::FillExtendedData(const TraceBuffer* buffer) {
    if (ITraceRecordContext* context = ITraceRecordContext::Get(); buffer == nullptr && context != nullptr)
        buffer = context->FindConsumerBuffer(m_bufferID);
    // Without the producer's buffer the texts could not agree with each other: keep them all.
    if (buffer == nullptr)
        return;
    // "%llu (0x%x)" of process and thread, without a printf per record.
    char text[64];
    char* end = std::to_chars(text, text + 24, static_cast<unsigned long long>(m_processID)).ptr;
    std::memcpy(end, " (0x", 4);
    end = std::to_chars(end + 4, end + 16, m_threadID, 16).ptr;
    *end++ = ')';
    m_threadIDText.assign(text, end);
    m_timestampMode = buffer->GetTimestampMode();
    TraceTimer::Format(m_timestamp, m_timestampText, m_timestampMode);
    m_severityText = Severity::Name(m_severityWord & Severity::Mask);
    Severity::GetFlagsAsString(m_flagsText, m_severityWord, *buffer, m_moduleID);
    m_hostName = buffer->GetHostName();
    m_systemName = buffer->GetSystemName();
    m_applicationName = buffer->GetApplicationName();
    m_subSystemName = buffer->GetSubSystemName();
    if (!buffer->GetModuleName(m_moduleID, m_moduleName))
        m_moduleName.clear();
}

bool Trace::HasParameters() const {
    return !m_message.empty() && m_parameterBufferSize != 0;
}

const std::string& Trace::GetFormattedMessage() const {
    if (!m_formattedMessage.empty())
        return m_formattedMessage;
    if (m_type == Text && !HasParameters())
        return m_message;
    TraceMessage message;
    FillTraceMessage(message);
    if (message.GetText() != nullptr && message.GetParameterCount() == 0)
        m_formattedMessage = message.GetText();
    else
        TraceParameter::FormatString(m_formattedMessage, message.GetText(), message.GetBinaryTraceID(),
                                     message.GetParameterCount(), message.GetParameters());
    return m_formattedMessage;
}

void Trace::SetFormattedMessage(const std::string& text) {
    if (m_type == Text && !HasParameters()) {
        m_message = text;
        m_formattedMessage.clear();
    } else {
        m_formattedMessage = text;
    }
}

void Trace::AppendMessage(const char* text) {
    if (m_type != Text || text == nullptr)
        return;
    m_message += text;
    m_formattedMessage.clear();
}

void Trace::RefreshBinaryTrace() {
    const std::string current = GetFormattedMessage();
    std::string refreshed = current;
    TraceParameter::ParseFailedBinaryTrace(refreshed, current.c_str());
    m_formattedMessage = std::move(refreshed);
}

void Trace::FillTraceMessage(TraceMessage& message) const {
    if (m_type == Binary)
        message.SetBinaryTraceID(m_binaryTraceId);
    else
        message.SetText(m_message.c_str());
    FillTraceMessage(message, m_parameterBufferSize, GetParameterBuffer());
}

void Trace::FillTraceMessage(TraceMessage& message, unsigned int size, const unsigned char* parameterBuffer) {
    if (parameterBuffer == nullptr || size == 0)
        return;
    // The bytes come from another process: every size is found within the block or the walk ends.
    const unsigned char* const end = parameterBuffer + size;
    const unsigned char* p = parameterBuffer;
    while (p < end && message.GetParameterCount() < TraceMessage::MaxParameters) {
        auto type = static_cast<ParameterTypes::Values>(*p);
        if (type == ParameterTypes::StringRef)
            type = ParameterTypes::String;
        else if (type == ParameterTypes::WideStringRef)
            type = ParameterTypes::WideString;
        const unsigned char* data = p + TraceParameterData::SizeWithoutData;
        const uint64_t dataSize = TraceParameter::GetParameterSize(type, data, end);
        if (dataSize == 0 && CarriesData(type))
            break;
        TraceParameter::InitWithSize(*message.AddRawParameter(), type, data, static_cast<uint32_t>(dataSize));
        p = data + dataSize;
    }
}

void Trace::ExtractOverrideValuesFromMessage() {
    if (m_message.empty() || m_message[0] != '<')
        return;
    const std::string s = GetFormattedMessage();
    std::size_t p = 0;
    while (p < s.size() && s[p] == '<') {
        bool matched = false;
        for (const OverrideTag* tag : {&kTimestampTag, &kHostTag}) {
            const std::size_t openLength = std::strlen(tag->open);
            if (s.compare(p, openLength, tag->open) != 0)
                continue;
            const std::size_t valueStart = p + openLength;
            const std::size_t close = s.find(tag->close, valueStart);
            if (close == std::string::npos)
                continue;
            const std::string value = s.substr(valueStart, close - valueStart);
            if (tag == &kTimestampTag)
                OverrideTraceTimestamp(value);
            else
                OverrideTraceHost(value);
            p = close + std::strlen(tag->close);
            matched = true;
            break;
        }
        if (!matched)
            break;
    }
    if (p == 0)
        return;
    std::string rest = p < s.size() ? s.substr(p) : std::string(kNoFormatString);
    if (m_type == Text && !HasParameters()) {
        m_message = std::move(rest);
        m_formattedMessage.clear();
    } else {
        m_formattedMessage = std::move(rest);
    }
}

void Trace::OverrideTraceTimestamp(const std::string& text) {
    TimestampMode::Type mode = TimestampMode::NotSet;
    const uint64_t timestamp = TraceTimer::Parse(text, mode);
    if (mode == TimestampMode::NotSet)
        return;
    m_timestamp = timestamp;
    m_timestampMode = mode;
    TraceTimer::Format(timestamp, m_timestampText, mode);
}

void Trace::OverrideTraceHost(const std::string& host) {
    m_hostName = host;
}

void Trace::FillFromTextFields() {
    m_severityWord = Severity::FromName(m_severityText.c_str());
    m_timestamp = TraceTimer::Parse(m_timestampText, m_timestampMode);
    m_processID = 0;
    m_threadID = 0;
    if (m_threadIDText.find('(') != std::string::npos) {
        unsigned long long processID = 0;
        unsigned int threadID = 0;
        const int read = std::sscanf(m_threadIDText.c_str(), "%llu (%x)", &processID, &threadID);
        if (read >= 1)
            m_processID = static_cast<int64_t>(processID);
        if (read >= 2)
            m_threadID = threadID;
    } else {
        unsigned int threadID = 0;
        if (std::sscanf(m_threadIDText.c_str(), "%x", &threadID) == 1)
            m_threadID = threadID;
    }
    // A binary trace logged before its text was known is resolved now if possible; the message
    // itself stays as read.
    const std::string current = GetFormattedMessage();
    TraceParameter::ParseFailedBinaryTrace(m_formattedMessage, current.c_str());
}

bool Trace::operator==(const Trace& other) const {
    if (this == &other)
        return true;
    if (m_parameterBufferSize != other.m_parameterBufferSize ||
        (m_parameterBufferSize != 0 &&
         std::memcmp(GetParameterBuffer(), other.GetParameterBuffer(), m_parameterBufferSize) != 0))
        return false;
    return m_id == other.m_id && m_type == other.m_type && m_bufferID == other.m_bufferID &&
           m_moduleID == other.m_moduleID && m_timestamp == other.m_timestamp &&
           m_timestampMode == other.m_timestampMode && m_processID == other.m_processID &&
           m_threadID == other.m_threadID && m_severityWord == other.m_severityWord &&
           m_message == other.m_message && m_binaryTraceId == other.m_binaryTraceId &&
           m_parameterBufferSize == other.m_parameterBufferSize && m_fileName == other.m_fileName &&
           m_lineNumber == other.m_lineNumber;
}

}  // namespace Tracing
