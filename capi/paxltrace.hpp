// PAXLtrace for C++ producers: an owning engine handle, registered flags, and trace macros whose
// filter test is inline, so that a trace the filter drops costs one load and one test and evaluates
// none of its arguments:
//
//     paxl::Engine engine("Server", "Net");
//     const paxl::Flag io = engine.flag("IO");
//     PAXL_TRACE(engine, paxl::Info, "accepted %1 from %2", count, peerName);
//     PAXL_TRACE_FLAG(engine, io, paxl::Verbose, "read %1 bytes", size);
//
// Parameter types follow the argument types: integers of every width, float and double, bool,
// narrow text (const char*, std::string, std::string_view, char) and UTF-16 text (const char16_t*,
// std::u16string, std::u16string_view). Text is referenced, not copied: the write copies it into
// the ring. Nothing here allocates or throws.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "paxltrace.h"

namespace paxl {

enum Severity : unsigned {
    None = 0,
    Fatal = 1,
    Error = 2,
    Warning = 3,
    Info = 4,
    Verbose = 5,
    Debug = 6,
    Call = 7,
};

// Filter word and severity word: bits 0-2 severity, bit 3 reserved, bits 4-31 one per flag.
inline constexpr unsigned SeverityBits = 7u;

// A flag registered in an engine. A failed registration gives a flag whose traces never pass.
class Flag {
public:
    constexpr Flag() noexcept = default;
    constexpr explicit Flag(unsigned bit) noexcept
        : m_bit(bit >= 4 && bit <= 31 ? bit : 0u), m_mask(m_bit != 0 ? 1u << m_bit : 0u) {}

