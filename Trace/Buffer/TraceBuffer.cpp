#include "Trace/Buffer/TraceBuffer.h"

#include <algorithm>
#include <iostream>
#include <string_view>
#include <thread>

#include "Trace/Buffer/TraceBufferUpdater.h"
#include "Trace/Buffer/TraceModuleData.h"
#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Profiles/TraceProfileSHMHandler.h"
#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Time/TraceTimer.h"
#include "platform/Process.h"
#include "platform/Thread.h"

namespace Tracing {

namespace {

constexpr const char* EventSource = "TraceBuffer";
// Tests of the initialised flag after the first one, 1 ms apart.
constexpr unsigned InitializedFlagRetries = 20;
constexpr unsigned CloseWaitStepMs = 10;

const char* OrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

// A name as a shared-memory field stores it, so that a long name finds its own truncated slot.
std::string_view StoredName(const char* name) {
    const std::string_view text(OrEmpty(name));
    return text.substr(0, std::min(text.size(), Internal::ShmNameMaxLength));
}

void ReportInfo(Severity::Type severity, const TraceMessage& message) {
    if (TraceDiagnostics::IsActive(DiagnosticCategory::Buffer))
        TraceDiagnostics::GetInstance().Report(DiagnosticCategory::Buffer, severity, message);
}

[[gnu::cold]] void ReportWarning(const TraceMessage& message) {
    TraceDiagnostics::GetInstance().Warning(message);
}

// Failures an administrator must see: the event log and the self-diagnostics.
[[gnu::cold]] void ReportError(const TraceMessage& message) {
    TraceSharedMemory::writeErrorEventLog(EventSource, message.Format().c_str());
    TraceDiagnostics::GetInstance().Warning(message);
}

[[gnu::cold]] void ReportCreateFailure(const char* reason, int32_t bufferID, int64_t processID,
                                       const char* hostName, const char* systemName,
                                       const char* applicationName, const char* subSystemName) {
    const std::string text = std::string(
                                 "Couldn't create trace buffer: BufferID: %1, ProcessID: %2, HostName: '%3', "
                                 "SystemName: '%4', ApplicationName: '%5', SubSystemName: '%6'. ") +
                             reason;
    ReportError(TraceMessage(text.c_str())
                    .Add(bufferID)
                    .Add(processID)
                    .Add(OrEmpty(hostName))
                    .Add(OrEmpty(systemName))
                    .Add(OrEmpty(applicationName))
                    .Add(OrEmpty(subSystemName)));
}

}  // namespace

// The object's mutex, then the header's inter-process lock, released in reverse order.
class TraceBuffer::HeaderLock {
public:
    explicit HeaderLock(const TraceBuffer& buffer) : m_lock(buffer.m_mutex), m_header(buffer.m_header) {
        if (m_header != nullptr)
            m_header->Lock();
    }
    ~HeaderLock() {
        if (m_header != nullptr)
            m_header->Unlock();
    }
    HeaderLock(const HeaderLock&) = delete;
    HeaderLock& operator=(const HeaderLock&) = delete;

private:
    std::unique_lock<std::recursive_mutex> m_lock;
    TraceBufferData* m_header;
};

TraceBuffer::TraceBuffer()
    : m_creationTime(TraceTimer::GetInstance().GetTimestamp(TimestampMode::PRECISE)),
      m_createdAt(std::chrono::steady_clock::now()) {}

TraceBuffer::~TraceBuffer() {
    // The updater thread may be inside Update, which takes the mutex: removal waits for it.
    m_updater.reset();
    std::lock_guard lock(m_mutex);
    Detach();
}

void TraceBuffer::Detach() {
    m_initialized = false;
    m_stream.reset();
    m_header = nullptr;
    m_moduleCount = 0;
    m_modules.clear();
    m_unreportedModules.clear();
    m_hasUnreportedModules.store(false, std::memory_order_seq_cst);
    m_memory.detach();
}

void TraceBuffer::GetSHMName(std::string& out, int64_t processID, const char* hostName,
                             const char* subSystemName, bool global) {
    out.clear();
    if (global)
        out += "Global\\";
    out += GetSHMNamePrefix();
    out += std::to_string(processID);
    out += '_';
    out += OrEmpty(hostName);
    out += '_';
    out += OrEmpty(subSystemName);
}

std::string TraceBuffer::GetSHMNamePrefix() {
    return TraceConfigurationPrivate::GetInstance().GetShmPrefix() + std::string("TraceBuffer_V") +
           std::to_string(TraceConfigurationPrivate::ShmVersion) + '_';
}

bool TraceBuffer::IsLocal(const char* hostName) {
    return std::string_view(OrEmpty(hostName)) == HostName_Local;
}

bool TraceBuffer::IsLocal() const {
    return IsLocal(GetHostName());
}

namespace {
std::atomic<uint32_t*> globalTraceIDCounter{nullptr};
}  // namespace

void TraceBuffer::SetGlobalTraceIDCounter(uint32_t* counter) {
    globalTraceIDCounter.store(counter, std::memory_order_release);
}

uint32_t* TraceBuffer::GlobalTraceCounter() const {
    return m_header->GetGlobalTraceID() ? globalTraceIDCounter.load(std::memory_order_acquire) : nullptr;
}

TraceBuffer::ErrorType TraceBuffer::Create(int32_t bufferID, int64_t processID,
                                           TimestampMode::Type timestampMode, const char* hostName,
                                           const char* registryHostName, const char* systemName,
                                           const char* applicationName, const char* subSystemName,
                                           uint32_t maxModules, uint32_t streamSize) {
    std::lock_guard lock(m_mutex);
    if (m_memory.isAttached()) {
        ReportCreateFailure("Already created.", bufferID, processID, hostName, systemName, applicationName,
                            subSystemName);
        return AlreadyCreated;
    }

    std::string name;
    GetSHMName(name, processID, registryHostName, subSystemName, IsServiceID(bufferID));
    m_memory.setKey(name.c_str());
    ReportInfo(
        Severity::Verbose,
        TraceMessage("Trying to create trace buffer: BufferID: %1, SHM: '%2'.").Add(bufferID).Add(name));

    const TraceConfigurationPrivate& configuration = TraceConfigurationPrivate::GetInstance();
    const TraceProfileSHMHandler& profiles = TraceProfileSHMHandler::GetInstance();
    // The record lives in the profile's block, which a newer profile would detach.
    const auto profileLock = profiles.LockSHM();
    const TraceBufferData* record =
        IsLocal(hostName) ? profiles.FindBufferInSHM(OrEmpty(applicationName), OrEmpty(subSystemName))
                          : nullptr;

    const uint32_t profileSeverity = record != nullptr ? record->GetProfileSeverity() : 0;

    TimestampMode::Type mode = timestampMode;
    if (record != nullptr && record->GetTimestampMode() != TimestampMode::NotSet)
        mode = record->GetTimestampMode();
    if (mode == TimestampMode::NotSet)
        mode = configuration.GetTimestampMode();

    uint32_t moduleCount = maxModules;
    if (record != nullptr && record->GetProfileMaxModules() != 0)
        moduleCount = record->GetProfileMaxModules();
    if (moduleCount == 0)
        moduleCount = configuration.GetMaxNumberOfModules();
    // The preset modules must all fit.
    if (record != nullptr)
        moduleCount = std::max(moduleCount, record->GetSizeOfModuleArray());

    uint32_t ringSize = configuration.GetTraceStreamSize();
    if (record != nullptr && record->GetRingBufferSize() != 0)
        ringSize = record->GetRingBufferSize();
    ringSize = std::clamp(std::max(ringSize, streamSize), MinStreamSize, MaxStreamSize);

    if (moduleCount == 0) {
        ReportCreateFailure("Module count couldn't be 0.", bufferID, processID, hostName, systemName,
                            applicationName, subSystemName);
        return SharedMemoryFailed;
    }

    const uint64_t headerSize = TraceBufferData::GetSize(moduleCount);
    if (!m_memory.create(headerSize + TraceStream::GetSize(ringSize))) {
        const std::string error = m_memory.errorString();
        ReportError(
            TraceMessage("Couldn't create the SHM for the trace buffer. BufferID: %1, SHM: '%2', Error: %3.")
                .Add(bufferID)
                .Add(name)
                .Add(error));
        std::cerr << "WARNING: (" << Platform::CurrentProcessId()
                  << ") Couldn't create the SHM for the trace buffer. BufferID:" << bufferID
                  << ", PID: " << processID << ", host: " << OrEmpty(hostName)
                  << ", subsys: " << OrEmpty(subSystemName) << ", shmname: " << name
                  << ", shmerror: " << error << std::endl;
        return SharedMemoryFailed;
    }

    TraceBufferData* header = nullptr;
    const SHMErrorCodes::Values result =
        record != nullptr
            ? TraceBufferData::Create(header, m_memory.data(), *record, moduleCount, ringSize, bufferID,
                                      processID, mode, OrEmpty(hostName), OrEmpty(systemName),
                                      OrEmpty(applicationName), OrEmpty(subSystemName))
            : TraceBufferData::Create(header, m_memory.data(), headerSize, ringSize, bufferID, processID,
                                      mode, OrEmpty(hostName), OrEmpty(systemName), OrEmpty(applicationName),
                                      OrEmpty(subSystemName));
    if (result != SHMErrorCodes::Success) {
        ReportError(
            TraceMessage("Couldn't create the trace buffer in the SHM. BufferID: %1, SHM: '%2', Error: %3.")
                .Add(bufferID)
                .Add(name)
                .Add(SHMErrorCodes::ToString(result)));
        std::cerr << "WARNING: (" << Platform::CurrentProcessId()
                  << ") Couldn't set the SHM for the trace buffer. BufferID:" << bufferID
                  << ", PID: " << processID << ", host: " << OrEmpty(hostName)
                  << ", subsys: " << OrEmpty(subSystemName) << ", shmname: " << name
                  << ", res: " << static_cast<unsigned>(result) << std::endl;
        Detach();
        return SharedMemoryFailed;
    }

    // A remote buffer numbers its own traces: the machine-wide counter belongs to this host.
    header->SetGlobalTraceID(IsLocal(hostName) && profiles.GlobalTraceID());

    m_header = header;
    m_moduleCount = moduleCount;
    m_stream.reset(TraceStream::Create(this, header, static_cast<char*>(m_memory.data()) + headerSize,
                                       GlobalTraceCounter()));
    m_systemName = header->GetSystemName();
    m_applicationName = header->GetApplicationName();
    m_registryHostName = OrEmpty(registryHostName);
    m_profileSeverity = profileSeverity;
    if (record != nullptr)
        Update();

    Initialize();
    if (m_header == nullptr)
        return SharedMemoryFailed;
    // Publishes the buffer: attachers wait for this store.
    m_header->GetInitializedFlag().store(1, std::memory_order_seq_cst);
    return Success;
}

TraceBuffer::ErrorType TraceBuffer::FailAttach(int32_t bufferID, const std::string& name,
                                               SHMErrorCodes::Values error) {
    ReportWarning(
        TraceMessage("Couldn't create the trace buffer from the attached SHM. BufferID: %1, SHM: '%2', "
                     "Error: %3.")
            .Add(bufferID)
            .Add(name)
            .Add(SHMErrorCodes::ToString(error)));
    Detach();
    return SharedMemoryFailed;
}

TraceBuffer::ErrorType TraceBuffer::Attach(int32_t bufferID, int64_t processID, const char* hostName,
                                           const char* subSystemName) {
    std::lock_guard lock(m_mutex);
    if (m_memory.isAttached()) {
        ReportWarning(
            TraceMessage("Couldn't attach trace buffer: BufferID: %1, ProcessID: %2, HostName: '%3', "
                         "SubSystemName: '%4'. Already created.")
                .Add(bufferID)
                .Add(processID)
                .Add(OrEmpty(hostName))
                .Add(OrEmpty(subSystemName)));
        return AlreadyCreated;
    }

    std::string name;
    GetSHMName(name, processID, hostName, subSystemName, IsServiceID(bufferID));
    m_memory.setKey(name.c_str());
    if (!m_memory.attach(TraceSharedMemory::ReadWrite)) {
        ReportWarning(
            TraceMessage(
                "Couldn't attach to SHM of trace buffer. BufferID: %1, SHM: '%2', SharedMemoryError: %3.")
                .Add(bufferID)
                .Add(name)
                .Add(m_memory.errorString()));
        Detach();
        return SharedMemoryFailed;
    }

    const uint64_t mappedSize = m_memory.size();
    TraceBufferData* header = nullptr;
    SHMErrorCodes::Values result = mappedSize < TraceBufferData::SizeWithoutModuleArray
                                       ? SHMErrorCodes::InvalidSize
                                       : TraceBufferData::Attach(header, m_memory.data());
    if (result != SHMErrorCodes::Success)
        return FailAttach(bufferID, name, result);

    // The sizes are read only once the creator has published the header.
    bool initialized = header->GetInitializedFlag().load(std::memory_order_seq_cst) == 1;
    for (unsigned retry = 0; !initialized && retry < InitializedFlagRetries; ++retry) {
        Platform::SleepMs(1);
        initialized = header->GetInitializedFlag().load(std::memory_order_seq_cst) == 1;
    }
    if (!initialized)
        return FailAttach(bufferID, name, SHMErrorCodes::NotInitialized);
    if (header->GetVersionNumber() != TraceConfigurationPrivate::ShmVersion)
        return FailAttach(bufferID, name, SHMErrorCodes::VersionConflict);

    // Another process wrote these sizes: header, slots and ring must lie within the mapping.
    const uint32_t moduleCount = header->GetSizeOfModuleArray();
    const uint32_t ringSize = header->GetRingBufferSize();
    const uint64_t headerSize = TraceBufferData::GetSize(moduleCount);
    if (moduleCount == 0 || ringSize < MinStreamSize || ringSize > MaxStreamSize ||
        (ringSize & (ringSize - 1)) != 0 || headerSize + TraceStream::GetSize(ringSize) > mappedSize)
        return FailAttach(bufferID, name, SHMErrorCodes::InvalidSize);

    m_header = header;
    m_moduleCount = moduleCount;
    m_stream.reset(TraceStream::Attach(this, header, static_cast<char*>(m_memory.data()) + headerSize,
                                       GlobalTraceCounter()));
    m_systemName = header->GetSystemName();
    m_applicationName = header->GetApplicationName();
    m_registryHostName = OrEmpty(hostName);

    if (!Initialize())
        return SharedMemoryFailed;
    Update();
    m_header->SetConsumerAttached(true);
    return Success;
}

bool TraceBuffer::Initialize() {
    std::lock_guard lock(m_mutex);
    if (m_header == nullptr)
        return false;
    if (!CreateUpdater()) {
        Detach();
        return false;
    }
    m_initialized = true;
    return true;
}

bool TraceBuffer::CreateUpdater() {
    if (m_updater != nullptr)
        return true;
    try {
        m_updater = std::make_unique<TraceBufferUpdater>(*this);
    } catch (const std::exception& e) {
        ReportWarning(TraceMessage("Couldn't create the updater of trace buffer: BufferID: %1. %2")
                          .Add(GetBufferID())
                          .Add(e.what()));
        return false;
    }
    return true;
}

void TraceBuffer::NoteOwnChange() {
    if (m_updater != nullptr)
        m_updater->IncHeaderChangeCounter();
    else
        IncChangeCounter();
}

void TraceBuffer::RefreshModuleEntry(const TraceModuleData& slot) {
    const auto entry = m_modules.find(slot.GetModuleID());
    if (entry == m_modules.end() || entry->second.Slot != &slot)
        return;
    entry->second.FilterState = slot.GetFilterState();
    entry->second.RegisteredFlags = slot.GetRegisteredFlags();
}

// --- change notification

namespace {

uint64_t Address(const void* listener) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(listener));
}

