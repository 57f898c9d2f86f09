// One process's handle on one trace buffer: it creates (producer) or attaches (consumer) the named
// shared memory, lays the header and module slots over it, builds the ring stream behind them, and
// offers module and flag registration, filter changes, writing and reading.
//
// Locks: the object's mutex first, then the header's TraceIpcLock; registration and filter changes
// hold both, writes and reads hold neither. Listeners are called with neither held. A header attached from
// another process is not trusted: the module slots used are bounded by the mapping, whatever the header
// claims.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Trace/Buffer/INewTracesListener.h"
#include "Trace/Buffer/ITraceBufferDataChangedListener.h"
#include "Trace/Buffer/TraceBufferData.h"
#include "Trace/Buffer/TraceBufferInfo.h"
#include "Trace/Buffer/TraceModuleInfo.h"
#include "Trace/Buffer/TraceReaderInfo.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Profiles/TraceProfile.h"
#include "Trace/Records/Severity.h"
#include "Trace/Time/TimestampMode.h"

namespace Tracing {

class Trace;
class TraceBufferUpdater;
class TraceModuleData;

class TraceBuffer {
public:
    enum ErrorType : int32_t {
        Success = 0,
        // Create or Attach on an object that already holds a buffer; the registry also uses it
        // for "already registered".
        AlreadyCreated = 1,
        // The shared memory could not be created, attached or laid out (the registry also uses
        // it when it has no block or is given no remote host name).
        SharedMemoryFailed = 2,
        InvalidModuleID = 3,
        StreamNotCreated = 4,
        // Registry: no free item even after its cleanup.
        NoFreeRegistryItem = 6,
    };

    static constexpr int32_t ValidIDMask = 0x3FFFFFFF;
    static constexpr int32_t ServiceIDBit = 0x40000000;
    static constexpr const char* HostName_Local = "";
    // Ring size bounds applied when a buffer is created.
    static constexpr uint32_t MinStreamSize = 16384;
    static constexpr uint32_t MaxStreamSize = 0x80000000u;

    TraceBuffer();
    // Stops the updater, then detaches from the shared memory (a created buffer vanishes with its
    // last holder). No thread may hold the object's mutex meanwhile.
    ~TraceBuffer();
    TraceBuffer(const TraceBuffer&) = delete;
    TraceBuffer& operator=(const TraceBuffer&) = delete;

    // Producer: creates the shared memory of a new buffer. Sizes and filters come from the
    // published profile when it has a record for (application, subsystem), else from the arguments
    // and the configuration (0 = configured).
    ErrorType Create(int32_t bufferID, int64_t processID, TimestampMode::Type timestampMode,
                     const char* hostName, const char* registryHostName, const char* systemName,
                     const char* applicationName, const char* subSystemName, uint32_t maxModules,
                     uint32_t streamSize);
    // Consumer (or a producer finding its own buffer again): attaches an existing buffer by the
    // name its creator gave it; hostName is the registry host name.
    ErrorType Attach(int32_t bufferID, int64_t processID, const char* hostName, const char* subSystemName);
    // Makes the buffer ready for updates (creates its updater); false detaches.
    bool Initialize();
    bool IsInitialized() const { return m_initialized; }

    // --- change notification. Calls come from the updater thread; a listener may (un)register
    // listeners from inside a call, and one removed during a round may still get that round's call.
    // With enableInitialNotification, a buffer that has modules calls OnModulesCreated with all of
    // them at once.
    void RegisterDataChangedListener(ITraceBufferDataChangedListener* listener,
                                     bool enableInitialNotification);
    void UnregisterDataChangedListener(ITraceBufferDataChangedListener* listener);
    void RegisterNewTracesListener(INewTracesListener* listener);
    void UnregisterNewTracesListener(INewTracesListener* listener);
    // While suspended, polls report nothing; the poll after a resume compares everything.
    void SuspendUpdate();
    void ResumeUpdate();
    // Full comparison of the header with what this object last saw, then the notifications.
    void Update();
    // Whether the next poll needs a full comparison although the change counter did not move.
    bool UpdateIsNeeded() const;
    // Tells the new-traces listeners.
    void NewTracesAreAvailable();
    void FireSystemNameChanged(const std::string& oldName, const std::string& newName);
    void FireApplicationNameChanged(const std::string& oldName, const std::string& newName);
    void FireModulesCreated(const std::set<int>& moduleIDs);
    void FireModuleFiltersChanged(const std::set<int>& moduleIDs);
    void FireFlagsRegistered(int moduleID, unsigned flags);