    constexpr bool ok() const noexcept { return m_mask != 0; }
    constexpr unsigned bit() const noexcept { return m_bit; }
    constexpr unsigned mask() const noexcept { return m_mask; }
    // The severity word of a trace under this flag.
    constexpr unsigned word(Severity severity) const noexcept { return m_mask | severity; }

private:
    unsigned m_bit = 0;
    unsigned m_mask = 0;
};

namespace detail {

// A trace entry holds at most this many bytes of parameters; longer text is dropped by the ring
// anyway, so views are never copied beyond it.
inline constexpr unsigned MaxParameterBytes = 2000;

template <class>
inline constexpr bool Unsupported = false;

template <class T>
inline constexpr bool IsView = std::is_same_v<T, std::string_view> || std::is_same_v<T, std::u16string_view>;

// Terminated copies of string views (which need not be terminated), kept on the caller's stack for
// the one write; only traces with a view argument carry it.
struct ViewStorage {
    alignas(8) unsigned char bytes[MaxParameterBytes];
    unsigned used = 0;
};
struct NoViewStorage {};

inline void SetValue(::TraceParameter& p, unsigned short type, const void* value, unsigned size) noexcept {
    p.type = type;
    p.owned = 0;
    p.reserved = 0;
    p.size = size;
    p.data.pointer = nullptr;
    std::memcpy(p.data.bytes, value, size);
}

inline void SetTooLong(::TraceParameter& p) noexcept {
    p.type = TRACE_PARAM_TOO_LONG;
    p.owned = 0;
    p.reserved = 0;
    p.size = 0;
    p.data.pointer = nullptr;
}

// size counts the terminator, which must be at text[size - 1]; up to 8 bytes are held inline.
// Text the entry cannot hold is removed here, as the ring would remove a referenced text.
inline void SetText(::TraceParameter& p, unsigned short type, const void* text, std::size_t size) noexcept {
    if (size <= sizeof(p.data)) {
        SetValue(p, type, text, static_cast<unsigned>(size));
    } else if (size > MaxParameterBytes) [[unlikely]] {
        SetTooLong(p);
    } else {
        p.type = type;
        p.owned = 0;
        p.reserved = 0;
        p.size = static_cast<unsigned>(size);
        p.data.pointer = text;
    }
}

// Bytes of a text up to its first zero, terminator included: an embedded zero would end the text
// early for the reader while the entry still counted the rest.
template <class Char>
std::size_t TerminatedSize(std::basic_string_view<Char> text) noexcept {
    const std::size_t end = text.find(Char{});
    return ((end == text.npos ? text.size() : end) + 1) * sizeof(Char);
}

// A view need not be terminated: short ones go inline, longer ones into the caller's storage.
template <class Char>
void SetView(::TraceParameter& p, unsigned short type, std::basic_string_view<Char> view,
             ViewStorage& storage) noexcept {
    const std::size_t size = TerminatedSize(view);
    const std::size_t length = size / sizeof(Char) - 1;
    if (size <= sizeof(p.data)) {
        Char inlineText[sizeof(p.data) / sizeof(Char)] = {};
        if (length != 0)  // an empty view may have no data at all
            std::memcpy(inlineText, view.data(), length * sizeof(Char));
        SetValue(p, type, inlineText, static_cast<unsigned>(size));
        return;
    }
    if (size > MaxParameterBytes - storage.used) [[unlikely]] {
        SetTooLong(p);
        return;
    }
    Char* out = reinterpret_cast<Char*>(storage.bytes + storage.used);
    std::memcpy(out, view.data(), length * sizeof(Char));
    out[length] = Char{};
    storage.used += static_cast<unsigned>((size + 1) & ~std::size_t{1});  // wide text stays aligned
    SetText(p, type, out, size);
}

template <class T, class Storage>
void Fill(::TraceParameter& p, [[maybe_unused]] Storage& storage, const T& value) noexcept {
    using U = std::remove_cv_t<T>;
    if constexpr (std::is_same_v<U, bool>) {
        const unsigned char byte = value ? 1 : 0;
        SetValue(p, TRACE_PARAM_BOOL, &byte, 1);
    } else if constexpr (std::is_same_v<U, char>) {
        const char text[2] = {value, '\0'};
        SetValue(p, TRACE_PARAM_STRING_REF, text, value != '\0' ? 2 : 1);
    } else if constexpr (std::is_same_v<U, char16_t>) {
        const char16_t text[2] = {value, u'\0'};
        SetValue(p, TRACE_PARAM_WIDE_STRING_REF, text, value != u'\0' ? 4 : 2);
    } else if constexpr (std::is_same_v<U, wchar_t> || std::is_same_v<U, char32_t> ||
                         std::is_same_v<U, char8_t>) {
        static_assert(Unsupported<U>, "paxl: pass text as char, UTF-8 or char16_t (UTF-16)");
    } else if constexpr (std::is_enum_v<U>) {
        Fill(p, storage, static_cast<std::underlying_type_t<U>>(value));
    } else if constexpr (std::is_integral_v<U>) {
        static_assert(sizeof(U) <= 8, "paxl: integers wider than 64 bits have no parameter type");
        if constexpr (sizeof(U) <= 4) {
            using Stored = std::conditional_t<std::is_signed_v<U>, std::int32_t, std::uint32_t>;
            const Stored stored = static_cast<Stored>(value);
            SetValue(p, std::is_signed_v<U> ? TRACE_PARAM_INT32 : TRACE_PARAM_UINT32, &stored, 4);
        } else {
            SetValue(p, std::is_signed_v<U> ? TRACE_PARAM_INT64 : TRACE_PARAM_UINT64, &value, 8);
        }
    } else if constexpr (std::is_same_v<U, float>) {
        SetValue(p, TRACE_PARAM_FLOAT, &value, 4);
    } else if constexpr (std::is_floating_point_v<U>) {
        const double stored = static_cast<double>(value);
        SetValue(p, TRACE_PARAM_DOUBLE, &stored, 8);
    } else if constexpr (std::is_convertible_v<const U&, const char*>) {
        const char* text = value;
        if (text == nullptr)
            text = "<NULL>";
        SetText(p, TRACE_PARAM_STRING_REF, text, std::strlen(text) + 1);
    } else if constexpr (std::is_convertible_v<const U&, const char16_t*>) {
        const char16_t* text = value;
        if (text == nullptr)
            text = u"<NULL>";
        SetText(p, TRACE_PARAM_WIDE_STRING_REF, text, (std::char_traits<char16_t>::length(text) + 1) * 2);
    } else if constexpr (std::is_same_v<U, std::string>) {
        SetText(p, TRACE_PARAM_STRING_REF, value.c_str(), TerminatedSize(std::string_view(value)));
    } else if constexpr (std::is_same_v<U, std::u16string>) {
        SetText(p, TRACE_PARAM_WIDE_STRING_REF, value.c_str(), TerminatedSize(std::u16string_view(value)));
    } else if constexpr (std::is_same_v<U, std::string_view>) {
        SetView(p, TRACE_PARAM_STRING_REF, value, storage);
    } else if constexpr (std::is_same_v<U, std::u16string_view>) {
        SetView(p, TRACE_PARAM_WIDE_STRING_REF, value, storage);
    } else if constexpr (std::is_pointer_v<U>) {
        // Other pointers are traced as their address (use "%1:p" to show it as one).
        const std::uint64_t address = reinterpret_cast<std::uintptr_t>(value);
        SetValue(p, TRACE_PARAM_UINT64, &address, 8);
    } else {
        static_assert(Unsupported<U>, "paxl: no trace parameter type for this argument");
    }
}

// Builds the parameter records of args into params; exposed for tests.
template <class... Args>
void BuildParameters(::TraceParameter* params, auto& storage, const Args&... args) noexcept {
    static_assert(sizeof...(Args) <= 9, "paxl: a trace carries at most nine parameters");
    unsigned i = 0;
    (Fill(params[i++], storage, args), ...);
}

template <class... Args>
using StorageFor = std::conditional_t<(IsView<std::remove_cv_t<Args>> || ...), ViewStorage, NoViewStorage>;

// Never null: a failed or moved-from engine points at this word, so its traces never pass.
inline unsigned DisabledFilterWord = 0;

}  // namespace detail

// Owns one trace engine. Move-only; destroying it releases the handle, while the module stays in
// the buffer for readers.
class Engine {
public:
    Engine(const char* bufferName, const char* moduleName, unsigned moduleCount = 0, unsigned severity = 0,
           bool printWarning = true) noexcept {
        unsigned* filterWord = nullptr;
        m_error = trace_engine_create(bufferName, moduleName, moduleCount, severity, printWarning, &m_engine,
                                      &filterWord);
        if (m_engine != nullptr && filterWord != nullptr)
            m_filterWord = filterWord;
    }
    Engine(Engine&& other) noexcept
        : m_engine(std::exchange(other.m_engine, nullptr)),
          m_filterWord(std::exchange(other.m_filterWord, &detail::DisabledFilterWord)),
          m_error(std::exchange(other.m_error, TRACE_ENGINE_NOT_CREATED)) {}
    Engine& operator=(Engine&& other) noexcept {
        if (this != &other) {
            trace_engine_destroy(m_engine);
            m_engine = std::exchange(other.m_engine, nullptr);
            m_filterWord = std::exchange(other.m_filterWord, &detail::DisabledFilterWord);
            m_error = std::exchange(other.m_error, TRACE_ENGINE_NOT_CREATED);
        }
        return *this;
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
    ~Engine() { trace_engine_destroy(m_engine); }

    // True also when a name was truncated (error() then says so).
    bool ok() const noexcept { return m_engine != nullptr; }
    int error() const noexcept { return m_error; }
    const char* errorText() const noexcept { return trace_engine_error_text(static_cast<unsigned>(m_error)); }
    TraceEngine* handle() const noexcept { return m_engine; }

    Flag flag(const char* name, bool active = true) noexcept {
        return Flag(trace_engine_register_flag(m_engine, name, active));
    }
    bool setFlag(Flag flag, bool on) noexcept { return trace_engine_set_flag(m_engine, flag.bit(), on); }
    void setSeverity(Severity severity) noexcept { trace_engine_set_severity(m_engine, severity); }
    Severity severity() const noexcept { return static_cast<Severity>(trace_engine_get_severity(m_engine)); }
    void setLocation(bool on) noexcept { trace_engine_set_location(m_engine, on); }
    unsigned bufferId() const noexcept { return trace_engine_get_buffer_id(m_engine); }
    unsigned moduleId() const noexcept { return trace_engine_get_module_id(m_engine); }

    // The module's filter word. Another process changes it in shared memory. Relaxed: it guards no
    // other data, so a trace racing a filter change may go either way, and the change is seen on
    // the next load; stronger orders would put a fence on every trace.
    unsigned filterWord() const noexcept {
        return std::atomic_ref<unsigned>(*m_filterWord).load(std::memory_order_relaxed);
    }
    // Severity-only traces pass when the module's severity is at least theirs.
    bool enabled(Severity severity) const noexcept { return (filterWord() & SeverityBits) >= severity; }
    // Flagged traces pass when their flag is on, whatever the module's severity.
    bool enabled(Flag flag) const noexcept { return (filterWord() & flag.mask()) != 0; }

    // Write without a filter test; the macros test first.
    template <class... Args>
    void write(const char* file, unsigned line, unsigned severityWord, const char* text,
               const Args&... args) const noexcept {
        emit(file, line, severityWord, text, 0, args...);
    }
    template <class... Args>
    void writeBinary(const char* file, unsigned line, unsigned severityWord, unsigned long long textId,
                     const Args&... args) const noexcept {
        emit(file, line, severityWord, nullptr, textId, args...);
    }

private:
    template <class... Args>
    void emit(const char* file, unsigned line, unsigned severityWord, const char* text,
              unsigned long long textId, const Args&... args) const noexcept {
        static_assert(sizeof...(Args) <= 9, "paxl: a trace carries at most nine parameters");
        if constexpr (sizeof...(Args) == 0) {
            trace_engine_write(m_engine, file, line, severityWord, text, textId, 0, nullptr);
        } else {
            ::TraceParameter params[sizeof...(Args)];
            detail::StorageFor<Args...> storage;
            detail::BuildParameters(params, storage, args...);
            trace_engine_write(m_engine, file, line, severityWord, text, textId, sizeof...(Args), params);
        }
    }

    static_assert(std::atomic_ref<unsigned>::is_always_lock_free);

    TraceEngine* m_engine = nullptr;
    unsigned* m_filterWord = &detail::DisabledFilterWord;
    int m_error = TRACE_ENGINE_NOT_CREATED;
};

// Process-wide settings; best applied before the first engine is created. Zero and null take the
// configured value.
struct Configuration {
    const char* system = nullptr;
    const char* application = nullptr;
    unsigned timestampMode = 0;
    unsigned streamSize = 0;
    unsigned maxBuffers = 0;
    unsigned maxModules = 0;
};

inline void configure(const Configuration& c) noexcept {
    trace_config_init(c.system, c.application, c.timestampMode, c.streamSize, c.maxBuffers, c.maxModules);
}

}  // namespace paxl

// The engine and severity expressions are evaluated once; the arguments only when the trace passes.
// Most traces of a running system are filtered out, hence the branch hint.
#define PAXL_TRACE(engine, severity, ...)                                      \
    do {                                                                       \
        const ::paxl::Engine& paxlEngine_ = (engine);                          \
        const ::paxl::Severity paxlSeverity_ = (severity);                     \
        if (paxlEngine_.enabled(paxlSeverity_)) [[unlikely]]                   \
            paxlEngine_.write(__FILE__, __LINE__, paxlSeverity_, __VA_ARGS__); \
    } while (false)

#define PAXL_TRACE_FLAG(engine, flag, severity, ...)                                      \
    do {                                                                                  \
        const ::paxl::Engine& paxlEngine_ = (engine);                                     \
        const ::paxl::Flag paxlFlag_ = (flag);                                            \
        if (paxlEngine_.enabled(paxlFlag_)) [[unlikely]]                                  \
            paxlEngine_.write(__FILE__, __LINE__, paxlFlag_.word(severity), __VA_ARGS__); \
    } while (false)

// A trace whose text a text file supplies by its ID.
#define PAXL_TRACE_ID(engine, severity, textId, ...)                                                        \
    do {                                                                                                    \
        const ::paxl::Engine& paxlEngine_ = (engine);                                                       \
        const ::paxl::Severity paxlSeverity_ = (severity);                                                  \
        if (paxlEngine_.enabled(paxlSeverity_)) [[unlikely]]                                                \
            paxlEngine_.writeBinary(__FILE__, __LINE__, paxlSeverity_, (textId)__VA_OPT__(, ) __VA_ARGS__); \
    } while (false)
