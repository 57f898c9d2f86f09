#include "Trace/Registry/TraceRegistry.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "Trace/Buffer/TraceStream.h"
#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Ipc/TraceProcessData.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Profiles/TraceProfile.h"
#include "Trace/Profiles/TraceProfileSHMHandler.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Registry/ITraceRegistryDataChangedListener.h"
#include "Trace/Registry/TraceBufferFilterCriteria.h"
#include "Trace/Registry/TraceReceiverCommandStore.h"
#include "Trace/Registry/TraceRegistryData.h"
#include "Trace/Registry/TraceRegistryUpdater.h"
#include "Trace/Time/TraceTimer.h"
#include "paxltrace.h"
#include "platform/CreationGuard.h"
#include "platform/Process.h"
#include "platform/SharedMemory.h"
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

void ReportWarning(const TraceMessage& message) {
    TraceSharedMemory::writeWarningEventLog("TraceRegistry", message.Format().c_str());
    TraceDiagnostics::GetInstance().Warning(message);
}

// Buffer bookkeeping; callers test this before building the message.
bool BufferReportsWanted() {
    return TraceDiagnostics::IsActive(DiagnosticCategory::Buffer);
}

void ReportBuffer(Severity::Type severity, const TraceMessage& message) {
    TraceDiagnostics::GetInstance().Report(DiagnosticCategory::Buffer, severity, message);
}

uint64_t AddressOf(const void* object) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(object));
}

void ReportUnregistered(int32_t id) {
    if (BufferReportsWanted())
        ReportBuffer(Severity::Verbose,
                     TraceMessage("Buffer unregistered successfully: BufferID: %1.").Add(id));
}

// The (un)registration of a listener; %1 is its address.
void ReportListener(const char* text, const void* listener) {
    if (BufferReportsWanted())
        ReportBuffer(Severity::Verbose, TraceMessage(text).Add(AddressOf(listener)));
}

// Names are compared as they are stored: over at most 32 characters.
bool SameName(const char* a, const char* b) {
    return std::strncmp(a, b, TraceRegistryDataItem::MaxNameLength) == 0;
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

// Whether the memory of a registered buffer exists: a buffer lives exactly as long as some process
// holds its memory. NoError when it does; the error text goes to *errorText when asked for.
TraceSharedMemory::SharedMemoryError ProbeBufferMemory(int32_t id, int64_t processID, const std::string& host,
                                                       const std::string& subsystem, std::string* errorText) {
    std::string name;
    TraceBuffer::GetSHMName(name, processID, host.c_str(), subsystem.c_str(), TraceBuffer::IsServiceID(id));
    TraceSharedMemory memory(name.c_str());
    if (memory.attach(TraceSharedMemory::ReadOnly, TraceSharedMemory::AttachDefault)) {
        memory.detach();
        return TraceSharedMemory::NoError;
    }
    if (errorText != nullptr)
        *errorText = memory.errorString();
    return memory.error();
}

}  // namespace

std::atomic<TraceRegistry*> TraceRegistry::s_instance{nullptr};

class TraceRegistry::BlockLock {
public:
    explicit BlockLock(TraceRegistryData& data) : m_data(&data) { m_data->Lock(); }
    ~BlockLock() { Unlock(); }
    void Unlock() {
        if (m_data != nullptr)
            m_data->Unlock();
        m_data = nullptr;
    }
    BlockLock(const BlockLock&) = delete;
    BlockLock& operator=(const BlockLock&) = delete;

private:
    TraceRegistryData* m_data;
};

TraceRegistry::TraceRegistry()
    : m_registryMemory(std::make_unique<TraceSharedMemory>()),
      m_serviceMemory(std::make_unique<TraceSharedMemory>()) {
    s_instance.store(this, std::memory_order_seq_cst);
    TraceConfigurationPrivate::SetNamesChangedHandler(
        &TraceRegistry::UpdateNamesOfAllCreatedBuffersIfCreated);
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
    FreeItemsOfEarlierProcess();

    // What the lower layers need of the block is handed down before any buffer is made.
    TraceBuffer::SetGlobalTraceIDCounter(GetGlobalTraceIDCounter());
    if (m_data != nullptr)
        m_timeReference.emplace(m_data->GetTimeReference());
    TraceTimer::GetInstance().BindReference(m_timeReference ? &*m_timeReference : nullptr);
    uint64_t time = 0;
    uint64_t tick = 0;
    int64_t counter = 0;
    GetTraceTimer(time, tick, counter);
    if (m_data == nullptr || time == TraceTimer::ReferenceNotSet)
        TraceTimer::Synchronize();

    CreateOwnEngine();
    TraceDiagnostics::GetInstance().Initialize();

    m_initializingThread.store(std::thread::id(), std::memory_order_release);
    m_initialized.store(true, std::memory_order_release);
    // Only now: the updater thread's first steps come back to GetInstance and must not wait here.
    CreateUpdater();
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

bool TraceRegistry::IsProcessAlive(int64_t pid, bool) {
    return TraceProcessData::IsProcessAlive(pid);
}

// ---------------------------------------------------------------------------------------------
// Buffer registration and lookup

size_t TraceRegistry::BufferAddressHash::operator()(const TraceBuffer* buffer) const noexcept {
    unsigned char bytes[sizeof buffer];
    std::memcpy(bytes, &buffer, sizeof buffer);
    uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char byte : bytes) {
        hash ^= byte;
        hash *= 0x100000001b3ull;
    }
    return static_cast<size_t>(hash);
}

bool TraceRegistry::IsUpdateManagerRunning() {
    return TraceUpdateManager::GetInstance().IsRunning();
}

void TraceRegistry::IncChangeCounterForBufferChange() {
    if (m_updater)
        m_updater->IncChangeCounter();
    else
        IncChangeCounter();
}

unsigned TraceRegistry::GetUsableItemCount(const TraceRegistryData* data) const {
    const TraceSharedMemory* memory = data == m_data          ? m_registryMemory.get()
                                      : data == m_serviceData ? m_serviceMemory.get()
                                                              : nullptr;
    if (data == nullptr || memory == nullptr || memory->size() < TraceRegistryData::SizeWithoutBufferArray)
        return 0;
    // The count was checked when the block was attached; another process may have written it since.
    const uint64_t fitting =
        (memory->size() - TraceRegistryData::SizeWithoutBufferArray) / sizeof(TraceRegistryDataItem);
    return static_cast<unsigned>(std::min<uint64_t>(data->GetSizeOfBufferArray(), fitting));
}

