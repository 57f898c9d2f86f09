#include "Trace/Registry/TraceRegistry.h"

#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Ipc/TraceProcessData.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Registry/TraceReceiverCommandStore.h"
#include "Trace/Registry/TraceRegistryData.h"
#include "Trace/Time/TraceTimer.h"
#include "platform/CreationGuard.h"
#include "platform/Thread.h"

namespace Tracing {
namespace {

constexpr unsigned CreationGuardAttempts = 500;
constexpr unsigned ReadinessSleeps = 20;

void ReportInfo(const TraceMessage& message) {
    if (TraceDiagnostics::IsActive(DiagnosticCategory::Buffer))
        TraceDiagnostics::GetInstance().Report(DiagnosticCategory::Buffer, Severity::Info, message);
}

void ReportFailure(const TraceMessage& message) {
    TraceSharedMemory::writeErrorEventLog("TraceRegistry", message.Format().c_str());
    TraceDiagnostics::GetInstance().Warning(message);
}

// The creation guard, held for the lifetime of this object; nothing is held when all attempts fail
// (the caller then goes on unguarded).
class HeldCreationGuard {
public:
    explicit HeldCreationGuard(const std::string& name)
        : m_name(name), m_guard(name, TraceConfigurationPrivate::GetInstance().GetFtokDir()) {
        for (unsigned attempt = 0; attempt < CreationGuardAttempts; ++attempt) {
            switch (m_guard.TryAcquire()) {
                case Platform::CreationGuard::Attempt::Acquired:
                    ReportInfo(TraceMessage("Semaphore %1 successfuly created").Add(m_name));
                    return;
                case Platform::CreationGuard::Attempt::AlreadyHeld:
                    ReportInfo(TraceMessage("Semaphore %1 already created!").Add(m_name));
                    return;
                case Platform::CreationGuard::Attempt::Busy:
                case Platform::CreationGuard::Attempt::Failed:
                    break;
            }
            Platform::SleepMs(1);
        }
        TraceDiagnostics::GetInstance().Warning(
            TraceMessage("Failed to create semaphore %1! Error: %2").Add(m_name).Add(m_guard.LastError()));
    }

    ~HeldCreationGuard() {
        if (!m_guard.IsHeld())
            return;
        if (m_guard.Release()) {
            ReportInfo(TraceMessage("Semaphore %1 successfuly removed").Add(m_name));
        } else {
            TraceDiagnostics::GetInstance().Warning(TraceMessage("Failed to remove semaphore %1! Error: %2")
                                                        .Add(m_name)
                                                        .Add(m_guard.LastError()));
        }
    }

