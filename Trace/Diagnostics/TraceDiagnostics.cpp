#include "Trace/Diagnostics/TraceDiagnostics.h"

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Engine/TraceEngine.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Records/TraceParameter.h"
#include "paxltrace.h"
#include "platform/Clock.h"
#include "platform/Process.h"
#include "platform/SystemError.h"
#include "platform/Thread.h"

namespace Tracing {
namespace {

struct CategoryFlag {
    DiagnosticCategory::Value value;
    const char* name;
};

// Registration order; it decides the flag bits.
constexpr CategoryFlag Categories[] = {
    {DiagnosticCategory::General, "General"},       {DiagnosticCategory::Buffer, "Buffer"},
    {DiagnosticCategory::Reader, "Reader"},         {DiagnosticCategory::Notify, "Notify"},
    {DiagnosticCategory::Connection, "Connection"}, {DiagnosticCategory::Heartbeat, "Heartbeat"},
    {DiagnosticCategory::Profile, "Profile"},
};

constexpr bool CategoriesTakeBitsFourOn() {
    for (unsigned i = 0; i < std::size(Categories); ++i) {
        if (Categories[i].value != (1u << (4 + i)))
            return false;
    }
    return true;
}
static_assert(CategoriesTakeBitsFourOn());

// Every category but Heartbeat, which is too chatty to be on by default.
constexpr uint32_t DefaultCategories = DiagnosticCategory::General | DiagnosticCategory::Buffer |
                                       DiagnosticCategory::Reader | DiagnosticCategory::Notify |
                                       DiagnosticCategory::Connection | DiagnosticCategory::Profile;

constexpr const char* LostItemsText =
    "%1 diagnostic items were lost before the diagnostics were initialised.";

// 0 (off), 1 or 2, read once per process.
int Level() {
    static const int level = [] {
        const char* value = std::getenv("TRACE_DIAG");
        int parsed = 0;
        if (value == nullptr || std::sscanf(value, "%d", &parsed) != 1)
            return 0;
        return parsed == 1 || parsed == 2 ? parsed : 0;
    }();
    return level;
}

const char* CategoryName(uint32_t category) {
    for (const CategoryFlag& flag : Categories) {
        if (flag.value == category)
            return flag.name;
    }
    return "Unknown";
}

std::string FormattedText(const TraceMessage& message) {
    if (message.HasFormattedText())
        return message.GetFormattedText();
    std::string text;
    TraceParameter::FormatString(text, message.GetText(), message.GetBinaryTraceID(),
                                 message.GetParameterCount(), message.GetParameters());
    return text;
}

void WriteLine(FILE* file, const char* kind, Severity::Type severity, const std::string& text) {
    std::fprintf(file, "PAXLtrace (%lld) [%s] %s: %s\n", static_cast<long long>(Platform::CurrentProcessId()),
                 kind, Severity::Name(severity), text.c_str());
    std::fflush(file);
}

// The message as the caller built it, so a consumer gets its parameters; they are copied because
// the stream may shorten them in place.
void WriteTrace(const TraceEngine& engine, uint32_t severityWord, const TraceMessage& message) {
    ::TraceParameter parameters[TraceMessage::MaxParameters] = {};
    const uint8_t count = message.GetParameterCount();
    for (uint8_t i = 0; i < count; ++i)
        TraceParameter::Copy(parameters[i], message.GetParameters()[i]);
    const uint32_t thread = Platform::CurrentThreadId();
    if (message.GetText() != nullptr) {
        engine.stream->Write(0, engine.moduleID, thread, 0, severityWord, nullptr, 0, message.GetText(),
                             count, parameters);
    } else if (message.GetBinaryTraceID() != 0) {
        const uint64_t id = message.GetBinaryTraceID();
        engine.stream->Write(0, engine.moduleID, thread, 0, severityWord, nullptr, 0, id, count, parameters);
    } else {
        engine.stream->Write(0, engine.moduleID, thread, 0, severityWord, nullptr, 0,
                             FormattedText(message).c_str(), 0, nullptr);
    }
    for (uint8_t i = 0; i < count; ++i)
        TraceParameter::Clear(parameters[i]);
}

enum State : int {
    Waiting,       // no engine yet: reports are kept
    Initialising,  // the engine is being made: reports are still kept
    Ready,         // reports go to the engine
    Closed,        // no engine (failed or shut down): text lines only
};

struct StoredItem {
    uint32_t severityWord;
    uint32_t threadID;
    uint64_t timestamp;
    std::string text;
};

// Set while this thread reports: a report made from inside a report is dropped, not deadlocked.
thread_local bool t_reporting = false;

}  // namespace

struct TraceDiagnostics::Private {
    // Guards the kept items and the state changes; never held while calling into the registry.
    std::mutex mutex;
    std::atomic<int> state{Waiting};
    FILE* file = nullptr;
    bool toStandardError = false;
    std::vector<StoredItem> stored;
    uint32_t lost = 0;
    // Never deleted: a report on another thread may still hold it while Shutdown runs.
    TraceEngine* engine = nullptr;