template <typename Listener>
bool Contains(const std::vector<Listener*>& listeners, const Listener* listener) {
    return std::find(listeners.begin(), listeners.end(), listener) != listeners.end();
}

template <typename Listener>
void Erase(std::vector<Listener*>& listeners, const Listener* listener) {
    listeners.erase(std::find(listeners.begin(), listeners.end(), listener));
}

void ReportNotify(const TraceMessage& message) {
    if (TraceDiagnostics::IsActive(DiagnosticCategory::Notify))
        TraceDiagnostics::GetInstance().Report(DiagnosticCategory::Notify, Severity::Info, message);
}

}  // namespace

void TraceBuffer::RegisterDataChangedListener(ITraceBufferDataChangedListener* listener,
                                              bool enableInitialNotification) {
    if (listener == nullptr)
        return;
    std::set<int> modules;
    {
        HeaderLock lock(*this);
        if (Contains(m_dataChangedListeners, listener)) {
            ReportNotify(TraceMessage("Couldn't register data changed listener (0x%1:x) for trace buffer: "
                                      "BufferID: %2. Already registered.")
                             .Add(Address(listener))
                             .Add(GetBufferID()));
            return;
        }
        m_dataChangedListeners.push_back(listener);
        ReportNotify(TraceMessage("Registering ITraceBufferDataChangedListener (0x%1:x). BufferID: %2. "
                                  "EnableInitialNotification: %3.")
                         .Add(Address(listener))
                         .Add(GetBufferID())
                         .Add(enableInitialNotification));
        if (!enableInitialNotification)
            return;
        for (uint32_t i = 0; m_header != nullptr && i < m_moduleCount; ++i) {
            const TraceModuleData* slot = Slot(i);
            if (slot->IsActivated())
                modules.insert(slot->GetModuleID());
        }
    }
    if (modules.empty())
        return;
    ReportNotify(
        TraceMessage("Calling ITraceBufferDataChangedListener (0x%1:x). OnModulesCreated, %2 modules. "
                     "BufferID: %3.")
            .Add(Address(listener))
            .Add(modules.size())
            .Add(GetBufferID()));
    listener->OnModulesCreated(*this, modules);
}

