// The C interface's engine functions and the functions that change this process's filters by name.
// Nothing may throw out of them: every entry point catches at the boundary and reports its failure
// value instead.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceModuleData.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Engine/TraceEngine.h"
#include "Trace/Profiles/TraceProfileSHMHandler.h"
#include "Trace/Records/PrintMsg.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Registry/TraceRegistry.h"
#include "Trace/Runtime/TraceRuntime.h"
#include "Trace/Time/TraceTimer.h"
#include "paxltrace.h"
#include "platform/Process.h"
#include "platform/Thread.h"

using namespace Tracing;

namespace {

const char* OrNull(const char* text) {
    return text != nullptr ? text : "<NULL>";
}

bool IsEmpty(const char* text) {
    return text == nullptr || *text == '\0';
}

// The slot's filter word, which callers test before each write. Its offset is part of the shared
// layout, which TraceModuleData asserts.
constexpr std::size_t FilterWordOffset = 44;

unsigned* FilterWordAddress(TraceModuleData* module) {
    static_assert(sizeof(unsigned) == sizeof(uint32_t));
    return module != nullptr ? reinterpret_cast<unsigned*>(reinterpret_cast<char*>(module) + FilterWordOffset)
                             : nullptr;
}

// Binds the engine to a module slot of this process's buffer of that name.
int CreateEngine(TraceEngine& engine, const char* bufferName, const char* moduleName, unsigned moduleCount,
                 unsigned severity, TraceBuffer::ErrorType& bufferError) {
    if (engine.buffer != nullptr)
        return TRACE_ENGINE_ALREADY_CREATED;
    // The registry first: the profile handler may reach for it under its own lock, and another
    // thread may be setting the registry up right now.
    TraceRegistry& registry = TraceRegistry::GetInstance();
    engine.traceLocation = TraceProfileSHMHandler::GetInstance().WriteTraceLocation();
    TraceBuffer* buffer =
        registry.RegisterBuffer(bufferName, moduleName, TimestampMode::NotSet, moduleCount, 0, &bufferError);
    // Held from here on, so that an unregistration cannot unmap what the engine points into.
    if (buffer == nullptr || !registry.AddEngine(buffer))
        return TRACE_ENGINE_CANNOT_CREATE_BUFFER;
    TraceStream* stream = buffer->GetTraceStream();
    TraceModuleData* module =
        stream != nullptr ? buffer->RegisterModule(moduleName, static_cast<Severity::Type>(severity), -1)
                          : nullptr;
    if (module == nullptr) {
        const bool full = stream != nullptr && buffer->IsMaxModulesReached();
        registry.RemoveEngine(buffer);
        return stream == nullptr ? TRACE_ENGINE_CANNOT_CREATE_BUFFER
               : full            ? TRACE_ENGINE_MAX_MODULES_REACHED
                                 : TRACE_ENGINE_CANNOT_CREATE_MODULE;
    }
    engine.buffer = buffer;
    engine.stream = stream;
    engine.module = module;
    engine.moduleID = module->GetModuleID();
    if (TraceDiagnostics::IsActive(DiagnosticCategory::General))
        TraceDiagnostics::GetInstance().Report(
            DiagnosticCategory::General, Severity::Info,
            TraceMessage("Engine successfully created: '%1.%2' (Trace location: %3).")
                .Add(bufferName)
                .Add(moduleName)
                .Add(engine.traceLocation));
    return std::strcmp(module->GetModuleName(), moduleName) != 0 ? TRACE_ENGINE_TEXT_TOO_LONG
                                                                 : TRACE_ENGINE_OK;
}

[[gnu::cold]] void PrintCreateWarning(const char* bufferName, const char* moduleName, int result,
                                      TraceBuffer::ErrorType bufferError) {
    try {
        const char* application = TraceConfigurationPrivate::GetInstance().GetApplicationName();
        Internal::PrintMsg(
            Severity::Warning,
            TraceMessage("WARNING: Could not create the trace engine '%1', '%2' for '%3'! Error code %4: %5.")
                .Add(OrNull(bufferName))
                .Add(OrNull(moduleName))
                .Add(application != nullptr ? application : "")
                .Add(static_cast<int32_t>(result))
                .Add(trace_engine_error_text(static_cast<unsigned>(result))),
            true);
        // Code 2 alone does not say why; a full registry is the one cause an administrator can fix.
        if (bufferError == TraceBuffer::NoFreeRegistryItem)
            Internal::PrintMsg(Severity::Warning,
                               TraceMessage("WARNING: The trace registry is full: all %1 buffers are in use "
                                            "(TRACE_MAX_BUFFERS=%2 in this process).")
                                   .Add(TraceRegistry::GetInstance().GetSizeOfBufferArray())
                                   .Add(TraceConfigurationPrivate::GetInstance().GetMaxNumberOfBuffers()),
                               true);
    } catch (...) {
        // A warning that cannot be printed is dropped.
    }
}

[[gnu::cold]] void PrintFlagWarning(const TraceMessage& message) {
    try {
        Internal::PrintMsg(Severity::Warning, message, true);
    } catch (...) {
    }
}

// This process's buffers as the registry lists them, and the way to reach each by its ID.
struct OwnBuffers {
    std::vector<std::unique_ptr<TraceBufferInfo>> infos;
    bool consumer = false;

