#include "Trace/Runtime/TraceRuntime.h"

#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Profiles/TraceProfileSHMHandler.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Records/ITraceRecordContext.h"
#include "Trace/Registry/TraceRegistry.h"
#include "Trace/Time/TraceTimer.h"
#include "platform/Process.h"

namespace Tracing {

// The records' view of the registry.
class TraceRuntime::RecordContext final : public ITraceRecordContext {
public:
    explicit RecordContext(TraceRegistry& registry) : m_registry(registry) {}
    const TraceBuffer* FindProducerBuffer(int32_t bufferID) override {
        return m_registry.GetProducerBuffer(bufferID);
    }
    const TraceBuffer* FindConsumerBuffer(int32_t bufferID) override {
        return m_registry.GetConsumerBuffer(bufferID);
    }
    TraceEngine* GetOwnEngine() override { return TraceRegistry::GetEngine(); }

private:
    TraceRegistry& m_registry;
};

// Runs when static objects are destroyed, before those made earlier than the runtime (a host's
// globals among them), which may still use the library afterwards.
class TraceRuntime::ExitSteps {
public:
    explicit ExitSteps(TraceRegistry& registry) : m_registry(registry) {}
    ~ExitSteps() {
        // When the system has already ended the other threads, maybe inside our locks, it takes
        // back everything itself, and nothing here may wait for them.
        const bool systemEnding = Platform::ProcessIsEnding();
        if (!systemEnding)
            TraceUpdateManager::GetInstance().Stop(TraceUpdateManager::ExitStopTimeoutMs);
        s_shutDown.store(true, std::memory_order_seq_cst);
        m_registry.ShutDown();
        if (!systemEnding)
            TraceSharedMemory::ReleaseAllAtExit();
    }
    ExitSteps(const ExitSteps&) = delete;
    ExitSteps& operator=(const ExitSteps&) = delete;

private:
    TraceRegistry& m_registry;
};

TraceRuntime& TraceRuntime::Get() {
    static TraceRuntime* const runtime = new TraceRuntime;
    static const ExitSteps exitSteps(runtime->Registry());
    return *runtime;
}

TraceRuntime::TraceRuntime() {
    // Each needs only those before it.
    TraceConfigurationPrivate::GetInstance();
    TraceDiagnostics::GetInstance();
    TraceTimer::GetInstance();
    TraceUpdateManager::GetInstance();
    TraceProfileSHMHandler::GetInstance();
    m_registry = new TraceRegistry;
    ITraceRecordContext::Set(new RecordContext(*m_registry));
}

TraceRegistry& TraceRegistry::GetInstance() {
    TraceRegistry& registry = TraceRuntime::Get().Registry();
    registry.InitializeOnce();
    return registry;
}

}  // namespace Tracing