TraceBuffer* TraceRegistry::RegisterBuffer(const char* subSystemName, const char* moduleName,
                                           TimestampMode::Type timestampMode, uint32_t maxModules,
                                           uint32_t streamSize, TraceBuffer::ErrorType* error) {
    const TraceConfigurationPrivate& configuration = TraceConfigurationPrivate::GetInstance();
    const BufferRequest request{Platform::CurrentProcessId(),
                                TraceBuffer::HostName_Local,
                                TraceBuffer::HostName_Local,
                                configuration.GetSystemName(),
                                configuration.GetApplicationName(),
                                subSystemName != nullptr ? subSystemName : "",
                                moduleName != nullptr ? moduleName : "",
                                timestampMode,
                                maxModules,
                                streamSize};
    TraceBuffer::ErrorType result = TraceBuffer::Success;
    TraceBuffer* buffer = Register(request, result);
    if (error != nullptr)
        *error = result;
    return buffer;
}

TraceBuffer* TraceRegistry::RegisterRemoteBuffer(int64_t processID, const char* hostName,
                                                 const char* systemName, const char* applicationName,
                                                 const char* subSystemName, const char* moduleName,
                                                 TimestampMode::Type timestampMode, uint32_t maxModules,
                                                 uint32_t streamSize, TraceBuffer::ErrorType* error) {
    TraceBuffer::ErrorType result = TraceBuffer::SharedMemoryFailed;
    TraceBuffer* buffer = nullptr;
    if (hostName != nullptr && *hostName != '\0') {
        const std::string host(hostName, strnlen(hostName, TraceRegistryDataItem::MaxNameLength));
        // The suffix must fit the 32 characters of the registry's host field.
        const size_t suffixAt =
            host.size() < TraceRegistryDataItem::MaxNameLength - 1 ? host.size() : host.size() - 2;
        for (char attempt = '0'; attempt <= '9'; ++attempt) {
            std::string registryHost = host;
            if (attempt != '0') {
                registryHost.resize(suffixAt);
                registryHost += ':';
                registryHost += attempt;
            }
            const BufferRequest request{processID,
                                        hostName,
                                        registryHost.c_str(),
                                        systemName != nullptr ? systemName : "",
                                        applicationName != nullptr ? applicationName : "",
                                        subSystemName != nullptr ? subSystemName : "",
                                        moduleName != nullptr ? moduleName : "",
                                        timestampMode,
                                        maxModules,
                                        streamSize};
            buffer = Register(request, result);
            // "Already registered" and "name taken" try the next suffix; anything else is final.
            if (buffer != nullptr ||
                (result != TraceBuffer::AlreadyCreated && result != TraceBuffer::SharedMemoryFailed))
                break;
        }
    }
    if (error != nullptr)
        *error = result;
    return buffer;
}

TraceBuffer* TraceRegistry::FindBuffer(const BufferMap& buffers, int64_t processID, const char* hostName,
                                       const char* registryHostName, const char* subSystemName) {
    for (const auto& [id, buffer] : buffers) {
        if (buffer->GetProcessID() == processID && SameName(buffer->GetHostName(), hostName) &&
            SameName(buffer->GetSubSystemName(), subSystemName) &&
            (*registryHostName == '\0' || SameName(buffer->GetRegistryHostName().c_str(), registryHostName)))
            return buffer.get();
    }
    return nullptr;
}

void TraceRegistry::WaitForEarlierMemory(const BufferRequest& request) {
    {
        // Only our own local buffers: a remote name taken by another collector is a live buffer
        // that registration works around.
        if (request.processID != Platform::CurrentProcessId() ||
            !TraceBuffer::IsLocal(request.registryHostName))
            return;
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (m_data == nullptr)
            return;
        // A registered buffer of these names (this or another copy of the library made it) is found
        // by the registration itself.
        BlockLock blockLock(*m_data);
        const TraceRegistryDataItem* items = m_data->GetBufferArray();
        for (unsigned i = 0, n = GetUsableItemCount(m_data); i < n; ++i) {
            if (items[i].IsActivated() && items[i].GetProcessID() == request.processID &&
                SameName(items[i].GetHostName(), request.registryHostName) &&
                SameName(items[i].GetSubSystemName(), request.subSystemName))
                return;
        }
    }
    // The memory's name comes from the names alone, so a buffer registered again right after its
    // unregistration meets its old memory while other processes still hold it; they let go of it
    // in their next update cycle, after at most the close wait.
    const unsigned waitMs = TraceConfigurationPrivate::GetInstance().GetBufferCloseWaitMs() +
                            2 * TraceUpdateManager::GetThreadSleepValue();
    const int32_t service = TraceConfigurationPrivate::IsService() ? TraceBuffer::ServiceIDBit : 0;
    for (unsigned waited = 0;; waited += 5) {
        if (ProbeBufferMemory(service, request.processID, request.registryHostName, request.subSystemName,
                              nullptr) != TraceSharedMemory::NoError)
            return;
        if (waited >= waitMs) {
            ReportWarning(TraceMessage("The memory of an earlier buffer of these names is still in use by "
                                       "another process: PID: %1, host: %2, subsys: %3. A buffer registered "
                                       "again right after its unregistration needs its readers to let go "
                                       "of the old one first.")
                              .Add(request.processID)
                              .Add(request.registryHostName)
                              .Add(request.subSystemName));
            return;
        }
        Platform::SleepMs(5);
    }
}