    // --- modules and flags
    // Registers a module, or returns the slot of the module with this exact name. moduleID -1 draws
    // the next free module ID. Null without a header or when no slot is free.
    TraceModuleData* RegisterModule(const char* name, Severity::Type severity, int32_t moduleID = -1);
    // Registers a flag of a module (bitNo 0: the module chooses); returns the bit, 0 on failure.
    uint8_t RegisterFlag(int32_t moduleID, const char* name, bool activate, uint8_t bitNo = 0);
    bool IsFlagRegistered(int32_t moduleID, uint8_t bit) const;
    bool ContainsModule(int32_t moduleID) const;
    // -1 when no module has this name.
    int32_t GetModuleID(const char* name) const;
    bool GetModuleInfo(int32_t moduleID, TraceModuleInfo& info) const;
    bool GetModuleInfo(const char* name, TraceModuleInfo& info) const;
    bool GetModuleName(int32_t moduleID, std::string& name) const;
    bool GetFlagName(int32_t moduleID, uint8_t bit, std::string& name) const;
    // True when every module slot is in use.
    bool IsMaxModulesReached() const;
    // Replaces the vector's content with the active modules in slot order.
    void Browse(std::vector<TraceModuleInfo>& modules) const;

    // --- filters; each returns whether the filter word changed (an unknown module changes nothing)
    bool SetSeverityMask(int32_t moduleID, uint32_t mask);
    bool SetSeverity(int32_t moduleID, Severity::Type severity);
    bool SetFlag(int32_t moduleID, bool on, uint8_t bit);
    ErrorType GetFilterState(int32_t moduleID, uint32_t& state) const;
    // Applies the published profile's record of this buffer to every active module.
    void ApplyDefaultProfile();

    // --- writing (lock-free through the stream)
    ErrorType WriteTrace(const Trace& trace);
    ErrorType WriteTraces(const std::vector<std::unique_ptr<Trace>>& traces);

    // --- reading, forwarded to the stream. Without a stream nothing is connected or read.
    TraceStream::ErrorType ConnectReader(TraceReaderInfo& info, uint32_t startTraceID = 0) const;
    void Read(TraceReaderInfo& info, std::vector<std::unique_ptr<Trace>>& traces, bool& overflow,
              uint32_t maxTraces = 0) const;
    bool AreNewTracesAvailable(const TraceReaderInfo& info) const;
    TraceStream* GetTraceStream() const { return m_stream.get(); }
    // 0 without a header.
    uint32_t GetWriteIndex() const;

    // --- header fields (neutral values without a header)
    int32_t GetBufferID() const;
    int64_t GetProcessID() const;
    int64_t GetCreatorProcessID() const;
    const char* GetHostName() const;
    const char* GetSystemName() const;
    const char* GetApplicationName() const;
    const char* GetSubSystemName() const;
    // The host name the buffer is registered under; empty for a local buffer.
    const std::string& GetRegistryHostName() const { return m_registryHostName; }
    TimestampMode::Type GetTimestampMode() const;
    uint32_t GetRingBufferSize() const;
    // The header's module count, bounded by the mapping.
    uint32_t GetSizeOfModuleArray() const { return m_moduleCount; }
    bool GetReuseFilterState() const;
    // The shared-memory key; empty while nothing is mapped.
    std::string GetBufferName() const;
    TraceBufferData* GetBufferData() const { return m_header; }
    bool IsLocal() const;

    // Renames in the header and tells this process's listeners; a change moves the change counter
    // so that other processes notice.
    void SetSystemName(const char* name);
    void SetApplicationName(const char* name);
    // 0 without a header.
    uint32_t GetChangeCounter() const;
    // Returns the new value; 0 without a header.
    uint32_t IncChangeCounter();

    void GetInfo(TraceBufferInfo& info) const;
    // Adds this buffer (as host, application and subsystem) and its active modules to a profile.
    void AddToProfile(TraceProfile& profile) const;