    OwnBuffers() {
        TraceRegistry& registry = TraceRegistry::GetInstance();
        consumer = registry.GetConsumerBufferCount() != 0;
        if (!consumer) {
            registry.ProducerBrowse(infos);
            return;
        }
        registry.ConsumerBrowse(infos);
        // A buffer made since the last update is not attached for reading yet, but it is ours.
        std::vector<std::unique_ptr<TraceBufferInfo>> produced;
        registry.ProducerBrowse(produced);
        for (auto& info : produced) {
            const bool listed = std::any_of(infos.begin(), infos.end(), [&](const auto& known) {
                return known != nullptr && known->BufferID == info->BufferID;
            });
            if (info != nullptr && !listed)
                infos.push_back(std::move(info));
        }
    }

    // Null for buffers of other processes or of another name (a null name matches every buffer).
    TraceBuffer* Get(const TraceBufferInfo& info, const char* bufferName) const {
        if (info.ProcessID != static_cast<int64_t>(Platform::CurrentProcessId()))
            return nullptr;
        if (bufferName != nullptr && info.SubSystemName != bufferName)
            return nullptr;
        TraceRegistry& registry = TraceRegistry::GetInstance();
        TraceBuffer* buffer = consumer ? registry.GetConsumerBuffer(info.BufferID) : nullptr;
        return buffer != nullptr ? buffer : registry.GetProducerBuffer(info.BufferID);
    }
};

}  // namespace