TraceBuffer* TraceRegistry::Register(const BufferRequest& request, TraceBuffer::ErrorType& error) {
    WaitForEarlierMemory(request);
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_data == nullptr || m_shutDown.load(std::memory_order_seq_cst)) {
        error = TraceBuffer::SharedMemoryFailed;
        return nullptr;
    }
    BlockLock blockLock(*m_data);
    SynchronizeProducerBuffers();
    TraceBuffer* found = FindBuffer(m_producerBuffers, request.processID, request.hostName,
                                    request.registryHostName, request.subSystemName);
    if (found == nullptr)
        return CreateAndEnter(request, error, blockLock);

    error = TraceBuffer::AlreadyCreated;
    if (found->GetCreatorProcessID() == Platform::CurrentProcessId()) {
        // The first registration decided the module count.
        if (request.maxModules != 0 && found->GetSizeOfModuleArray() != request.maxModules &&
            BufferReportsWanted()) {
            ReportBuffer(Severity::Verbose,
                         TraceMessage("The buffer is already registered with different module count: "
                                      "BufferID: %1, PID: %2, host: %3, subsys: %4, module: %5, module "
                                      "count: %6, needed module count: %7.")
                             .Add(found->GetBufferID())
                             .Add(request.processID)
                             .Add(request.hostName)
                             .Add(request.subSystemName)
                             .Add(request.moduleName)
                             .Add(found->GetSizeOfModuleArray())
                             .Add(request.maxModules));
        }
        return found;
    }
    ReportFailure(TraceMessage("Failed to register buffer: BufferID: %1, PID: %2, host: %3, subsys: %4, "
                               "module: %5, module count: %6. Already registered by process %7.")
                      .Add(found->GetBufferID())
                      .Add(request.processID)
                      .Add(request.hostName)
                      .Add(request.subSystemName)
                      .Add(request.moduleName)
                      .Add(found->GetSizeOfModuleArray())
                      .Add(found->GetCreatorProcessID()));
    return nullptr;
}

TraceBuffer* TraceRegistry::CreateAndEnter(const BufferRequest& request, TraceBuffer::ErrorType& error,
                                           BlockLock& blockLock) {
    // One counter for the whole machine: no two processes ever draw the same ID.
    const int32_t drawn = m_data->GetAtomicNextFreeBufferID().fetch_add(1, std::memory_order_seq_cst);
    m_lastAssignedBufferID = drawn;
    const int32_t id = TraceBuffer::MaskID(drawn, TraceConfigurationPrivate::IsService());

    auto buffer = std::make_unique<TraceBuffer>();
    const TraceBuffer::ErrorType created =
        buffer->Create(id, request.processID, request.timestampMode, request.hostName,
                       request.registryHostName, request.systemName, request.applicationName,
                       request.subSystemName, request.maxModules, request.streamSize);
    if (created != TraceBuffer::Success) {
        ReportFailure(TraceMessage("Failed to create buffer: BufferID: %1, PID: %2, host: %3, subsys: %4, "
                                   "module: %5, error: %6.")
                          .Add(id)
                          .Add(request.processID)
                          .Add(request.hostName)
                          .Add(request.subSystemName)
                          .Add(request.moduleName)
                          .Add(static_cast<int32_t>(created)));
        error = created;
        // Other processes wait for the lock; the buffer goes after it is released.
        blockLock.Unlock();
        return nullptr;
    }
    if (BufferReportsWanted()) {
        ReportBuffer(Severity::Verbose, TraceMessage("Buffer created successfully: BufferID: %1, PID: %2, "
                                                     "host: %3, subsys: %4, module: %5.")
                                            .Add(id)
                                            .Add(request.processID)
                                            .Add(request.hostName)
                                            .Add(request.subSystemName)
                                            .Add(request.moduleName));
    }

    TraceRegistryDataItem* item =
        m_data->ActivateFirstFreeItem(id, request.processID, request.registryHostName, request.subSystemName);
    if (item == nullptr) {
        ReportWarning(TraceMessage("Failed to register buffer. Attempting to clean registry. BufferID: %1, "
                                   "PID: %2, host: %3, subsys: %4, module: %5. Maximum number of buffers "
                                   "reached.")
                          .Add(id)
                          .Add(request.processID)
                          .Add(request.hostName)
                          .Add(request.subSystemName)
                          .Add(request.moduleName));
        CleanUpRegistry();
        item = m_data->ActivateFirstFreeItem(id, request.processID, request.registryHostName,
                                             request.subSystemName);
    }
    if (item == nullptr) {
        // The buffer's memory goes with the object; nobody could find it anyway.
        ReportFailure(TraceMessage("Failed to register buffer: BufferID: %1, PID: %2, host: %3, subsys: %4, "
                                   "module: %5. Maximum number of buffers reached.")
                          .Add(id)
                          .Add(request.processID)
                          .Add(request.hostName)
                          .Add(request.subSystemName)
                          .Add(request.moduleName));
        error = TraceBuffer::NoFreeRegistryItem;
        blockLock.Unlock();
        return nullptr;
    }
    if (BufferReportsWanted())
        ReportBuffer(Severity::Verbose,
                     TraceMessage("Buffer registered successfully: BufferID: %1.").Add(id));

    TraceBuffer* registered = buffer.get();
    auto& slot = m_producerBuffers[id];
    // Only after the 30-bit ID space wrapped could an old buffer still hold this ID.
    if (slot)
        m_createdBuffers.erase(slot.get());
    slot = std::move(buffer);
    m_createdBuffers.insert(registered);
    IncChangeCounterForBufferChange();
    if (IsUpdateManagerRunning()) {
        m_buffersToAnnounce.insert(id);
        m_updateNeeded.exchange(1, std::memory_order_seq_cst);
    }
    error = TraceBuffer::Success;
    return registered;
}

void TraceRegistry::SynchronizeProducerBuffers() {
    const uint32_t counter = m_data->GetAtomicChangeCounter().load(std::memory_order_seq_cst);
    if (counter == m_synchronizedChangeCounter)
        return;
    m_synchronizedChangeCounter = counter;

    const size_t before = m_producerBuffers.size();
    const int64_t pid = Platform::CurrentProcessId();
    TraceRegistryDataItem* items = m_data->GetBufferArray();
    for (unsigned i = 0, n = GetUsableItemCount(m_data); i < n; ++i) {
        const TraceRegistryDataItem& item = items[i];
        const int32_t id = item.GetBufferID();
        if (!item.IsActivated() || item.GetProcessID() != pid || !TraceBuffer::IsLocal(item.GetHostName()) ||
            m_producerBuffers.count(id) != 0)
            continue;
        auto buffer = std::make_unique<TraceBuffer>();
        const TraceBuffer::ErrorType result =
            buffer->Attach(id, pid, item.GetHostName(), item.GetSubSystemName());
        if (result != TraceBuffer::Success) {
            ReportFailure(TraceMessage("Couldn't attach to trace buffer! BufferID: %1, error: %2.")
                              .Add(id)
                              .Add(static_cast<int32_t>(result)));
            continue;
        }
        if (BufferReportsWanted()) {
            ReportBuffer(Severity::Verbose,
                         TraceMessage("Attached to trace buffer successfully. BufferID: %1, "
                                      "PID: %2, host: '%3', subsys: '%4'.")
                             .Add(id)
                             .Add(pid)
                             .Add(item.GetHostName())
                             .Add(item.GetSubSystemName()));
        }
        m_producerBuffers.emplace(id, std::move(buffer));
    }
    if (BufferReportsWanted()) {
        ReportBuffer(Severity::Verbose,
                     TraceMessage("Synchronization of buffers finish. Buffer count before: %1 after: %2")
                         .Add(static_cast<uint64_t>(before))
                         .Add(static_cast<uint64_t>(m_producerBuffers.size())));
    }
}