void TraceBuffer::UnregisterDataChangedListener(ITraceBufferDataChangedListener* listener) {
    std::lock_guard lock(m_mutex);
    if (!Contains(m_dataChangedListeners, listener)) {
        ReportNotify(TraceMessage("Couldn't unregister data changed listener (0x%1:x) from trace buffer: "
                                  "BufferID: %2. Not registered")
                         .Add(Address(listener))
                         .Add(GetBufferID()));
        return;
    }
    Erase(m_dataChangedListeners, listener);
    ReportNotify(TraceMessage("Unregistered ITraceBufferDataChangedListener (0x%1:x). BufferID: %2.")
                     .Add(Address(listener))
                     .Add(GetBufferID()));
}

void TraceBuffer::RegisterNewTracesListener(INewTracesListener* listener) {
    if (listener == nullptr)
        return;
    std::lock_guard lock(m_mutex);
    if (Contains(m_newTracesListeners, listener)) {
        ReportNotify(TraceMessage("Couldn't register new traces listener (0x%1:x) for trace buffer: "
                                  "BufferID: %2. Already registered.")
                         .Add(Address(listener))
                         .Add(GetBufferID()));
        return;
    }
    m_newTracesListeners.push_back(listener);
    ReportNotify(TraceMessage("Registering INewTracesListener (0x%1:x). BufferID: %2.")
                     .Add(Address(listener))
                     .Add(GetBufferID()));
}

