// A message with its parameters: a text (placeholders %1..%9) or a binary trace ID, up to nine
// typed parameters, and the formatted text once it was built.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <type_traits>

#include "Trace/Records/TraceParameter.h"

namespace Tracing {

class TraceMessage {
public:
    static constexpr unsigned MaxParameters = TraceParameter::MaxParameters;

    TraceMessage() noexcept = default;
    // The text is referenced, not copied: it must outlive the message.
    explicit TraceMessage(const char* text) noexcept : m_text(text) {}
    explicit TraceMessage(uint64_t binaryTraceId) noexcept : m_binaryTraceId(binaryTraceId) {}
    TraceMessage(TraceMessage&& other) noexcept;
    TraceMessage& operator=(TraceMessage&& other) noexcept;
    TraceMessage(const TraceMessage&) = delete;
    TraceMessage& operator=(const TraceMessage&) = delete;
    ~TraceMessage() { ClearParameters(); }

    // Parameters beyond the ninth are ignored.
    TraceMessage& Add(int32_t value) { return AddValue(ParameterTypes::Int32, &value); }
    TraceMessage& Add(uint32_t value) { return AddValue(ParameterTypes::UInt32, &value); }
    TraceMessage& Add(int64_t value) { return AddValue(ParameterTypes::Int64, &value); }
    TraceMessage& Add(uint64_t value) { return AddValue(ParameterTypes::UInt64, &value); }
    TraceMessage& Add(float value) { return AddValue(ParameterTypes::Float, &value); }
    TraceMessage& Add(double value) { return AddValue(ParameterTypes::Double, &value); }
    TraceMessage& Add(bool value) { return AddValue(ParameterTypes::Bool, &value); }
    // Strings are copied; null gives "<NULL>".
    TraceMessage& Add(const char* value) { return AddValue(ParameterTypes::String, value); }
    TraceMessage& Add(const std::string& value) { return AddValue(ParameterTypes::String, value.c_str()); }
    TraceMessage& Add(const char16_t* value) { return AddValue(ParameterTypes::WideString, value); }
    // Other integer types (long long, short, char, ...) by their width and signedness.
    template <std::integral T>
    TraceMessage& Add(T value) {
        if constexpr (std::is_same_v<T, bool>) {
            return Add(static_cast<bool>(value));
        } else if constexpr (sizeof(T) <= 4) {
            if constexpr (std::is_signed_v<T>)
                return Add(static_cast<int32_t>(value));
            else
                return Add(static_cast<uint32_t>(value));
        } else if constexpr (std::is_signed_v<T>) {
            return Add(static_cast<int64_t>(value));
        } else {
            return Add(static_cast<uint64_t>(value));
        }
    }

    const char* GetText() const { return m_text; }
    void SetText(const char* text) { m_text = text; }
    uint64_t GetBinaryTraceID() const { return m_binaryTraceId; }
    void SetBinaryTraceID(uint64_t id) { m_binaryTraceId = id; }

    uint8_t GetParameterCount() const { return m_count; }
    // The array of nine records; the first GetParameterCount() are in use.
    ::TraceParameter* GetParameters() { return m_parameters; }
    const ::TraceParameter* GetParameters() const { return m_parameters; }
    // The next free record, zeroed and counted, for the caller to initialise; null when full.
    ::TraceParameter* AddRawParameter();

    const std::string& GetFormattedText() const { return m_formattedText; }
    void SetFormattedText(std::string text) {
        m_formattedText = std::move(text);
        m_hasFormattedText = true;
    }
    bool HasFormattedText() const { return m_hasFormattedText; }

    // The text to show: the formatted text if set; else the text when there are no parameters;
    // else the parameters substituted into the text or binary ID's text, kept as formatted text.
    const std::string& Format() const;

    // Back to an empty message (parameters freed, no text, ID 0).
    void Clear();

private:
    TraceMessage& AddValue(ParameterTypes::Values type, const void* data);
    void ClearParameters();

    const char* m_text = nullptr;
    uint64_t m_binaryTraceId = 0;
    ::TraceParameter m_parameters[MaxParameters] = {};
    uint8_t m_count = 0;
    // Built lazily by Format, hence mutable.
    mutable bool m_hasFormattedText = false;
    mutable std::string m_formattedText;
};

}  // namespace Tracing