void TraceRegistry::CleanUpRegistry() {
    if (m_data == nullptr) {
        ReportFailure(TraceMessage("TraceRegistry shared memory data missing."));
        return;
    }
    const unsigned count = GetUsableItemCount(m_data);
    if (count == 0) {
        ReportFailure(TraceMessage("TraceRegistry shared memory buffer items missing."));
        return;
    }
    TraceRegistryDataItem* items = m_data->GetBufferArray();
    std::string errorText;
    for (unsigned i = 0; i < count; ++i) {
        TraceRegistryDataItem& item = items[i];
        if (!item.IsActivated())
            continue;
        const int32_t id = item.GetBufferID();
        const TraceSharedMemory::SharedMemoryError probed = ProbeBufferMemory(
            id, item.GetProcessID(), item.GetHostName(), item.GetSubSystemName(), &errorText);
        if (probed == TraceSharedMemory::NotFound) {
            item.Deactivate();
        } else if (probed != TraceSharedMemory::NoError) {
            ReportFailure(TraceMessage("Failed to connect to trace buffer during cleanup. Error: %1. "
                                       "ProcessID: %2, BufferID: %3, Hostname: %4, Subsystem: %5.")
                              .Add(errorText)
                              .Add(item.GetProcessID())
                              .Add(id)
                              .Add(item.GetHostName())
                              .Add(item.GetSubSystemName()));
        }
    }
}

TraceRegistry::ErrorType TraceRegistry::UnregisterBuffer(TraceBuffer* buffer) {
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (buffer == nullptr || m_createdBuffers.count(buffer) == 0)
            return NotCreatedHere;
    }
    std::unique_ptr<TraceBuffer> removed;
    std::unique_ptr<TraceBuffer> removedReader;
    int32_t id = -1;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        // Another thread may have unregistered it while the mutex was free.
        if (m_data == nullptr || m_createdBuffers.count(buffer) == 0)
            return NotCreatedHere;
        id = buffer->GetBufferID();
        if (BufferReportsWanted())
            ReportBuffer(Severity::Verbose, TraceMessage("Unregistering the buffer: BufferID: %1.").Add(id));
        buffer->WaitBeforeClose();
        for (auto it = m_producerBuffers.begin(); it != m_producerBuffers.end(); ++it) {
            if (it->second.get() == buffer) {
                removed = std::move(it->second);
                m_producerBuffers.erase(it);
                break;
            }
        }
        m_createdBuffers.erase(buffer);
        // Our own reading copy would keep the memory alive until the next update, and a buffer of
        // the same name made meanwhile would find it still there.
        if (const auto it = m_consumerBuffers.find(id);
            it != m_consumerBuffers.end() && !it->second->HasInterest()) {
            removedReader = std::move(it->second);
            m_consumerBuffers.erase(it);
        }
        // A buffer that is gone again must not be announced as new.
        m_buffersToAnnounce.erase(id);
        {
            BlockLock blockLock(*m_data);
            m_data->DeactivateItem(id);
        }
        IncChangeCounterForBufferChange();
        ReportUnregistered(id);
    }
    FireBuffersDeleted({id});
    if (BufferReportsWanted())
        ReportBuffer(Severity::Verbose, TraceMessage("Buffer deleted successfully: BufferID: %1.").Add(id));
    removedReader.reset();
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (m_engineCounts.count(buffer) != 0) {
            if (TraceStream* stream = removed->GetTraceStream())
                stream->MarkDeleted();
            m_retiredBuffers.push_back(std::move(removed));
        }
    }
    removed.reset();
    return Done;
}

bool TraceRegistry::AddEngine(TraceBuffer* buffer) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_createdBuffers.count(buffer) == 0)
        return false;
    ++m_engineCounts[buffer];
    return true;
}

void TraceRegistry::RemoveEngine(TraceBuffer* buffer) {
    std::unique_ptr<TraceBuffer> last;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        const auto it = m_engineCounts.find(buffer);
        if (it == m_engineCounts.end() || --it->second != 0)
            return;
        m_engineCounts.erase(it);
        const auto retired = std::find_if(m_retiredBuffers.begin(), m_retiredBuffers.end(),
                                          [&](const auto& held) { return held.get() == buffer; });
        if (retired == m_retiredBuffers.end())
            return;
        last = std::move(*retired);
        m_retiredBuffers.erase(retired);
    }
}

TraceBuffer* TraceRegistry::LookUp(const BufferMap& buffers, int32_t bufferID) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_data == nullptr || bufferID < 0)
        return nullptr;
    {
        BlockLock blockLock(*m_data);
        SynchronizeProducerBuffers();
    }
    const auto it = buffers.find(bufferID);
    return it != buffers.end() ? it->second.get() : nullptr;
}

TraceBuffer* TraceRegistry::GetProducerBuffer(int32_t bufferID) {
    return LookUp(m_producerBuffers, bufferID);
}

TraceBuffer* TraceRegistry::GetConsumerBuffer(int32_t bufferID) {
    return LookUp(m_consumerBuffers, bufferID);
}

TraceBuffer* TraceRegistry::GetConsumerBuffer(int64_t processID, const char* hostName,
                                              const char* subSystemName) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return FindBuffer(m_consumerBuffers, processID, hostName != nullptr ? hostName : "",
                      TraceBuffer::HostName_Local, subSystemName != nullptr ? subSystemName : "");
}