    // --- interest of readers and closing
    void RegisterInterest();
    void UnregisterInterest();
    bool HasInterest() const { return m_interest.load(std::memory_order_relaxed) > 0; }
    // Keeps a young buffer alive until the configured close wait has passed since its creation,
    // so that a reader can still find the traces of a short-lived producer.
    void WaitBeforeClose() const;
    // Precise timestamp taken when the object was made.
    uint64_t GetCreationTime() const { return m_creationTime; }

    // "[Global\]<prefix>TraceBuffer_V1_<pid>_<registry host>_<subsystem>".
    static void GetSHMName(std::string& out, int64_t processID, const char* hostName,
                           const char* subSystemName, bool global);
    // "<prefix>TraceBuffer_V1_": what the names of all buffers begin with.
    static std::string GetSHMNamePrefix();
    static int32_t MaskID(int32_t id, bool service) {
        return (id & ValidIDMask) | (service ? ServiceIDBit : 0);
    }
    static bool IsServiceID(int32_t id) { return (id & ServiceIDBit) != 0; }
    static bool IsLocal(const char* hostName);
    // The machine-wide trace-ID counter for buffers with global trace IDs; the registry hands it
    // over once its block exists (null: such buffers count in their own header).
    static void SetGlobalTraceIDCounter(uint32_t* counter);

private:
    // What this process last saw of a module slot.
    struct ModuleEntry {
        TraceModuleData* Slot = nullptr;
        uint32_t FilterState = 0;
        uint32_t RegisteredFlags = 0;
    };

    // Takes both locks for the scope: the object's mutex, then the header's lock.
    class HeaderLock;

    bool CreateUpdater();
    // Moves the change counter for other processes; this process already knows of the change.
    void NoteOwnChange();
    // Takes a changed slot's state into the module table (both locks held).
    void RefreshModuleEntry(const TraceModuleData& slot);
    template <typename Listener, typename Call>
    void Fire(const std::vector<Listener*>& listeners, Call call);
    void Detach();
    // Reports a failed Attach step, drops the mapping and returns SharedMemoryFailed.
    ErrorType FailAttach(int32_t bufferID, const std::string& name, SHMErrorCodes::Values error);
    // The machine-wide trace-ID counter when the header asks for global trace IDs, else null.
    uint32_t* GlobalTraceCounter() const;
    // Enters active slots that are not in the module table yet (both locks held); the next Update
    // reports them as created.
    void SyncModuleTable();
    // Slot lookups bounded by m_moduleCount.
    TraceModuleData* Slot(uint32_t index) const;
    TraceModuleData* FindSlot(int32_t moduleID) const;
    TraceModuleData* FindSlot(const char* name) const;
    TraceModuleData* ActivateFirstFreeSlot(int32_t moduleID, const char* name, uint32_t state);
    // Initial filter state of a new module: profile module, profile severity, argument, configuration.
    uint32_t InitialFilterState(const char* name, Severity::Type severity) const;
    // The state of this flag of this module in the published profile, if it has one.
    std::optional<bool> ProfileFlagState(const TraceModuleData& module, const char* flagName) const;
    // Applies change to the module's slot under both locks; a change moves the change counter.
    template <typename Change>
    bool ChangeFilter(int32_t moduleID, Change change);
    void SetName(bool system, const char* name);

    TraceSharedMemory m_memory;
    TraceBufferData* m_header = nullptr;
    // Module slots that lie within the mapping.
    uint32_t m_moduleCount = 0;
    std::unique_ptr<TraceStream> m_stream;
    std::string m_systemName;
    std::string m_applicationName;
    std::string m_registryHostName;
    uint32_t m_profileSeverity = 0;
    std::atomic<uint32_t> m_interest{0};
    uint64_t m_creationTime;
    std::chrono::steady_clock::time_point m_createdAt;
    bool m_initialized = false;

    mutable std::recursive_mutex m_mutex;
    // By module ID; guarded by m_mutex.
    std::map<int32_t, ModuleEntry> m_modules;
    // In registration order; guarded by m_mutex.
    std::vector<ITraceBufferDataChangedListener*> m_dataChangedListeners;
    std::vector<INewTracesListener*> m_newTracesListeners;
    // Modules SyncModuleTable entered that no listener has heard of yet; guarded by m_mutex.
    std::set<int> m_unreportedModules;
    std::atomic<bool> m_hasUnreportedModules{false};
    // Set by Initialize, reset first by the destructor.
    std::unique_ptr<TraceBufferUpdater> m_updater;
};

}  // namespace Tracing