    HeldCreationGuard(const HeldCreationGuard&) = delete;
    HeldCreationGuard& operator=(const HeldCreationGuard&) = delete;

private:
    std::string m_name;
    Platform::CreationGuard m_guard;
};

// Waits for the creator's publication; false when the block did not become ready in time.
bool WaitUntilInitialized(TraceRegistryData& data) {
    for (unsigned sleeps = 0;; ++sleeps) {
        // Pairs with the creator's final store: everything it wrote before is visible now.
        if (data.GetInitializedFlag().load(std::memory_order_seq_cst) == 1)
            return true;
        if (sleeps == ReadinessSleeps)
            return false;
        Platform::SleepMs(1);
    }
}

// Checks a block that another process created before anything of it is used. The sizes come from
// that process too: the mapping must hold the header and every item the header announces.
SHMErrorCodes::Values CheckAttachedBlock(TraceRegistryData& data, const TraceSharedMemory& memory) {
    if (memory.size() < TraceRegistryData::SizeWithoutBufferArray)
        return SHMErrorCodes::InvalidSize;
    if (!WaitUntilInitialized(data))
        return SHMErrorCodes::NotInitialized;
    if (TraceRegistryData::GetSize(data.GetSizeOfBufferArray()) > memory.size())
        return SHMErrorCodes::InvalidSize;
    return SHMErrorCodes::Success;
}

}  // namespace

TraceRegistry& TraceRegistry::GetInstance() {
    static TraceRegistry* const instance = [] {
        // Made first so that they outlive the registry.
        TraceConfigurationPrivate::GetInstance();
        TraceTimer::GetInstance();
        static TraceRegistry registry;
        return &registry;
    }();
    instance->InitializeOnce();
    return *instance;
}

TraceRegistry::TraceRegistry()
    : m_registryMemory(std::make_unique<TraceSharedMemory>()),
      m_serviceMemory(std::make_unique<TraceSharedMemory>()) {}

TraceRegistry::~TraceRegistry() {
    // Timestamps taken after this point must not read the unmapped block.
    TraceTimer::GetInstance().BindReference(nullptr);
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_receiverCommandStore.reset();
    m_data = nullptr;
    m_serviceData = nullptr;
    if (m_serviceMemory->isAttached())
        m_serviceMemory->detach();
    if (m_registryMemory->isAttached())
        m_registryMemory->detach();
}

void TraceRegistry::GetSHMName(std::string& out, bool global) {
    out = global ? "Global\\" : "";
    out += TraceConfigurationPrivate::GetInstance().GetShmPrefix();
    out += "TraceRegistry_V" + std::to_string(TraceConfigurationPrivate::ShmVersion);
}

void TraceRegistry::GetSemaphoreName(std::string& out) {
    // The guard never carries the global prefix.
    out = TraceConfigurationPrivate::GetInstance().GetShmPrefix();
    out += "TraceRegistrySem_V" + std::to_string(TraceConfigurationPrivate::ShmVersion);
}

void TraceRegistry::InitializeOnce() {
    if (m_initialized.load(std::memory_order_acquire))
        return;
    // The set-up may come back here on its own thread (diagnostics, the library's own engine);
    // that caller gets the registry as far as it is set up.
    if (m_initializingThread.load(std::memory_order_acquire) == std::this_thread::get_id())
        return;
    std::lock_guard<std::mutex> once(m_initializeMutex);
    if (m_initialized.load(std::memory_order_acquire))
        return;
    m_initializingThread.store(std::this_thread::get_id(), std::memory_order_release);

    CreateOrAttach();

    TraceTimer::GetInstance().BindReference(m_data);
    uint64_t time = 0;
    uint64_t tick = 0;
    int64_t counter = 0;
    GetTraceTimer(time, tick, counter);
    if (m_data == nullptr || time == TraceTimer::ReferenceNotSet)
        TraceTimer::Synchronize();

    TraceDiagnostics::GetInstance();

    m_initializingThread.store(std::thread::id(), std::memory_order_release);
    m_initialized.store(true, std::memory_order_release);
}

void TraceRegistry::CreateOrAttach() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    std::string key;
    GetSHMName(key, false);
    const uint64_t size =
        TraceRegistryData::GetSize(TraceConfigurationPrivate::GetInstance().GetMaxNumberOfBuffers());
    std::string guardName;
    GetSemaphoreName(guardName);

    bool creator = false;
    {
        HeldCreationGuard guard(guardName);
        m_registryMemory->setKey(key.c_str());
        if (m_registryMemory->attach(TraceSharedMemory::ReadWrite, TraceSharedMemory::AttachDefault)) {
            m_creationErrorCode = TraceRegistryData::Attach(m_data, m_registryMemory->data());
        } else {
            const std::string attachError = m_registryMemory->errorString();
            std::string createError;
            if (m_registryMemory->error() == TraceSharedMemory::NotFound) {
                if (m_registryMemory->create(size, TraceSharedMemory::ReadWrite,
                                             TraceSharedMemory::RestrictedAccess)) {
                    m_creationErrorCode = TraceRegistryData::Create(m_data, m_registryMemory->data(), size);
                    creator = true;
                } else {
                    createError = m_registryMemory->errorString();
                }
            }
            if (!m_registryMemory->isAttached()) {
                ReportFailure(
                    TraceMessage(
                        "Cannot create (or attach to) the SHM '%1'! Attach error: %2 Create error: %3.")
                        .Add(key)
                        .Add(attachError)
                        .Add(createError));
            }
        }
        // A new block is published before the guard goes, so that the process waiting for the
        // guard finds it ready instead of racing the creator's last steps.
        if (creator && m_data != nullptr) {
            SetUpBlock();
            m_data->GetInitializedFlag().store(1, std::memory_order_seq_cst);
        }
    }

    if (!creator && m_data != nullptr) {
        m_creationErrorCode = CheckAttachedBlock(*m_data, *m_registryMemory);
        if (m_creationErrorCode != SHMErrorCodes::Success) {
            m_data = nullptr;
            m_registryMemory->detach();
        } else {
            SetUpBlock();
        }
    }

    if (m_data != nullptr)
        TryAttachServiceRegistryLocked();
}

void TraceRegistry::SetUpBlock() {
    m_receiverCommandStore = std::make_unique<TraceReceiverCommandStore>(m_data->GetReceiverCommands());
}

void TraceRegistry::TryAttachServiceRegistry() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    TryAttachServiceRegistryLocked();
}