void TraceBuffer::UnregisterNewTracesListener(INewTracesListener* listener) {
    std::lock_guard lock(m_mutex);
    if (!Contains(m_newTracesListeners, listener)) {
        ReportNotify(TraceMessage("Couldn't unregister new traces listener (0x%1:x) from trace buffer: "
                                  "BufferID: %2. Not registered")
                         .Add(Address(listener))
                         .Add(GetBufferID()));
        return;
    }
    Erase(m_newTracesListeners, listener);
    ReportNotify(TraceMessage("Unregistered INewTracesListener (0x%1:x). BufferID: %2")
                     .Add(Address(listener))
                     .Add(GetBufferID()));
}

void TraceBuffer::SuspendUpdate() {
    if (m_updater != nullptr)
        m_updater->Suspend();
}

void TraceBuffer::ResumeUpdate() {
    if (m_updater != nullptr)
        m_updater->Resume();
}

bool TraceBuffer::UpdateIsNeeded() const {
    // Another process's module that this process's own registration found: its change counter move
    // may already have been handled.
    return m_hasUnreportedModules.load(std::memory_order_seq_cst);
}

void TraceBuffer::Update() {
    std::set<int> created;
    std::set<int> filtersChanged;
    std::map<int, unsigned> flagsRegistered;
    std::optional<std::pair<std::string, std::string>> systemRenamed;
    std::optional<std::pair<std::string, std::string>> applicationRenamed;
    {
        // The names too are read under the header lock: a rename in progress would tear them.
        HeaderLock lock(*this);
        if (m_header == nullptr)
            return;
        // A freed or reused slot must not be compared under its old module ID.
        std::erase_if(m_modules, [](const auto& entry) {
            return !entry.second.Slot->IsActivated() || entry.second.Slot->GetModuleID() != entry.first;
        });
        for (int moduleID : m_unreportedModules) {
            if (m_modules.count(moduleID) != 0)
                created.insert(moduleID);
        }
        m_unreportedModules.clear();
        m_hasUnreportedModules.store(false, std::memory_order_seq_cst);
        for (uint32_t i = 0; i < m_moduleCount; ++i) {
            TraceModuleData* slot = Slot(i);
            if (slot->IsActivated() &&
                m_modules
                    .try_emplace(slot->GetModuleID(),
                                 ModuleEntry{slot, slot->GetFilterState(), slot->GetRegisteredFlags()})
                    .second)
                created.insert(slot->GetModuleID());
        }

        const auto compareName = [](std::string& kept, const char* current,
                                    std::optional<std::pair<std::string, std::string>>& renamed) {
            if (kept != current) {
                renamed.emplace(kept, current);
                kept = current;
            }
        };
        compareName(m_systemName, m_header->GetSystemName(), systemRenamed);
        compareName(m_applicationName, m_header->GetApplicationName(), applicationRenamed);

        // A created module is reported with its present state, not as changed.
        for (auto& [moduleID, entry] : m_modules) {
            const bool isNew = created.count(moduleID) != 0;
            const uint32_t state = entry.Slot->GetFilterState();
            if (state != entry.FilterState) {
                entry.FilterState = state;
                if (!isNew)
                    filtersChanged.insert(moduleID);
            }
            const uint32_t flags = entry.Slot->GetRegisteredFlags();
            if (flags != entry.RegisteredFlags) {
                entry.RegisteredFlags = flags;
                if (!isNew)
                    flagsRegistered.emplace(moduleID, flags);
            }
        }
    }

    if (systemRenamed)
        FireSystemNameChanged(systemRenamed->first, systemRenamed->second);
    if (applicationRenamed)
        FireApplicationNameChanged(applicationRenamed->first, applicationRenamed->second);
    if (!created.empty())
        FireModulesCreated(created);
    if (!filtersChanged.empty())
        FireModuleFiltersChanged(filtersChanged);
    for (const auto& [moduleID, flags] : flagsRegistered)
        FireFlagsRegistered(moduleID, flags);
}