void TraceRegistry::Browse(const BufferMap& buffers, std::vector<std::unique_ptr<TraceBufferInfo>>& infos,
                           const TraceBufferFilterCriteria* criteria) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_data == nullptr)
        return;
    infos.clear();
    for (const auto& [id, buffer] : buffers) {
        if (criteria != nullptr && !criteria->Matches(*buffer))
            continue;
        auto info = std::make_unique<TraceBufferInfo>();
        buffer->GetInfo(*info);
        infos.push_back(std::move(info));
    }
}

void TraceRegistry::ProducerBrowse(std::vector<std::unique_ptr<TraceBufferInfo>>& infos) {
    Browse(m_producerBuffers, infos, nullptr);
}

void TraceRegistry::ProducerBrowse(std::vector<std::unique_ptr<TraceBufferInfo>>& infos,
                                   const TraceBufferFilterCriteria& criteria) {
    Browse(m_producerBuffers, infos, &criteria);
}

void TraceRegistry::ConsumerBrowse(std::vector<std::unique_ptr<TraceBufferInfo>>& infos) {
    Browse(m_consumerBuffers, infos, nullptr);
}

void TraceRegistry::ConsumerBrowse(std::vector<std::unique_ptr<TraceBufferInfo>>& infos,
                                   const TraceBufferFilterCriteria& criteria) {
    Browse(m_consumerBuffers, infos, &criteria);
}

size_t TraceRegistry::GetConsumerBufferCount() const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return m_data != nullptr ? m_consumerBuffers.size() : 0;
}

void TraceRegistry::RegisterInterest(int32_t bufferID) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (const auto it = m_consumerBuffers.find(bufferID); it != m_consumerBuffers.end())
        it->second->RegisterInterest();
}

void TraceRegistry::UnregisterInterest(int32_t bufferID) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (const auto it = m_consumerBuffers.find(bufferID); it != m_consumerBuffers.end())
        it->second->UnregisterInterest();
}

TraceBuffer* TraceRegistry::AttachConsumerBuffer(int32_t bufferID) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_data == nullptr || bufferID < 0)
        return nullptr;
    if (const auto it = m_consumerBuffers.find(bufferID); it != m_consumerBuffers.end())
        return it->second.get();
    TraceRegistryData* block =
        TraceBuffer::IsServiceID(bufferID) && m_serviceData != nullptr ? m_serviceData : m_data;
    int64_t processID = 0;
    std::string host;
    std::string subsystem;
    {
        // The names of an item are read under the lock.
        BlockLock blockLock(*block);
        const TraceRegistryDataItem* items = block->GetBufferArray();
        const TraceRegistryDataItem* item = nullptr;
        for (unsigned i = 0, n = GetUsableItemCount(block); i < n && item == nullptr; ++i) {
            if (items[i].GetBufferID() == bufferID)
                item = &items[i];
        }
        if (item == nullptr)
            return nullptr;
        processID = item->GetProcessID();
        host = item->GetHostName();
        subsystem = item->GetSubSystemName();
    }
    return AttachConsumerBuffer(bufferID, processID, host.c_str(), subsystem.c_str());
}

TraceBuffer* TraceRegistry::AttachConsumerBuffer(int32_t bufferID, int64_t processID, const char* hostName,
                                                 const char* subSystemName) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (const auto it = m_consumerBuffers.find(bufferID); it != m_consumerBuffers.end())
        return it->second.get();
    auto buffer = std::make_unique<TraceBuffer>();
    const TraceBuffer::ErrorType result = buffer->Attach(bufferID, processID, hostName, subSystemName);
    if (result != TraceBuffer::Success) {
        TraceDiagnostics::GetInstance().Warning(
            TraceMessage("Couldn't attach to trace buffer! BufferID: %1, error: %2.")
                .Add(bufferID)
                .Add(static_cast<int32_t>(result)));
        return nullptr;
    }
    if (BufferReportsWanted()) {
        ReportBuffer(Severity::Verbose, TraceMessage("Attached to trace buffer successfully. BufferID: %1, "
                                                     "PID: %2, host: '%3', subsys: '%4'.")
                                            .Add(bufferID)
                                            .Add(processID)
                                            .Add(hostName)
                                            .Add(subSystemName));
    }
    TraceBuffer* attached = buffer.get();
    m_consumerBuffers.emplace(bufferID, std::move(buffer));
    return attached;
}

void TraceRegistry::RegisterDataChangedListener(ITraceRegistryDataChangedListener* listener) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (listener == nullptr)
        return;
    if (std::find(m_dataChangedListeners.begin(), m_dataChangedListeners.end(), listener) !=
        m_dataChangedListeners.end()) {
        ReportListener("Couldn't register ITraceRegistryDataChangedListener (0x%1:x). Already registered.",
                       listener);
        return;
    }
    m_dataChangedListeners.push_back(listener);
    ReportListener("ITraceRegistryDataChangedListener (0x%1:x) registered.", listener);
}

void TraceRegistry::UnregisterDataChangedListener(ITraceRegistryDataChangedListener* listener) {
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        const auto it = std::find(m_dataChangedListeners.begin(), m_dataChangedListeners.end(), listener);
        if (it == m_dataChangedListeners.end()) {
            // No final full stop: the text is matched as it always was.
            ReportListener("Couldn't unregister ITraceRegistryDataChangedListener (0x%1:x). Not registered",
                           listener);
            return;
        }
        m_dataChangedListeners.erase(it);
        ReportListener("ITraceRegistryDataChangedListener (0x%1:x) unregistered.", listener);
    }
    // Its owner may destroy it once we return. A call on this very thread is the caller's own.
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> calls(m_listenerCallMutex);
    m_listenerCallDone.wait(calls, [&] {
        return std::none_of(m_listenerCalls.begin(), m_listenerCalls.end(),
                            [&](const auto& call) { return call.first == listener && call.second != self; });
    });
}