extern "C" {

PAXLTRACE_API int trace_engine_create(const char* bufferName, const char* moduleName, unsigned moduleCount,
                                      unsigned severity, bool printWarning, TraceEngine** engine,
                                      unsigned** filterWord) {
    int result = TRACE_ENGINE_INVALID_ARGUMENTS;
    TraceBuffer::ErrorType bufferError = TraceBuffer::Success;
    if (!IsEmpty(bufferName) && !IsEmpty(moduleName) && engine != nullptr) {
        try {
            char name[Internal::ShmNameFieldSize];
            Internal::CopyShmName(name, bufferName);
            auto created = std::make_unique<TraceEngine>();
            result = CreateEngine(*created, name, moduleName, moduleCount, severity, bufferError);
            if (result == TRACE_ENGINE_OK || result == TRACE_ENGINE_TEXT_TOO_LONG) {
                if (std::strlen(bufferName) > Internal::ShmNameMaxLength)
                    result = TRACE_ENGINE_TEXT_TOO_LONG;
                if (filterWord != nullptr)
                    *filterWord = FilterWordAddress(created->module);
                *engine = created.release();
            }
        } catch (...) {
            result = TRACE_ENGINE_CANNOT_CREATE_BUFFER;
        }
    }
    if (printWarning && result != TRACE_ENGINE_OK && result != TRACE_ENGINE_TEXT_TOO_LONG)
        PrintCreateWarning(bufferName, moduleName, result, bufferError);
    return result;
}

PAXLTRACE_API void trace_engine_destroy(TraceEngine* engine) {
    // After the exit steps the buffer stays as it is; when the system has ended the other threads,
    // maybe inside the registry's lock, the registry is not touched at all.
    if (engine != nullptr && engine->buffer != nullptr && !TraceRuntime::IsShutDown() &&
        !Platform::ProcessIsEnding()) {
        try {
            TraceRegistry::GetInstance().RemoveEngine(engine->buffer);
        } catch (...) {
            // The buffer stays mapped; nothing else is lost.
        }
    }
    delete engine;
}

PAXLTRACE_API unsigned char trace_engine_register_flag(TraceEngine* engine, const char* flagName,
                                                       bool active) {
    if (engine == nullptr || IsEmpty(flagName) || engine->buffer == nullptr)
        return 0;
    try {
        return engine->buffer->RegisterFlag(engine->moduleID, flagName, active, 0);
    } catch (...) {
        return 0;
    }
}

PAXLTRACE_API unsigned char trace_engine_register_flag_checked(TraceEngine* engine, const char* flagName,
                                                               bool active) {
    if (engine == nullptr || engine->module == nullptr) {
        PrintFlagWarning(
            TraceMessage("WARNING: Could not register the trace flag '%1', trace engine not initialized!")
                .Add(OrNull(flagName)));
        return 0;
    }
    const unsigned char bit = trace_engine_register_flag(engine, flagName, active);
    if (bit != 0)
        return bit;
    const char* bufferName = engine->buffer != nullptr && engine->buffer->GetBufferData() != nullptr
                                 ? engine->buffer->GetSubSystemName()
                                 : nullptr;
    PrintFlagWarning(
        TraceMessage("WARNING: Could not register the trace flag '%1' in trace engine '%2' '%3'!")
            .Add(OrNull(flagName))
            .Add(OrNull(bufferName))
            .Add(engine->module->GetModuleName()));
    return 0;
}

PAXLTRACE_API bool trace_engine_set_flag(TraceEngine* engine, unsigned flagBit, bool on) {
    // The bit narrows to a byte as every flag bit does in the interface: 260 names bit 4.
    const auto bit = static_cast<uint8_t>(flagBit);
    if (engine == nullptr || engine->module == nullptr || engine->buffer == nullptr ||
        !engine->module->IsFlagRegistered(bit))
        return false;
    try {
        engine->buffer->SetFlag(engine->moduleID, on, bit);
        return true;
    } catch (...) {
        return false;
    }
}

PAXLTRACE_API bool trace_engine_get_flag(TraceEngine* engine, unsigned char flagBit) {
    if (engine == nullptr || engine->module == nullptr)
        return false;
    return (engine->module->GetFilterState() & (1u << (flagBit % 32u)) & TraceModuleData::FlagMask) != 0;
}

PAXLTRACE_API void trace_engine_set_severity(TraceEngine* engine, unsigned severity) {
    if (engine == nullptr || engine->module == nullptr)
        return;
    // Two stores, not one read-modify-write, and no range check: a concurrent flag change may be
    // lost, and a value above 15 sets flag bits. Relaxed: the word orders nothing else.
    const std::atomic_ref<uint32_t> word = engine->module->GetAtomicFilterState();
    const uint32_t flags = word.load(std::memory_order_relaxed) & ~0xFu;
    word.store(flags, std::memory_order_relaxed);
    word.store(flags | severity, std::memory_order_relaxed);
}

PAXLTRACE_API unsigned trace_engine_get_severity(TraceEngine* engine) {
    if (engine == nullptr || engine->module == nullptr)
        return 0;
    return engine->module->GetFilterState() & TraceModuleData::SeverityMask;
}

PAXLTRACE_API void trace_engine_set_location(TraceEngine* engine, bool on) {
    if (engine != nullptr)
        engine->traceLocation = on;
}

PAXLTRACE_API bool trace_engine_get_location(TraceEngine* engine) {
    return engine != nullptr && engine->traceLocation;
}

PAXLTRACE_API unsigned trace_engine_get_buffer_id(TraceEngine* engine) {
    if (engine == nullptr || engine->buffer == nullptr)
        return 0xFFFFFFFFu;
    return static_cast<unsigned>(engine->buffer->GetBufferID());
}

PAXLTRACE_API unsigned trace_engine_get_module_id(TraceEngine* engine) {
    if (engine == nullptr)
        return 0xFFFFFFFFu;
    return static_cast<unsigned>(engine->moduleID);
}

namespace {

[[gnu::cold]] void WriteBinaryTrace(TraceEngine* engine, const char* file, unsigned line,
                                    unsigned severityWord, uint64_t binaryTextId, unsigned char count,
                                    ::TraceParameter* parameters) {
    engine->stream->Write(0, engine->moduleID, Platform::CurrentThreadId(), 0, severityWord, file, line,
                          binaryTextId, count, parameters);
}

}  // namespace

PAXLTRACE_API int trace_engine_write(TraceEngine* engine, const char* file, unsigned line,
                                     unsigned severityWord, const char* text, unsigned long long binaryTextId,
                                     unsigned char count, ::TraceParameter* parameters) {
    // The caller has tested the filter word: no test, lock, allocation or system call here. Only
    // the call into the stream, so that this frame stays small.
    if (engine == nullptr || engine->stream == nullptr) [[unlikely]]
        return TRACE_ENGINE_NOT_CREATED;
    // The buffer was unregistered: the stream reports the first such write and drops them all.
    if (engine->stream->IsDeleted()) [[unlikely]] {
        if (text != nullptr)
            engine->stream->ReportWriteToDeletedStream(text);
        else
            engine->stream->ReportWriteToDeletedStream(binaryTextId);
        return TRACE_ENGINE_BUFFER_ERROR;
    }
    if (!engine->traceLocation) {
        file = nullptr;
        line = 0;
    }
    try {
        if (text != nullptr) [[likely]]
            engine->stream->WriteText(engine->moduleID, severityWord, file, line, text, count, parameters);
        else
            WriteBinaryTrace(engine, file, line, severityWord, binaryTextId, count, parameters);
    } catch (...) {
        // The entry is lost, but the caller's thread goes on.
    }
    return TRACE_ENGINE_OK;
}

PAXLTRACE_API const char* trace_engine_error_text(unsigned code) {
    switch (code) {
        case TRACE_ENGINE_OK:
            return "Ok";
        case TRACE_ENGINE_ALREADY_CREATED:
            return "Already created";
        case TRACE_ENGINE_CANNOT_CREATE_BUFFER:
            return "Cannot create buffer";
        case TRACE_ENGINE_CANNOT_CREATE_MODULE:
            return "Cannot create module";
        case TRACE_ENGINE_NOT_CREATED:
            return "The trace engine was not created";
        case TRACE_ENGINE_BUFFER_ERROR:
            return "Error in the trace buffer";
        case TRACE_ENGINE_TEXT_TOO_LONG:
            return "The given text is too long";
        case TRACE_ENGINE_MAX_MODULES_REACHED:
            return "Maximum number of modules reached";
        case TRACE_ENGINE_INVALID_ARGUMENTS:
            return "Invalid arguments";
        default:
            return "Unknown error code";
    }
}

PAXLTRACE_API int trace_set_severity(unsigned severity, const char* bufferName, const char* moduleName) {
    if (moduleName != nullptr && bufferName == nullptr)
        return 0;
    try {
        const OwnBuffers buffers;
        unsigned changed = 0;
        std::vector<TraceModuleInfo> modules;
        for (const auto& info : buffers.infos) {
            TraceBuffer* buffer = info != nullptr ? buffers.Get(*info, bufferName) : nullptr;
            if (buffer == nullptr)
                continue;
            buffer->Browse(modules);
            for (const TraceModuleInfo& module : modules) {
                if (moduleName != nullptr && module.Name != moduleName)
                    continue;
                if (buffer->SetSeverity(module.ModuleID, static_cast<Severity::Type>(severity)))
                    ++changed;
                if (moduleName != nullptr)
                    break;
            }
        }
        return changed != 0 ? 1 : 0;
    } catch (...) {
        return 0;
    }
}

PAXLTRACE_API bool trace_set_flag(const char* bufferName, const char* moduleName, const char* flagName,
                                  bool on) {
    if (bufferName == nullptr || moduleName == nullptr || flagName == nullptr)
        return false;
    try {
        const OwnBuffers buffers;
        for (const auto& info : buffers.infos) {
            TraceBuffer* buffer = info != nullptr ? buffers.Get(*info, bufferName) : nullptr;
            if (buffer == nullptr)
                continue;
            TraceModuleInfo module;
            if (!buffer->GetModuleInfo(moduleName, module))
                return false;
            const TraceFlagInfo* flag = module.FindFlag(std::string(flagName));
            if (flag == nullptr || flag->BitNo == 0)
                return false;
            return buffer->SetFlag(module.ModuleID, on, flag->BitNo);
        }
        return false;
    } catch (...) {
        return false;
    }
}

PAXLTRACE_API char* trace_timer_format(unsigned long long timestamp, unsigned timestampMode) {
    try {
        std::string text;
        TraceTimer::Format(timestamp, text, static_cast<TimestampMode::Type>(timestampMode));
        return trace_string_copy(text.c_str());
    } catch (...) {
        return nullptr;
    }
}

PAXLTRACE_API unsigned trace_current_thread_id(void) {
    return Platform::CurrentThreadId();
}

}  // extern "C"