template <typename Listener, typename Call>
void TraceBuffer::Fire(const std::vector<Listener*>& listeners, Call call) {
    std::vector<Listener*> copy;
    {
        std::lock_guard lock(m_mutex);
        copy = listeners;
    }
    for (Listener* listener : copy)
        call(*listener);
}

void TraceBuffer::NewTracesAreAvailable() {
    Fire(m_newTracesListeners, [this](INewTracesListener& listener) { listener.OnNewTraces(*this); });
}

void TraceBuffer::FireSystemNameChanged(const std::string& oldName, const std::string& newName) {
    Fire(m_dataChangedListeners, [&](ITraceBufferDataChangedListener& listener) {
        listener.OnSystemNameChanged(*this, oldName, newName);
    });
}

void TraceBuffer::FireApplicationNameChanged(const std::string& oldName, const std::string& newName) {
    Fire(m_dataChangedListeners, [&](ITraceBufferDataChangedListener& listener) {
        listener.OnApplicationNameChanged(*this, oldName, newName);
    });
}

void TraceBuffer::FireModulesCreated(const std::set<int>& moduleIDs) {
    Fire(m_dataChangedListeners,
         [&](ITraceBufferDataChangedListener& listener) { listener.OnModulesCreated(*this, moduleIDs); });
}

void TraceBuffer::FireModuleFiltersChanged(const std::set<int>& moduleIDs) {
    Fire(m_dataChangedListeners, [&](ITraceBufferDataChangedListener& listener) {
        listener.OnModuleFiltersChanged(*this, moduleIDs);
    });
}

void TraceBuffer::FireFlagsRegistered(int moduleID, unsigned flags) {
    Fire(m_dataChangedListeners, [&](ITraceBufferDataChangedListener& listener) {
        listener.OnFlagsRegistered(*this, moduleID, flags);
    });
}

// --- module slots

TraceModuleData* TraceBuffer::Slot(uint32_t index) const {
    return index < m_moduleCount ? m_header->GetModuleArray() + index : nullptr;
}

TraceModuleData* TraceBuffer::FindSlot(int32_t moduleID) const {
    if (m_header == nullptr)
        return nullptr;
    const auto known = m_modules.find(moduleID);
    if (known != m_modules.end() && known->second.Slot->IsActivated() &&
        known->second.Slot->GetModuleID() == moduleID)
        return known->second.Slot;
    for (uint32_t i = 0; i < m_moduleCount; ++i) {
        TraceModuleData* slot = Slot(i);
        if (slot->IsActivated() && slot->GetModuleID() == moduleID)
            return slot;
    }
    return nullptr;
}

TraceModuleData* TraceBuffer::FindSlot(const char* name) const {
    if (m_header == nullptr)
        return nullptr;
    const std::string stored(StoredName(name));
    for (uint32_t i = 0; i < m_moduleCount; ++i) {
        TraceModuleData* slot = Slot(i);
        if (slot->IsActivated() && slot->HasName(stored.c_str()))
            return slot;
    }
    return nullptr;
}

TraceModuleData* TraceBuffer::ActivateFirstFreeSlot(int32_t moduleID, const char* name, uint32_t state) {
    for (uint32_t i = 0; i < m_moduleCount; ++i) {
        TraceModuleData* slot = Slot(i);
        if (!slot->IsActivated())
            return slot->Activate(m_header->GetBufferID(), moduleID, name, state) ? slot : nullptr;
    }
    return nullptr;
}

void TraceBuffer::SyncModuleTable() {
    for (uint32_t i = 0; i < m_moduleCount; ++i) {
        TraceModuleData* slot = Slot(i);
        if (slot->IsActivated() && m_modules.find(slot->GetModuleID()) == m_modules.end()) {
            m_modules.emplace(slot->GetModuleID(),
                              ModuleEntry{slot, slot->GetFilterState(), slot->GetRegisteredFlags()});
            m_unreportedModules.insert(slot->GetModuleID());
            m_hasUnreportedModules.store(true, std::memory_order_seq_cst);
        }
    }
}

uint32_t TraceBuffer::InitialFilterState(const char* name, Severity::Type severity) const {
    if (IsLocal()) {
        const TraceProfileSHMHandler& profiles = TraceProfileSHMHandler::GetInstance();
        const auto profileLock = profiles.LockSHM();
        const TraceModuleData* preset = nullptr;
        if (profiles.FindModuleInSHM(&preset, m_header->GetApplicationName(), m_header->GetSubSystemName(),
                                     name) &&
            preset != nullptr && (preset->GetFilterState() & Severity::Mask) != 0)
            return preset->GetFilterState() & Severity::Mask;
    }
    // The rest as given: the filter word is what the caller or the configuration asked for, even
    // when a larger value also sets flag bits.
    if (m_profileSeverity != 0)
        return m_profileSeverity;
    if (severity != 0)
        return severity;
    return TraceConfigurationPrivate::GetInstance().GetSeverityFilter();
}

std::optional<bool> TraceBuffer::ProfileFlagState(const TraceModuleData& module, const char* flagName) const {
    if (!IsLocal())
        return std::nullopt;
    const TraceProfileSHMHandler& profiles = TraceProfileSHMHandler::GetInstance();
    const auto profileLock = profiles.LockSHM();
    const TraceModuleData* preset = nullptr;
    if (!profiles.FindModuleInSHM(&preset, m_header->GetApplicationName(), m_header->GetSubSystemName(),
                                  module.GetModuleName()) ||
        preset == nullptr)
        return std::nullopt;
    const TraceFlagData* flag = preset->FindFlag(flagName);
    if (flag == nullptr)
        return std::nullopt;
    return preset->IsFlagActive(flag->GetBitNo());
}