template <typename Call>
void TraceRegistry::FireToListeners(const char* what, size_t count, Call call) {
    std::vector<ITraceRegistryDataChangedListener*> listeners;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        listeners = m_dataChangedListeners;
    }
    // Without the mutex: a listener may (un)register listeners or use the registry.
    const std::thread::id self = std::this_thread::get_id();
    for (ITraceRegistryDataChangedListener* listener : listeners) {
        {
            std::lock_guard<std::recursive_mutex> lock(m_mutex);
            if (std::find(m_dataChangedListeners.begin(), m_dataChangedListeners.end(), listener) ==
                m_dataChangedListeners.end())
                continue;
            std::lock_guard<std::mutex> calls(m_listenerCallMutex);
            m_listenerCalls.emplace_back(listener, self);
        }
        if (BufferReportsWanted()) {
            ReportBuffer(Severity::Call,
                         TraceMessage("ITraceRegistryDataChangedListener (0x%1:x) called. %2, %3 buffers.")
                             .Add(AddressOf(listener))
                             .Add(what)
                             .Add(static_cast<uint64_t>(count)));
        }
        try {
            call(*listener);
        } catch (...) {
            // Someone else's fault; the other listeners still hear of it.
            TraceDiagnostics::GetInstance().Warning(
                TraceMessage("ITraceRegistryDataChangedListener (0x%1:x) threw.").Add(AddressOf(listener)));
        }
        {
            std::lock_guard<std::mutex> calls(m_listenerCallMutex);
            m_listenerCalls.erase(
                std::find(m_listenerCalls.begin(), m_listenerCalls.end(), std::make_pair(listener, self)));
        }
        m_listenerCallDone.notify_all();
    }
}

void TraceRegistry::FireBuffersCreated(const std::unordered_set<int>& bufferIDs) {
    FireToListeners("OnBuffersCreated", bufferIDs.size(), [&](ITraceRegistryDataChangedListener& listener) {
        listener.OnBuffersCreated(bufferIDs);
    });
}

void TraceRegistry::FireBuffersDeleted(const std::unordered_set<int>& bufferIDs) {
    FireToListeners("OnBuffersDeleted", bufferIDs.size(), [&](ITraceRegistryDataChangedListener& listener) {
        listener.OnBuffersDeleted(bufferIDs);
    });
}

// ---------------------------------------------------------------------------------------------
// Registry update and dead-process cleanup

namespace {

constexpr const char* DeadBuffersHeader = "Trace buffer(s) of not running application(s) detected!";

// A string parameter is cut at TraceData::MaxParameterSize bytes; leave room for its framing.
constexpr size_t DeadReportTraceSize = 1800;

void AddReportLine(std::vector<std::string>& report, const TraceMessage& line) {
    report.push_back(line.Format());
}

}  // namespace

void TraceRegistry::CreateUpdater() {
    if (m_data == nullptr)
        return;
    // Made outside the mutex: starting the thread waits for its first steps, which may register
    // the thread's own engine.
    auto updater = std::make_unique<TraceRegistryUpdater>(*this);
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    m_updater = std::move(updater);
}

void TraceRegistry::IncServiceChangeCounterForBufferChange() {
    if (m_updater)
        m_updater->IncServiceChangeCounter();
    else
        IncServiceChangeCounter();
}

TraceRegistryData* TraceRegistry::BlockOf(int32_t bufferID) const {
    return TraceBuffer::IsServiceID(bufferID) && m_serviceData != nullptr ? m_serviceData : m_data;
}

void TraceRegistry::ReadKnownItems() {
    m_knownItems.clear();
    for (TraceRegistryData* block : {m_data, m_serviceData}) {
        if (block == nullptr)
            continue;
        const TraceRegistryDataItem* items = block->GetBufferArray();
        for (unsigned i = 0, n = GetUsableItemCount(block); i < n; ++i) {
            const TraceRegistryDataItem& item = items[i];
            if (item.IsActivated())
                m_knownItems.try_emplace(
                    item.GetBufferID(),
                    KnownItem{item.GetProcessID(), item.GetHostName(), item.GetSubSystemName()});
        }
    }
}

void TraceRegistry::FreeItemsOfEarlierProcess() {
    const int64_t pid = Platform::CurrentProcessId();
    std::vector<int32_t> leftovers;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (m_data == nullptr)
            return;
        for (TraceRegistryData* block : {m_serviceData, m_data}) {
            if (block == nullptr)
                continue;
            const size_t before = leftovers.size();
            {
                BlockLock blockLock(*block);
                const TraceRegistryDataItem* items = block->GetBufferArray();
                for (unsigned i = 0, n = GetUsableItemCount(block); i < n; ++i) {
                    if (items[i].IsActivated() && items[i].GetProcessID() == pid)
                        leftovers.push_back(items[i].GetBufferID());
                }
            }
            if (leftovers.size() == before)
                continue;
            if (block == m_serviceData)
                IncServiceChangeCounterForBufferChange();
            else
                IncChangeCounterForBufferChange();
        }
    }
    if (leftovers.empty())
        return;
    // Consumers get two cycles to let go of the buffers before their items are freed.
    Platform::SleepMs(2 * TraceUpdateManager::GetThreadSleepValue());

    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    bool local = false;
    bool service = false;
    for (const int32_t id : leftovers) {
        TraceRegistryData* block = BlockOf(id);
        bool freed = false;
        {
            BlockLock blockLock(*block);
            // Only while it still belongs to the earlier process: this one may have registered since.
            for (unsigned i = 0, n = GetUsableItemCount(block); i < n && !freed; ++i) {
                TraceRegistryDataItem& item = block->GetBufferArray()[i];
                if (item.GetBufferID() == id && item.GetProcessID() == pid &&
                    m_producerBuffers.count(id) == 0) {
                    item.Deactivate();
                    freed = true;
                }
            }
        }
        if (!freed)
            continue;
        (block == m_serviceData ? service : local) = true;
        ReportUnregistered(id);
    }
    // Again, now that the items are gone: a consumer that polled during the wait saw no change.
    if (service)
        IncServiceChangeCounterForBufferChange();
    if (local)
        IncChangeCounterForBufferChange();
}