    FILE* TextSink() const { return file != nullptr ? file : toStandardError ? stderr : nullptr; }
};

uint32_t TraceDiagnostics::s_unresolvedWord = 0;
uint32_t TraceDiagnostics::s_localWord = DefaultCategories;
std::atomic<uint32_t*> TraceDiagnostics::s_filterWord{&TraceDiagnostics::s_unresolvedWord};

uint32_t* TraceDiagnostics::Resolve() {
    uint32_t* word = s_filterWord.load(std::memory_order_acquire);
    if (word != &s_unresolvedWord)
        return word;
    // Only the first resolution replaces the sentinel; a loser reads what the winner stored.
    s_filterWord.compare_exchange_strong(word, Level() != 0 ? &s_localWord : nullptr,
                                         std::memory_order_acq_rel, std::memory_order_acquire);
    return s_filterWord.load(std::memory_order_acquire);
}

bool TraceDiagnostics::ResolveAndTest(DiagnosticCategory::Value category) {
    uint32_t* word = Resolve();
    return word != nullptr &&
           (std::atomic_ref<uint32_t>(*word).load(std::memory_order_relaxed) & category) != 0;
}

bool TraceDiagnostics::IsSwitchedOn() {
    return Resolve() != nullptr;
}

TraceDiagnostics& TraceDiagnostics::GetInstance() {
    // Never destroyed: the updater thread and exit-time destructors may still report.
    static TraceDiagnostics* const instance = new TraceDiagnostics;
    return *instance;
}

TraceDiagnostics::TraceDiagnostics() : m_private(new Private) {
    if (Level() == 0)
        return;
    const char* path = std::getenv("TRACE_DIAG_FILE");
    if (path == nullptr || *path == '\0') {
        m_private->toStandardError = Level() == 2;
        return;
    }
    m_private->file = std::fopen(path, "a");
    if (m_private->file == nullptr) {
        // Asked for a file and got none: say so once where it can be seen.
        const int error = Platform::LastError();
        WriteLine(stderr, "Warning", Severity::Warning,
                  "Couldn't open the diagnostics file '" + std::string(path) +
                      "': " + Platform::ErrorText(error) + ".");
        m_private->toStandardError = Level() == 2;
    }
}

void TraceDiagnostics::Report(DiagnosticCategory::Value category, Severity::Type severity,
                              const TraceMessage& message) {
    if (!IsActive(category))
        return;
    Emit(category, severity, CategoryName(category), message);
}

void TraceDiagnostics::Warning(const TraceMessage& message) {
    if (!IsSwitchedOn())
        return;
    Emit(0, Severity::Warning, "Warning", message);
}

void TraceDiagnostics::Emit(uint32_t category, Severity::Type severity, const char* kind,
                            const TraceMessage& message) {
    if (t_reporting)
        return;
    t_reporting = true;
    Private& p = *m_private;
    try {
        const uint32_t severityWord = category | (severity & Severity::Mask);
        std::string text;
        FILE* sink = p.TextSink();
        if (sink != nullptr) {
            text = FormattedText(message);
            WriteLine(sink, kind, severity, text);
        }
        bool write = p.state.load(std::memory_order_acquire) == Ready;
        if (!write) {
            std::lock_guard<std::mutex> lock(p.mutex);
            const int state = p.state.load(std::memory_order_relaxed);
            if (state == Waiting || state == Initialising) {
                if (p.stored.size() < MaxStoredItems)
                    p.stored.push_back({severityWord, Platform::CurrentThreadId(),
                                        Platform::PreciseWallClock(),
                                        sink != nullptr ? std::move(text) : FormattedText(message)});
                else if (p.lost != UINT32_MAX)
                    ++p.lost;
            }
            write = state == Ready;
        }
        if (write)
            WriteTrace(*p.engine, severityWord, message);
    } catch (...) {
        // A report that cannot be made is dropped; the caller goes on.
    }
    t_reporting = false;
}

void TraceDiagnostics::Initialize() {
    if (!IsSwitchedOn())
        return;
    Private& p = *m_private;
    {
        std::lock_guard<std::mutex> lock(p.mutex);
        if (p.state.load(std::memory_order_relaxed) != Waiting)
            return;
        p.state.store(Initialising, std::memory_order_relaxed);
    }

    // Outside the lock: creating the engine goes through the registry, whose own reports are kept
    // meanwhile.
    std::string failure;
    TraceEngine* engine = nullptr;
    unsigned* word = nullptr;
    const int result = trace_engine_create(BufferName, ModuleName, 0, 0, false, &engine, &word);
    if (result != TRACE_ENGINE_OK || engine == nullptr || word == nullptr) {
        failure = "Couldn't create the diagnostics trace engine '" + std::string(BufferName) + "." +
                  ModuleName + "'. Error " + std::to_string(result) + ": " +
                  trace_engine_error_text(static_cast<unsigned>(result)) + ".";
    } else {
        for (const CategoryFlag& flag : Categories) {
            // A profile may preset them; Heartbeat is off unless it does.
            const unsigned bit =
                trace_engine_register_flag(engine, flag.name, flag.value != DiagnosticCategory::Heartbeat);
            if (bit >= 32 || (1u << bit) != flag.value) {
                failure = "Couldn't register the diagnostic category '" + std::string(flag.name) +
                          "' as flag " + std::to_string(flag.value) + " of '" + BufferName + "." +
                          ModuleName + "' (got bit " + std::to_string(bit) + ").";
                break;
            }
        }
    }

    std::lock_guard<std::mutex> lock(p.mutex);
    if (!failure.empty()) {
        trace_engine_destroy(engine);
        // The kept items went out as text lines already; the engine was their only other way.
        p.stored.clear();
        p.state.store(Closed, std::memory_order_release);
        WriteLine(p.TextSink() != nullptr ? p.TextSink() : stderr, "Warning", Severity::Warning, failure);
        return;
    }

    p.engine = engine;
    try {
        // A sequence-numbered buffer numbers them now; any other mode keeps when they happened.
        const bool keepTime = engine->buffer->GetTimestampMode() != TimestampMode::SEQ_ID;
        for (const StoredItem& item : p.stored) {
            engine->stream->Write(0, engine->moduleID, item.threadID, keepTime ? item.timestamp : 0,
                                  item.severityWord, nullptr, 0, item.text.c_str(), 0, nullptr);
        }
        if (p.lost != 0)
            WriteTrace(*engine, Severity::Warning, TraceMessage(LostItemsText).Add(p.lost));
    } catch (...) {
        // Kept items that cannot be replayed are gone; the engine still works.
    }
    std::vector<StoredItem>().swap(p.stored);
    // From now on IsActive follows the engine's filter word, which the mapping makes valid before
    // this release store.
    s_filterWord.store(word, std::memory_order_release);
    p.state.store(Ready, std::memory_order_release);
}

void TraceDiagnostics::Shutdown() {
    Private& p = *m_private;
    std::lock_guard<std::mutex> lock(p.mutex);
    if (p.state.load(std::memory_order_relaxed) == Ready) {
        // Keep the categories as a consumer last set them.
        uint32_t* word = s_filterWord.load(std::memory_order_acquire);
        if (word != nullptr && word != &s_localWord && word != &s_unresolvedWord)
            std::atomic_ref<uint32_t>(s_localWord)
                .store(std::atomic_ref<uint32_t>(*word).load(std::memory_order_relaxed),
                       std::memory_order_relaxed);
        s_filterWord.store(&s_localWord, std::memory_order_release);
    }
    std::vector<StoredItem>().swap(p.stored);
    p.state.store(Closed, std::memory_order_release);
}

}  // namespace Tracing