TraceModuleData* TraceBuffer::RegisterModule(const char* name, Severity::Type severity, int32_t moduleID) {
    const std::string stored(StoredName(name));
    TraceModuleData* slot = nullptr;
    {
        HeaderLock lock(*this);
        if (m_header == nullptr)
            return nullptr;
        SyncModuleTable();
        if (TraceModuleData* existing = FindSlot(stored.c_str()))
            return existing;

        if (moduleID == -1)
            moduleID = m_header->GetAtomicNextFreeModuleID().fetch_add(1, std::memory_order_seq_cst);
        slot = ActivateFirstFreeSlot(moduleID, stored.c_str(), InitialFilterState(stored.c_str(), severity));
        if (slot == nullptr) {
            ReportWarning(
                TraceMessage("Couldn't register a trace module: BufferID: %1. ModuleName: %2! Maximum "
                             "number of modules reached (%3).")
                    .Add(m_header->GetBufferID())
                    .Add(OrEmpty(name))
                    .Add(m_moduleCount));
            return nullptr;
        }
        m_modules[moduleID] = ModuleEntry{slot, slot->GetFilterState(), slot->GetRegisteredFlags()};
    }
    NoteOwnChange();
    return slot;
}

uint8_t TraceBuffer::RegisterFlag(int32_t moduleID, const char* name, bool activate, uint8_t bitNo) {
    if (name == nullptr || *name == '\0')
        return 0;
    const std::string stored(StoredName(name));
    uint8_t bit = 0;
    bool registered = false;
    {
        HeaderLock lock(*this);
        TraceModuleData* slot = FindSlot(moduleID);
        if (slot == nullptr)
            return 0;
        if (const TraceFlagData* existing = slot->FindFlag(stored.c_str()))
            return existing->GetBitNo();

        const std::optional<bool> preset = ProfileFlagState(*slot, stored.c_str());
        const uint32_t before = slot->GetRegisteredFlags();
        bit = slot->RegisterFlag(stored.c_str(), preset.value_or(activate), bitNo);
        if (bit == 0) {
            ReportWarning(
                TraceMessage("Couldn't register a trace flag: BufferID: %1. ModuleID: %2, FlagName: %3! "
                             "Maximum number of flags reached (%4).")
                    .Add(m_header->GetBufferID())
                    .Add(moduleID)
                    .Add(stored)
                    .Add(TraceModuleData::FlagCount));
            return 0;
        }
        registered = slot->GetRegisteredFlags() != before;
        RefreshModuleEntry(*slot);
    }
    if (registered)
        NoteOwnChange();
    return bit;
}

bool TraceBuffer::IsFlagRegistered(int32_t moduleID, uint8_t bit) const {
    std::lock_guard lock(m_mutex);
    const TraceModuleData* slot = FindSlot(moduleID);
    return slot != nullptr && slot->IsFlagRegistered(bit);
}

bool TraceBuffer::ContainsModule(int32_t moduleID) const {
    std::lock_guard lock(m_mutex);
    return FindSlot(moduleID) != nullptr;
}

int32_t TraceBuffer::GetModuleID(const char* name) const {
    std::lock_guard lock(m_mutex);
    const TraceModuleData* slot = FindSlot(name);
    return slot != nullptr ? slot->GetModuleID() : -1;
}

bool TraceBuffer::GetModuleInfo(int32_t moduleID, TraceModuleInfo& info) const {
    HeaderLock lock(*this);
    const TraceModuleData* slot = FindSlot(moduleID);
    if (slot == nullptr)
        return false;
    slot->GetInfo(info);
    return true;
}

bool TraceBuffer::GetModuleInfo(const char* name, TraceModuleInfo& info) const {
    HeaderLock lock(*this);
    const TraceModuleData* slot = FindSlot(name);
    if (slot == nullptr)
        return false;
    slot->GetInfo(info);
    return true;
}

bool TraceBuffer::GetModuleName(int32_t moduleID, std::string& name) const {
    HeaderLock lock(*this);
    const TraceModuleData* slot = FindSlot(moduleID);
    if (slot == nullptr)
        return false;
    name = slot->GetModuleName();
    return true;
}

bool TraceBuffer::GetFlagName(int32_t moduleID, uint8_t bit, std::string& name) const {
    HeaderLock lock(*this);
    const TraceModuleData* slot = FindSlot(moduleID);
    return slot != nullptr && slot->GetFlagName(bit, name);
}

bool TraceBuffer::IsMaxModulesReached() const {
    std::lock_guard lock(m_mutex);
    if (m_header == nullptr)
        return false;
    for (uint32_t i = 0; i < m_moduleCount; ++i) {
        if (!Slot(i)->IsActivated())
            return false;
    }
    return true;
}

void TraceBuffer::Browse(std::vector<TraceModuleInfo>& modules) const {
    modules.clear();
    HeaderLock lock(*this);
    for (uint32_t i = 0; m_header != nullptr && i < m_moduleCount; ++i) {
        const TraceModuleData* slot = Slot(i);
        if (slot->IsActivated())
            slot->GetInfo(modules.emplace_back());
    }
}

// --- filters

template <typename Change>
bool TraceBuffer::ChangeFilter(int32_t moduleID, Change change) {
    bool changed = false;
    {
        HeaderLock lock(*this);
        TraceModuleData* slot = FindSlot(moduleID);
        if (slot != nullptr) {
            changed = change(*slot);
            RefreshModuleEntry(*slot);
        }
    }
    if (changed)
        NoteOwnChange();
    return changed;
}

bool TraceBuffer::SetSeverityMask(int32_t moduleID, uint32_t mask) {
    return ChangeFilter(moduleID, [mask](TraceModuleData& slot) { return slot.SetSeverityMask(mask); });
}

bool TraceBuffer::SetSeverity(int32_t moduleID, Severity::Type severity) {
    return ChangeFilter(moduleID, [severity](TraceModuleData& slot) { return slot.SetSeverity(severity); });
}

bool TraceBuffer::SetFlag(int32_t moduleID, bool on, uint8_t bit) {
    return ChangeFilter(moduleID, [on, bit](TraceModuleData& slot) { return slot.SetFlag(on, bit); });
}