void TraceRegistry::TryAttachServiceRegistryLocked() {
    if (m_serviceData != nullptr || !m_tryServiceRegistry || m_data == nullptr ||
        TraceConfigurationPrivate::IsService())
        return;
    std::string key;
    GetSHMName(key, true);
    m_serviceMemory->setKey(key.c_str());
    if (!m_serviceMemory->attach(TraceSharedMemory::ReadWrite, TraceSharedMemory::AttachDefault)) {
        // No service registry yet: normal, and asked again later.
        if (m_serviceMemory->error() != TraceSharedMemory::NotFound) {
            ReportFailure(TraceMessage("Cannot attach to the Service SHM '%1'! Error: %2.")
                              .Add(key)
                              .Add(m_serviceMemory->errorString()));
        }
        return;
    }
    if (m_serviceMemory->isSameShm(*m_registryMemory)) {
        // This process already lives in the global namespace.
        m_serviceMemory->detach();
        m_tryServiceRegistry = false;
        return;
    }
    TraceRegistryData* data = nullptr;
    if (TraceRegistryData::Attach(data, m_serviceMemory->data()) == SHMErrorCodes::Success &&
        CheckAttachedBlock(*data, *m_serviceMemory) == SHMErrorCodes::Success) {
        m_serviceData = data;
    } else {
        m_serviceMemory->detach();
    }
}

unsigned TraceRegistry::GetChangeCounter() const {
    return m_data != nullptr ? m_data->GetAtomicChangeCounter().load(std::memory_order_seq_cst) : 0;
}

void TraceRegistry::IncChangeCounter() {
    if (m_data != nullptr)
        m_data->GetAtomicChangeCounter().fetch_add(1, std::memory_order_seq_cst);
}

unsigned TraceRegistry::GetServiceChangeCounter() const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return m_serviceData != nullptr ? m_serviceData->GetAtomicChangeCounter().load(std::memory_order_seq_cst)
                                    : 0;
}

void TraceRegistry::IncServiceChangeCounter() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_serviceData != nullptr)
        m_serviceData->GetAtomicChangeCounter().fetch_add(1, std::memory_order_seq_cst);
}

unsigned TraceRegistry::GetProfileIndex() const {
    return m_data != nullptr ? m_data->GetAtomicProfileIndex().load(std::memory_order_seq_cst) : 0;
}

bool TraceRegistry::SetProfileIndex(unsigned expected, unsigned value) {
    if (m_data == nullptr)
        return false;
    return m_data->GetAtomicProfileIndex().compare_exchange_strong(expected, value,
                                                                   std::memory_order_seq_cst);
}

int64_t TraceRegistry::GetProfileLoaderID() const {
    return m_data != nullptr ? m_data->GetProfileLoaderID() : 0;
}

int64_t TraceRegistry::GetServiceProfileLoaderID() const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return m_serviceData != nullptr ? m_serviceData->GetProfileLoaderID() : 0;
}

void TraceRegistry::SetProfileLoaderID(const int64_t& id) {
    if (m_data != nullptr)
        m_data->SetProfileLoaderID(id);
}

void TraceRegistry::GetTraceTimer(uint64_t& time, uint64_t& tick, int64_t& counter) const {
    if (m_data == nullptr) {
        time = 0;
        tick = 0;
        counter = 0;
        return;
    }
    m_data->GetTraceTimer(time, tick, counter);
}

void TraceRegistry::SetTraceTimer(uint64_t time, uint64_t tick, int64_t counter) {
    if (m_data != nullptr)
        m_data->TrySetTraceTimer(time, tick, counter);
}

unsigned TraceRegistry::GetTraceTimerResynchronizationPeriod() const {
    return m_data != nullptr ? m_data->GetTraceTimerResynchronizationPeriod()
                             : TraceTimer::DefaultResyncPeriod;
}

void TraceRegistry::SetTraceTimerResynchronizationPeriod(unsigned periodMs) {
    if (m_data != nullptr)
        m_data->SetTraceTimerResynchronizationPeriod(periodMs);
}

unsigned TraceRegistry::GetSizeOfBufferArray() const {
    return m_data != nullptr ? m_data->GetSizeOfBufferArray() : 0;
}

uint32_t* TraceRegistry::GetGlobalTraceIDCounter() const {
    return m_data != nullptr ? m_data->GetGlobalTraceCounterAddress() : nullptr;
}

void TraceRegistry::UpdateNamesOfAllCreatedBuffers() {
    // No buffer of this process carries the names yet, so there is nothing to carry over.
}

bool TraceRegistry::IsProcessAlive(int64_t pid, bool) {
    return TraceProcessData::IsProcessAlive(pid);
}

}  // namespace Tracing
