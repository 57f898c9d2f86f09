#include "Trace/Records/TraceMessage.h"

#include <cstring>

namespace Tracing {

TraceMessage::TraceMessage(TraceMessage&& other) noexcept
    : m_text(other.m_text),
      m_binaryTraceId(other.m_binaryTraceId),
      m_count(other.m_count),
      m_hasFormattedText(other.m_hasFormattedText),
      m_formattedText(std::move(other.m_formattedText)) {
    // Raw records move by bytes; the source forgets its blocks.
    std::memcpy(m_parameters, other.m_parameters, sizeof(m_parameters));
    std::memset(other.m_parameters, 0, sizeof(other.m_parameters));
    other.m_count = 0;
    other.m_hasFormattedText = false;
}

TraceMessage& TraceMessage::operator=(TraceMessage&& other) noexcept {
    if (this != &other) {
        ClearParameters();
        m_text = other.m_text;
        m_binaryTraceId = other.m_binaryTraceId;
        m_count = other.m_count;
        m_hasFormattedText = other.m_hasFormattedText;
        m_formattedText = std::move(other.m_formattedText);
        std::memcpy(m_parameters, other.m_parameters, sizeof(m_parameters));
        std::memset(other.m_parameters, 0, sizeof(other.m_parameters));
        other.m_count = 0;
        other.m_hasFormattedText = false;
    }
    return *this;
}

TraceMessage& TraceMessage::AddValue(ParameterTypes::Values type, const void* data) {
    if (::TraceParameter* raw = AddRawParameter())
        TraceParameter::Init(*raw, type, data);
    return *this;
}

::TraceParameter* TraceMessage::AddRawParameter() {
    if (m_count >= MaxParameters)
        return nullptr;
    ::TraceParameter* raw = &m_parameters[m_count++];
    *raw = {};
    return raw;
}

const std::string& TraceMessage::Format() const {
    if (m_hasFormattedText)
        return m_formattedText;
    if (m_text != nullptr && m_count == 0)
        m_formattedText = m_text;
    else
        TraceParameter::FormatString(m_formattedText, m_text, m_binaryTraceId, m_count, m_parameters);
    m_hasFormattedText = true;
    return m_formattedText;
}

void TraceMessage::ClearParameters() {
    for (unsigned i = 0; i < m_count; ++i)
        TraceParameter::Clear(m_parameters[i]);
    m_count = 0;
}

void TraceMessage::Clear() {
    ClearParameters();
    std::memset(m_parameters, 0, sizeof(m_parameters));
    m_text = nullptr;
    m_binaryTraceId = 0;
    m_formattedText.clear();
    m_hasFormattedText = false;
}

}  // namespace Tracing