void TraceRegistry::Update() {
    std::unordered_set<int> created;
    std::unordered_set<int> deleted;
    std::vector<std::unique_ptr<TraceBuffer>> removed;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        if (m_data == nullptr || m_shutDown.load(std::memory_order_seq_cst))
            return;
        const uint32_t updateWasNeeded = m_updateNeeded.exchange(0, std::memory_order_seq_cst);
        std::vector<std::string> deadReport;
        bool kept = false;
        {
            // Service block before local block, released in reverse.
            std::optional<BlockLock> serviceLock;
            if (m_serviceData != nullptr)
                serviceLock.emplace(*m_serviceData);
            BlockLock localLock(*m_data);

            ReadKnownItems();
            std::vector<int32_t> freedIDs;
            for (const auto& [id, item] : m_knownItems) {
                if (m_consumerBuffers.count(id) != 0)
                    continue;
                if (BufferReportsWanted())
                    ReportBuffer(Severity::Verbose,
                                 TraceMessage("New trace buffer detected. BufferID: %1.").Add(id));
                if (AttachConsumerBuffer(id, item.processID, item.hostName.c_str(),
                                         item.subSystemName.c_str()) != nullptr) {
                    created.insert(id);
                    continue;
                }
                // A buffer that cannot be attached because its local creator died is never coming back.
                if (!TraceBuffer::IsLocal(item.hostName.c_str()) || IsProcessAlive(item.processID))
                    continue;
                TraceRegistryData* block = BlockOf(id);
                AddReportLine(deadReport, TraceMessage("    BufferID: %1, PID: %2, host: '%3', subsys: '%4'.")
                                              .Add(id)
                                              .Add(item.processID)
                                              .Add(item.hostName)
                                              .Add(item.subSystemName));
                block->DeactivateItem(id);
                if (block == m_serviceData)
                    IncServiceChangeCounterForBufferChange();
                else
                    IncChangeCounterForBufferChange();
                ReportUnregistered(id);
                freedIDs.push_back(id);
                m_removeAbandoned = true;
            }
            for (const int32_t id : freedIDs)
                m_knownItems.erase(id);

            for (auto it = m_consumerBuffers.begin(); it != m_consumerBuffers.end();) {
                const TraceBuffer& buffer = *it->second;
                if (m_knownItems.count(it->first) != 0) {
                    ++it;
                    continue;
                }
                const bool keep = buffer.HasInterest();
                // Reported once when it starts being kept, not on every later update.
                const bool report = !keep || m_keptBuffers.insert(it->first).second;
                if (!keep)
                    m_keptBuffers.erase(it->first);
                if (report && BufferReportsWanted()) {
                    ReportBuffer(
                        Severity::Verbose,
                        TraceMessage(keep ? "Trace buffer kept because of outstanding Trace Number "
                                            "message. BufferID: %1, PID: %2, host: '%3', subsys: '%4'."
                                          : "Trace buffer removed. BufferID: %1, PID: %2, host: '%3', "
                                            "subsys: '%4'.")
                            .Add(it->first)
                            .Add(buffer.GetProcessID())
                            .Add(buffer.GetHostName())
                            .Add(buffer.GetSubSystemName()));
                }
                if (keep) {
                    kept = true;
                    ++it;
                    continue;
                }
                deleted.insert(it->first);
                removed.push_back(std::move(it->second));
                it = m_consumerBuffers.erase(it);
            }

            // Registered here while the updater ran; the set keeps any ID from being announced twice.
            created.insert(m_buffersToAnnounce.begin(), m_buffersToAnnounce.end());
            m_buffersToAnnounce.clear();

            const uint32_t local = GetChangeCounter();
            const uint32_t service =
                m_serviceData != nullptr
                    ? m_serviceData->GetAtomicChangeCounter().load(std::memory_order_seq_cst)
                    : 0;
            if (updateWasNeeded == 0 && created.empty() && deleted.empty() && deadReport.empty() && !kept &&
                (local != m_updateChangeCounter || service != m_updateServiceChangeCounter)) {
                TraceDiagnostics::GetInstance().Warning(
                    TraceMessage("Traces could be lost because the change counter in the Trace Registry was "
                                 "increased but there were no changes detected in the SHM!"));
            }
            m_updateChangeCounter = local;
            m_updateServiceChangeCounter = service;

            if (!deadReport.empty())
                TraceDeadBufferReport(deadReport);
        }
        // A kept buffer whose item came back (it never does) or that went otherwise needs no watch.
        std::erase_if(m_keptBuffers, [&](int32_t id) {
            return m_knownItems.count(id) != 0 || m_consumerBuffers.count(id) == 0;
        });
    }

    if (!created.empty())
        FireBuffersCreated(created);
    if (!deleted.empty())
        FireBuffersDeleted(deleted);
    for (std::unique_ptr<TraceBuffer>& buffer : removed) {
        if (BufferReportsWanted()) {
            ReportBuffer(
                Severity::Verbose,
                TraceMessage("Trace buffer deleted. BufferID: %1, PID: %2, host: '%3', subsys: '%4'.")
                    .Add(buffer->GetBufferID())
                    .Add(buffer->GetProcessID())
                    .Add(buffer->GetHostName())
                    .Add(buffer->GetSubSystemName()));
        }
        buffer.reset();
    }
    bool removeAbandoned = false;
    {
        std::lock_guard<std::recursive_mutex> lock(m_mutex);
        std::swap(removeAbandoned, m_removeAbandoned);
    }
    // Only now that this process has let go of the dead buffers.
    if (removeAbandoned)
        RemoveAbandonedBuffers();
}

bool TraceRegistry::KeptBufferReleased() const {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    for (const int32_t id : m_keptBuffers) {
        const auto it = m_consumerBuffers.find(id);
        if (it != m_consumerBuffers.end() && !it->second->HasInterest())
            return true;
    }
    return false;
}

void TraceRegistry::RemoveAbandonedBuffers() {
    // Every buffer, not only the dead process's: a process that died may have been the last holder
    // of buffers that died before it.
    const int removed = Platform::RemoveAbandonedBlocks(TraceBuffer::GetSHMNamePrefix());
    if (removed > 0 && BufferReportsWanted()) {
        ReportBuffer(Severity::Verbose,
                     TraceMessage("Removed the memory of %1 trace buffer(s) that no running process holds.")
                         .Add(static_cast<int32_t>(removed)));
    }
}