TraceBuffer::ErrorType TraceBuffer::GetFilterState(int32_t moduleID, uint32_t& state) const {
    std::lock_guard lock(m_mutex);
    const TraceModuleData* slot = FindSlot(moduleID);
    if (slot == nullptr) {
        ReportWarning(
            TraceMessage("Couldn't get filter state: BufferID: %1. ModuleID: %2. Invalid module id.")
                .Add(GetBufferID())
                .Add(moduleID));
        return InvalidModuleID;
    }
    state = slot->GetFilterState();
    return Success;
}

void TraceBuffer::ApplyDefaultProfile() {
    bool changed = false;
    {
        HeaderLock lock(*this);
        if (m_header == nullptr)
            return;
        const TraceProfileSHMHandler& profiles = TraceProfileSHMHandler::GetInstance();
        const auto profileLock = profiles.LockSHM();
        const TraceBufferData* record =
            profiles.FindBufferInSHM(m_header->GetApplicationName(), m_header->GetSubSystemName());
        if (record == nullptr)
            return;
        for (uint32_t i = 0; i < m_moduleCount; ++i) {
            TraceModuleData* slot = Slot(i);
            if (!slot->IsActivated())
                continue;
            const uint32_t before = slot->GetFilterState();
            slot->ApplyProfile(*record, record->GetProfileSeverity());
            changed = changed || slot->GetFilterState() != before;
            RefreshModuleEntry(*slot);
        }
    }
    if (changed)
        NoteOwnChange();
}

// --- writing and reading

TraceBuffer::ErrorType TraceBuffer::WriteTrace(const Trace& trace) {
    if (m_stream == nullptr) [[unlikely]] {
        ReportError(
            TraceMessage(
                "Couldn't write trace to trace buffer: BufferID: %1. TraceID: %2. Stream not created.")
                .Add(GetBufferID())
                .Add(trace.GetID()));
        return StreamNotCreated;
    }
    TraceMessage message;
    trace.FillTraceMessage(message);
    const char* fileName = trace.GetFileName().empty() ? nullptr : trace.GetFileName().c_str();
    if (trace.GetType() == Trace::Binary) {
        m_stream->Write(trace.GetID(), trace.GetModuleID(), trace.GetThreadID(), trace.GetTimestamp(),
                        trace.GetSeverityMask(), fileName, trace.GetLineNumber(), trace.GetBinaryTraceID(),
                        message.GetParameterCount(), message.GetParameters());
    } else {
        // A record read from a file has no message of its own, only the text it showed: that text
        // goes into the ring rather than nothing.
        const std::string& text =
            trace.GetMessageString().empty() ? trace.GetFormattedMessage() : trace.GetMessageString();
        m_stream->Write(trace.GetID(), trace.GetModuleID(), trace.GetThreadID(), trace.GetTimestamp(),
                        trace.GetSeverityMask(), fileName, trace.GetLineNumber(), text.c_str(),
                        message.GetParameterCount(), message.GetParameters(), 0);
    }
    return Success;
}

TraceBuffer::ErrorType TraceBuffer::WriteTraces(const std::vector<std::unique_ptr<Trace>>& traces) {
    if (m_stream == nullptr) [[unlikely]] {
        ReportError(
            TraceMessage("Couldn't write traces to trace buffer: BufferID: %1. Container size: %2. First "
                         "TraceID: %3. Stream not created.")
                .Add(GetBufferID())
                .Add(traces.size())
                .Add(traces.empty() || traces.front() == nullptr ? 0u : traces.front()->GetID()));
        return StreamNotCreated;
    }
    for (const std::unique_ptr<Trace>& trace : traces) {
        if (trace != nullptr)
            WriteTrace(*trace);
    }
    return Success;
}

TraceStream::ErrorType TraceBuffer::ConnectReader(TraceReaderInfo& info, uint32_t startTraceID) const {
    // Without a ring the cursor stays unconnected.
    return m_stream != nullptr ? m_stream->ConnectReader(info, startTraceID) : TraceStream::NoNewTraces;
}

void TraceBuffer::Read(TraceReaderInfo& info, std::vector<std::unique_ptr<Trace>>& traces, bool& overflow,
                       uint32_t maxTraces) const {
    overflow = false;
    if (m_stream != nullptr)
        m_stream->Read(info, traces, overflow, maxTraces);
}

bool TraceBuffer::AreNewTracesAvailable(const TraceReaderInfo& info) const {
    return m_stream != nullptr && m_stream->AreNewTracesAvailable(info);
}

uint32_t TraceBuffer::GetWriteIndex() const {
    return m_header != nullptr ? m_header->GetAtomicWriteIndex().load(std::memory_order_seq_cst) : 0;
}

// --- header fields

int32_t TraceBuffer::GetBufferID() const {
    return m_header != nullptr ? m_header->GetBufferID() : -1;
}

int64_t TraceBuffer::GetProcessID() const {
    return m_header != nullptr ? m_header->GetProcessID() : 0;
}

int64_t TraceBuffer::GetCreatorProcessID() const {
    return m_header != nullptr ? m_header->GetCreatorProcessID() : 0;
}

const char* TraceBuffer::GetHostName() const {
    return m_header != nullptr ? m_header->GetHostName() : "";
}

const char* TraceBuffer::GetSystemName() const {
    return m_header != nullptr ? m_header->GetSystemName() : "";
}

const char* TraceBuffer::GetApplicationName() const {
    return m_header != nullptr ? m_header->GetApplicationName() : "";
}

const char* TraceBuffer::GetSubSystemName() const {
    return m_header != nullptr ? m_header->GetSubSystemName() : "";
}

TimestampMode::Type TraceBuffer::GetTimestampMode() const {
    return m_header != nullptr ? m_header->GetTimestampMode() : TimestampMode::NotSet;
}

uint32_t TraceBuffer::GetRingBufferSize() const {
    return m_stream != nullptr ? m_stream->GetTraceBufferSize() : 0;
}

bool TraceBuffer::GetReuseFilterState() const {
    return m_header != nullptr && m_header->GetReuseFilterState();
}

std::string TraceBuffer::GetBufferName() const {
    return m_memory.isAttached() ? m_memory.getKey() : std::string();
}

void TraceBuffer::SetName(bool system, const char* name) {
    std::string oldName;
    std::string newName;
    {
        HeaderLock lock(*this);
        if (m_header == nullptr)
            return;
        const std::string_view current = system ? m_header->GetSystemName() : m_header->GetApplicationName();
        if (current == StoredName(name))
            return;
        std::string& kept = system ? m_systemName : m_applicationName;
        if (system)
            m_header->SetSystemName(name);
        else
            m_header->SetApplicationName(name);
        oldName = kept;
        newName = system ? m_header->GetSystemName() : m_header->GetApplicationName();
        kept = newName;
    }
    NoteOwnChange();
    if (system)
        FireSystemNameChanged(oldName, newName);
    else
        FireApplicationNameChanged(oldName, newName);
}

void TraceBuffer::SetSystemName(const char* name) {
    SetName(true, name);
}

void TraceBuffer::SetApplicationName(const char* name) {
    SetName(false, name);
}

uint32_t TraceBuffer::GetChangeCounter() const {
    return m_header != nullptr ? m_header->GetAtomicChangeCounter().load(std::memory_order_seq_cst) : 0;
}

uint32_t TraceBuffer::IncChangeCounter() {
    return m_header != nullptr
               ? m_header->GetAtomicChangeCounter().fetch_add(1, std::memory_order_seq_cst) + 1
               : 0;
}

void TraceBuffer::GetInfo(TraceBufferInfo& info) const {
    info = TraceBufferInfo();
    HeaderLock lock(*this);
    if (m_header == nullptr)
        return;
    info.BufferID = m_header->GetBufferID();
    info.ProcessID = m_header->GetProcessID();
    info.CreatorProcessID = m_header->GetCreatorProcessID();
    info.HostName = m_header->GetHostName();
    info.RegistryHostName = m_registryHostName;
    info.SystemName = m_header->GetSystemName();
    info.ApplicationName = m_header->GetApplicationName();
    info.SubSystemName = m_header->GetSubSystemName();
    info.BufferName = m_memory.getKey();
    info.RingBufferSize = GetRingBufferSize();
    info.SizeOfModuleArray = m_moduleCount;
    for (uint32_t i = 0; i < m_moduleCount; ++i)
        info.ModuleCount += Slot(i)->IsActivated() ? 1 : 0;
    info.Mode = m_header->GetTimestampMode();
    info.WriteIndex = m_header->GetAtomicWriteIndex().load(std::memory_order_seq_cst);
    info.TotalTraceCounter = m_header->GetAtomicTotalTraceCounter().load(std::memory_order_seq_cst);
    info.GlobalTraceID = m_header->GetGlobalTraceID();
    info.ReuseFilterState = m_header->GetReuseFilterState();
    info.ConsumerAttached = m_header->GetConsumerAttached().load(std::memory_order_seq_cst) != 0;
    info.Initialized = m_header->GetInitializedFlag().load(std::memory_order_seq_cst) == 1;
}

void TraceBuffer::AddToProfile(TraceProfile& profile) const {
    HeaderLock lock(*this);
    if (m_header == nullptr)
        return;
    TraceProfile::Host* host = profile.CreateHost(m_registryHostName);
    TraceProfile::Application* application = host->CreateApplication(m_header->GetApplicationName());
    TraceProfile::SubSystem* subSystem = application->CreateSubSystem(m_header->GetSubSystemName());
    subSystem->SetTimestampMode(m_header->GetTimestampMode());
    subSystem->SetTraceStreamSize(GetRingBufferSize());
    subSystem->SetMaxModules(m_moduleCount);
    for (uint32_t i = 0; i < m_moduleCount; ++i) {
        const TraceModuleData* slot = Slot(i);
        if (slot->IsActivated())
            slot->AddToProfile(*subSystem);
    }
}

// --- interest and closing

void TraceBuffer::RegisterInterest() {
    const uint32_t count = m_interest.fetch_add(1, std::memory_order_relaxed) + 1;
    ReportInfo(Severity::Verbose,
               TraceMessage("Registering buffer interest. BufferID: %1, PID: %2, host: '%3', "
                            "subsys: '%4', new counter value: '%5'.")
                   .Add(GetBufferID())
                   .Add(GetProcessID())
                   .Add(GetHostName())
                   .Add(GetSubSystemName())
                   .Add(count));
}

void TraceBuffer::UnregisterInterest() {
    uint32_t count = m_interest.load(std::memory_order_relaxed);
    // Never below 0: an unbalanced call must not make the buffer look wanted for ever.
    while (count > 0 && !m_interest.compare_exchange_weak(count, count - 1, std::memory_order_relaxed)) {
    }
    ReportInfo(Severity::Verbose,
               TraceMessage("Unregistering buffer interest. BufferID: %1, PID: %2, host: '%3', "
                            "subsys: '%4', new counter value: '%5'.")
                   .Add(GetBufferID())
                   .Add(GetProcessID())
                   .Add(GetHostName())
                   .Add(GetSubSystemName())
                   .Add(count > 0 ? count - 1 : 0u));
}

void TraceBuffer::WaitBeforeClose() const {
    using namespace std::chrono;
    const auto closeAt =
        m_createdAt + milliseconds(TraceConfigurationPrivate::GetInstance().GetBufferCloseWaitMs());
    const auto now = steady_clock::now();
    if (now >= closeAt)
        return;
    ReportInfo(Severity::Verbose,
               TraceMessage("Waiting max %1 ms before unregistering the buffer: BufferID: %2.")
                   .Add(static_cast<uint64_t>(ceil<milliseconds>(closeAt - now).count()))
                   .Add(GetBufferID()));
    while (steady_clock::now() < closeAt)
        Platform::SleepMs(CloseWaitStepMs);
}

}  // namespace Tracing