void TraceRegistry::CheckProcesses(bool fullCheck) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_data == nullptr)
        return;
    std::vector<std::string> report;
    std::vector<int32_t> dead;
    int64_t previousCreator = 0;
    bool previousAlive = true;
    bool first = true;
    const auto alive = [&](int64_t creator) {
        // Buffers of one process usually sit side by side: ask once per run of them.
        if (first || creator != previousCreator) {
            previousAlive = IsProcessAlive(creator, fullCheck);
            previousCreator = creator;
            first = false;
        }
        return previousAlive;
    };
    for (const auto& [id, item] : m_knownItems) {
        if (const auto it = m_consumerBuffers.find(id); it != m_consumerBuffers.end()) {
            const TraceBuffer& buffer = *it->second;
            const int64_t creator = buffer.GetCreatorProcessID();
            if (alive(creator))
                continue;
            AddReportLine(report, TraceMessage("    BufferID: %1, Creator PID: %2, host: '%3', subsys: '%4'.")
                                      .Add(buffer.GetBufferID())
                                      .Add(creator)
                                      .Add(buffer.GetHostName())
                                      .Add(buffer.GetSubSystemName()));
        } else {
            // The process of another host's item cannot be asked here; its memory, held by the
            // collector that registered it, tells whether it still exists.
            if (TraceBuffer::IsLocal(item.hostName.c_str())
                    ? alive(item.processID)
                    : ProbeBufferMemory(id, item.processID, item.hostName, item.subSystemName, nullptr) !=
                          TraceSharedMemory::NotFound)
                continue;
            if (item.processID == 0) {
                AddReportLine(report, TraceMessage("    BufferID: %1.").Add(id));
            } else {
                // The blanks before the colons are part of the text.
                AddReportLine(report, TraceMessage("    BufferID: %1, PID : %2, host : '%3', subsys : '%4'.")
                                          .Add(id)
                                          .Add(item.processID)
                                          .Add(item.hostName)
                                          .Add(item.subSystemName));
            }
        }
        dead.push_back(id);
    }
    if (fullCheck)
        RemoveAbandonedBuffers();
    if (dead.empty())
        return;
    TraceDeadBufferReport(report);
    m_removeAbandoned = true;

    bool local = false;
    bool service = false;
    for (const int32_t id : dead)
        (BlockOf(id) == m_serviceData ? service : local) = true;
    {
        // Service block before local block, whatever order the IDs come in.
        std::optional<BlockLock> serviceLock;
        std::optional<BlockLock> localLock;
        if (service)
            serviceLock.emplace(*m_serviceData);
        if (local)
            localLock.emplace(*m_data);
        for (const int32_t id : dead) {
            BlockOf(id)->DeactivateItem(id);
            m_knownItems.erase(id);
            ReportUnregistered(id);
        }
    }
    // Without this the consumers (this one included) would keep the buffers until the next change.
    if (service)
        IncServiceChangeCounterForBufferChange();
    if (local)
        IncChangeCounterForBufferChange();
}

void TraceRegistry::TraceDeadBufferReport(const std::vector<std::string>& lines) {
    TraceEngine* engine = GetEngine();
    if (engine == nullptr || (trace_engine_get_severity(engine) & 0x7u) < Severity::Info)
        return;
    const auto write = [engine](const std::string& text) {
        ::TraceParameter parameter;
        trace_param_init(&parameter, TRACE_PARAM_STRING, text.c_str());
        trace_engine_write(engine, nullptr, 0, Severity::Info, "%1", 0, 1, &parameter);
        trace_param_clear(&parameter, 1);
    };
    // The text is one parameter, which is cut at its size limit: the lines go into as many traces
    // as they need, so that no buffer goes unreported.
    std::string text = DeadBuffersHeader;
    bool hasLines = false;
    for (const std::string& line : lines) {
        if (hasLines && text.size() + 1 + line.size() > DeadReportTraceSize) {
            write(text);
            text = DeadBuffersHeader;
        }
        text += '\n';
        text += line;
        hasLines = true;
    }
    write(text);
}

void TraceRegistry::UpdateNamesOfAllCreatedBuffers() {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    const TraceConfigurationPrivate& configuration = TraceConfigurationPrivate::GetInstance();
    const char* system = configuration.GetSystemName();
    const char* application = configuration.GetApplicationName();
    if (BufferReportsWanted()) {
        ReportBuffer(Severity::Verbose, TraceMessage("The application or the system name has been changed "
                                                     "(sys: '%1', app: '%2'). Updating the corresponding "
                                                     "buffers...")
                                            .Add(system)
                                            .Add(application));
    }
    for (const auto& [id, buffer] : m_producerBuffers) {
        // A remote buffer carries the names of the process it stands for, not this one's.
        if (m_createdBuffers.count(buffer.get()) == 0 || !buffer->IsLocal())
            continue;
        buffer->SetSystemName(system);
        buffer->SetApplicationName(application);
        if (BufferReportsWanted()) {
            ReportBuffer(Severity::Verbose,
                         TraceMessage("The application and system name of the buffer '%1' has been updated.")
                             .Add(buffer->GetSubSystemName()));
        }
    }
}

void TraceRegistry::UpdateNamesOfAllCreatedBuffersIfCreated() {
    if (TraceRegistry* registry = s_instance.load(std::memory_order_seq_cst))
        registry->UpdateNamesOfAllCreatedBuffers();
}

void TraceRegistry::GetLocalTraceProfile(TraceProfile& profile) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    for (const auto& [id, buffer] : m_producerBuffers)
        buffer->AddToProfile(profile);
}

void TraceRegistry::GetGlobalTraceProfile(TraceProfile& profile) {
    std::lock_guard<std::recursive_mutex> lock(m_mutex);
    for (const auto& [id, buffer] : m_consumerBuffers)
        buffer->AddToProfile(profile);
}

// --- the library's own engine

void TraceRegistry::CreateOwnEngine() {
    if (m_ownEngine.load(std::memory_order_seq_cst) != nullptr)
        return;
    // Runs on the initialising thread; the buffer registration below re-enters GetInstance, which
    // hands back the registry as far as it is set up.
    TraceEngine* engine = nullptr;
    const int result = trace_engine_create("Core", "General", 90, 0, false, &engine, nullptr);
    if (result == TRACE_ENGINE_OK || result == TRACE_ENGINE_TEXT_TOO_LONG)
        m_ownEngine.store(engine, std::memory_order_seq_cst);
}

TraceEngine* TraceRegistry::GetEngine() {
    TraceRegistry* registry = s_instance.load(std::memory_order_seq_cst);
    return registry != nullptr ? registry->m_ownEngine.load(std::memory_order_seq_cst) : nullptr;
}

}  // namespace Tracing
