// This process's view of the machine-wide trace registry.
//
// The registry block is created by the first process under a named creation guard and published by
// the creator's final store of its initialised flag; every later process attaches and waits for that
// flag. A process that is not a service also attaches the service registry (the same name in the
// global namespace) when one exists. Without a registry block the object still exists and every
// accessor returns a neutral value, so the library keeps working without cross-process registration.
//
// Buffers: the producer map holds the buffers this process created (or found again as their
// producer), the consumer map those attached for reading; both own their objects. Registration,
// lookup and browse run under the in-process recursive mutex, and, where they touch the item array,
// under the block's TraceIpcLock taken after it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Trace/Buffer/SHMErrorCodes.h"
#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceBufferInfo.h"
#include "Trace/Time/TimestampMode.h"
#include "Trace/Time/TraceTimeReference.h"

struct TraceEngine;

namespace Tracing {

class ITraceRegistryDataChangedListener;
class TraceBufferFilterCriteria;
class TraceProfile;
class TraceRegistryData;
class TraceReceiverCommandStore;
class TraceRegistryUpdater;
class TraceSharedMemory;

class TraceRegistry {
public:
    enum ErrorType : int32_t {
        Done = 0,
        // UnregisterBuffer: the buffer was not created by this registry.
        NotCreatedHere = 1,
        NoRegistry = 2,
        NoFreeItem = 6,
    };

    // The registry of this process's runtime, made with it on first use and never destroyed.
    static TraceRegistry& GetInstance();

    // The buffer of this process with this subsystem name on this host, created and registered
    // when there is none yet. The module name only appears in messages. A returned buffer is
    // success whatever *error says: AlreadyCreated with a buffer means "registered before by this
    // process"; null with AlreadyCreated means another process holds it. Sizes 0 = configured.
    TraceBuffer* RegisterBuffer(const char* subSystemName, const char* moduleName,
                                TimestampMode::Type timestampMode, uint32_t maxModules = 0,
                                uint32_t streamSize = 0, TraceBuffer::ErrorType* error = nullptr);
    // A collector registering a buffer of a process of another host. When that name is taken by
    // another collector, the registry host name gets ":1" .. ":9" (within its 32 characters).
    TraceBuffer* RegisterRemoteBuffer(int64_t processID, const char* hostName, const char* systemName,
                                      const char* applicationName, const char* subSystemName,
                                      const char* moduleName, TimestampMode::Type timestampMode,
                                      uint32_t maxModules, uint32_t streamSize,
                                      TraceBuffer::ErrorType* error = nullptr);
    // Only buffers that registration created here; the object is destroyed once the listeners
    // have been told. Waits while the buffer is younger than the configured close wait. A buffer
    // that engines still hold stays mapped until the last of them is gone, but its stream drops
    // (and reports) every further write.
    ErrorType UnregisterBuffer(TraceBuffer* buffer);
    // An engine's hold on a buffer that registration created here; false when it is not one.
    bool AddEngine(TraceBuffer* buffer);
    void RemoveEngine(TraceBuffer* buffer);
    // At exit: no more registrations or attachments; what exists stays as it is.
    void ShutDown() { m_shutDown.store(true, std::memory_order_seq_cst); }

    // Null when absent. The pointers stay valid until the buffer leaves its map.
    TraceBuffer* GetProducerBuffer(int32_t bufferID);
    TraceBuffer* GetConsumerBuffer(int32_t bufferID);
    TraceBuffer* GetConsumerBuffer(int64_t processID, const char* hostName, const char* subSystemName);

    // Replace the vector's content by a copy of each matching buffer's description, in ascending
    // buffer ID; without a registry the vector is left as it is.
    void ProducerBrowse(std::vector<std::unique_ptr<TraceBufferInfo>>& infos);
    void ProducerBrowse(std::vector<std::unique_ptr<TraceBufferInfo>>& infos,
                        const TraceBufferFilterCriteria& criteria);
    void ConsumerBrowse(std::vector<std::unique_ptr<TraceBufferInfo>>& infos);
    void ConsumerBrowse(std::vector<std::unique_ptr<TraceBufferInfo>>& infos,
                        const TraceBufferFilterCriteria& criteria);
    // 0 without a registry.
    size_t GetConsumerBufferCount() const;

    // A reader's claim on a consumer buffer; unknown IDs are ignored.
    void RegisterInterest(int32_t bufferID);
    void UnregisterInterest(int32_t bufferID);

    void RegisterDataChangedListener(ITraceRegistryDataChangedListener* listener);
    void UnregisterDataChangedListener(ITraceRegistryDataChangedListener* listener);

    // Adds this process's producer buffers to the profile.
    void GetLocalTraceProfile(TraceProfile& profile);
    // Adds the buffers of the consumer map as it stands: attaching is the registry update's job,
    // which also announces what it attached.
    void GetGlobalTraceProfile(TraceProfile& profile);

    // Attaches the service registry unless it is attached already, this process is a service, or
    // the local registry has turned out to be the global one.
    void TryAttachServiceRegistry();

    // Registry update: compares the registry blocks with the consumer map, attaches new buffers,
    // drops vanished ones and tells the data-changed listeners after every lock is released.
    void Update();
    // Frees the items of buffers whose creating process has died; the flag goes to IsProcessAlive.
    void CheckProcesses(bool fullCheck);

    // The result of creating or attaching the local block; NotInitialized when it never became ready.
    SHMErrorCodes::Values GetCreationErrorCode() const { return m_creationErrorCode; }

    // Counters of the local block: 0 / nothing without a registry.
    unsigned GetChangeCounter() const;
    void IncChangeCounter();
    // The same on the service registry: 0 / nothing while it is not attached.
    unsigned GetServiceChangeCounter() const;
    void IncServiceChangeCounter();

    unsigned GetProfileIndex() const;
    // Compare-and-exchange; false without a registry or when the index is not `expected`.
    bool SetProfileIndex(unsigned expected, unsigned value);

    // The local block's loader ID (read atomically, hence by value); 0 without a registry.
    int64_t GetProfileLoaderID() const;
    int64_t GetServiceProfileLoaderID() const;
    void SetProfileLoaderID(const int64_t& id);

    // The shared time reference: all 0 without a registry.
    void GetTraceTimer(uint64_t& time, uint64_t& tick, int64_t& counter) const;
    // Applied only when no other writer is busy with the reference at the same moment.
    void SetTraceTimer(uint64_t time, uint64_t tick, int64_t counter);
    unsigned GetTraceTimerResynchronizationPeriod() const;
    void SetTraceTimerResynchronizationPeriod(unsigned periodMs);

    // Number of items in the local block; 0 without a registry.
    unsigned GetSizeOfBufferArray() const;
    // Null without a registry.
    TraceReceiverCommandStore* GetReceiverCommandStore() const { return m_receiverCommandStore.get(); }
    // The block's machine-wide trace-ID counter; null without a registry.
    uint32_t* GetGlobalTraceIDCounter() const;

    bool UpdateIsNeeded() const { return m_updateNeeded.load(std::memory_order_seq_cst) != 0; }
    // True when a buffer kept for a reader's interest has lost it and can go now.
    bool KeptBufferReleased() const;

    // Carries a changed system or application name into the local buffers this process created.
    void UpdateNamesOfAllCreatedBuffers();
    // The same, but without making the registry: before it exists no buffer carries the names.
    static void UpdateNamesOfAllCreatedBuffersIfCreated();

    // The second argument is not used.
    static bool IsProcessAlive(int64_t pid, bool unused = false);

    // The library's own engine ("Core"/"General"); null before the registry is set up and after it
    // is gone. Never creates the registry.
    static TraceEngine* GetEngine();

    TraceRegistry(const TraceRegistry&) = delete;
    TraceRegistry& operator=(const TraceRegistry&) = delete;

private:
    friend class TraceRegistryTestAccess;
    // Takes m_mutex before its own mutex.
    friend class TraceRegistryUpdater;
    // Makes the one registry, and never destroys it.
    friend class TraceRuntime;

    // FNV-1a 64 over the bytes of the object's address.
    struct BufferAddressHash {
        size_t operator()(const TraceBuffer* buffer) const noexcept;
    };
    using BufferMap = std::map<int32_t, std::unique_ptr<TraceBuffer>>;

    // What a registration asks for; the names are never null.
    struct BufferRequest {
        int64_t processID;
        const char* hostName;
        const char* registryHostName;
        const char* systemName;
        const char* applicationName;
        const char* subSystemName;
        const char* moduleName;
        TimestampMode::Type timestampMode;
        uint32_t maxModules;
        uint32_t streamSize;
    };

    // The block's TraceIpcLock for a scope, or until Unlock.
    class BlockLock;

    TraceRegistry();
    ~TraceRegistry() = delete;

    static void GetSHMName(std::string& out, bool global);
    static void GetSemaphoreName(std::string& out);

    void InitializeOnce();
    // Creates or attaches the local block under the creation guard; a creator publishes it.
    void CreateOrAttach();
    void SetUpBlock();
    void TryAttachServiceRegistryLocked();

    TraceBuffer* Register(const BufferRequest& request, TraceBuffer::ErrorType& error);
    // Waits a little while other processes still hold the memory of an earlier buffer of these
    // names (one unregistered just now): they let go of it in their next update cycle.
    void WaitForEarlierMemory(const BufferRequest& request);
    // Registration's second half: a new ID, a new buffer and a free item (block lock held).
    TraceBuffer* CreateAndEnter(const BufferRequest& request, TraceBuffer::ErrorType& error,
                                BlockLock& blockLock);
    // Finds the buffers that another copy of the library in this process created (block lock held).
    void SynchronizeProducerBuffers();
    // Frees the items whose buffer no longer exists (block lock held).
    void CleanUpRegistry();
    // The first buffer of the map with these names, in ascending ID; an empty registry host name
    // is not compared.
    static TraceBuffer* FindBuffer(const BufferMap& buffers, int64_t processID, const char* hostName,
                                   const char* registryHostName, const char* subSystemName);
    TraceBuffer* LookUp(const BufferMap& buffers, int32_t bufferID);
    void Browse(const BufferMap& buffers, std::vector<std::unique_ptr<TraceBufferInfo>>& infos,
                const TraceBufferFilterCriteria* criteria);

    // Attaches a buffer of the registry for reading and enters it in the consumer map; the one
    // already there is returned as it is. The registry update builds on this and announces.
    TraceBuffer* AttachConsumerBuffer(int32_t bufferID);
    TraceBuffer* AttachConsumerBuffer(int32_t bufferID, int64_t processID, const char* hostName,
                                      const char* subSystemName);

    void FireBuffersCreated(const std::unordered_set<int>& bufferIDs);
    void FireBuffersDeleted(const std::unordered_set<int>& bufferIDs);
    // Calls every registered listener without the mutex; one that is unregistered meanwhile is
    // skipped, and its unregistration waits for a call already under way.
    template <typename Call>
    void FireToListeners(const char* what, size_t count, Call call);

    // The items within the mapping, whatever the block's header claims; 0 without the block.
    unsigned GetUsableItemCount(const TraceRegistryData* data) const;
    // Through the registry updater once it exists.
    void IncChangeCounterForBufferChange();
    // The only place that asks whether the updater thread polls the registry.
    static bool IsUpdateManagerRunning();

    // Registry update helpers.
    void CreateUpdater();
    void IncServiceChangeCounterForBufferChange();
    // Frees the items that an earlier process with this process's ID left behind.
    void FreeItemsOfEarlierProcess();
    // Rebuilds m_knownItems from the blocks (their locks held).
    void ReadKnownItems();
    // The block holding the item of this ID.
    TraceRegistryData* BlockOf(int32_t bufferID) const;
    // The dead-buffer report through the library's own engine, when it admits Info: as many traces
    // as the lines need, each starting with the header.
    void TraceDeadBufferReport(const std::vector<std::string>& lines);
    // Removes the buffer memory that no process holds any more: its last holder died.
    void RemoveAbandonedBuffers();

    std::unique_ptr<TraceSharedMemory> m_registryMemory;
    SHMErrorCodes::Values m_creationErrorCode = static_cast<SHMErrorCodes::Values>(1);
    // The local block; null without a registry. Its counters are reached through its atomic accessors.
    TraceRegistryData* m_data = nullptr;
    std::unique_ptr<TraceReceiverCommandStore> m_receiverCommandStore;

    std::unique_ptr<TraceSharedMemory> m_serviceMemory;
    // Null while the service registry is not attached.
    TraceRegistryData* m_serviceData = nullptr;
    bool m_tryServiceRegistry = true;

    // Recursive: listeners and buffers may call back into the registry on the same thread.
    mutable std::recursive_mutex m_mutex;
    std::atomic<bool> m_shutDown{false};
    // 1 when buffers were registered that the next registry update must announce.
    std::atomic<uint32_t> m_updateNeeded{0};

    // The following are guarded by m_mutex.
    BufferMap m_producerBuffers;
    BufferMap m_consumerBuffers;
    // The buffers registration created; UnregisterBuffer accepts only these.
    std::unordered_set<const TraceBuffer*, BufferAddressHash> m_createdBuffers;
    // Engines per buffer, and the unregistered buffers that engines still hold.
    std::unordered_map<const TraceBuffer*, unsigned> m_engineCounts;
    std::vector<std::unique_ptr<TraceBuffer>> m_retiredBuffers;
    int32_t m_lastAssignedBufferID = -1;
    // Registered while the update manager runs, waiting for the next update to announce them.
    std::unordered_set<int> m_buffersToAnnounce;
    // The block's change counter at the last producer synchronisation.
    uint32_t m_synchronizedChangeCounter = 0;
    std::vector<ITraceRegistryDataChangedListener*> m_dataChangedListeners;
    // Listener calls under way, with their threads.
    std::mutex m_listenerCallMutex;
    std::condition_variable m_listenerCallDone;
    std::vector<std::pair<ITraceRegistryDataChangedListener*, std::thread::id>> m_listenerCalls;

    // Registry update state (guarded by m_mutex).
    // What the registry update last saw of one registry item.
    struct KnownItem {
        int64_t processID;
        std::string hostName;
        std::string subSystemName;
    };
    // The activated items of both blocks at the last update, by buffer ID.
    std::map<int32_t, KnownItem> m_knownItems;
    // Buffers that left the registry but stay for a reader's interest.
    std::set<int32_t> m_keptBuffers;
    // Set when dead processes were found: once their buffers are let go, memory nobody holds goes.
    bool m_removeAbandoned = false;
    // The change counters as the last update left them.
    uint32_t m_updateChangeCounter = 0;
    uint32_t m_updateServiceChangeCounter = 0;
    // The block's time reference as the timer uses it (with a block only).
    std::optional<TraceTimeReference> m_timeReference;
    // Made at the end of the set-up (with a block only).
    std::unique_ptr<TraceRegistryUpdater> m_updater;

    // Set once the singleton exists, so that a name change can tell without creating it.
    static std::atomic<TraceRegistry*> s_instance;

    // Once-per-process set-up after construction; the thread running it may re-enter GetInstance.
    std::mutex m_initializeMutex;
    std::atomic<bool> m_initialized{false};
    std::atomic<std::thread::id> m_initializingThread{};

    // The library's own engine, made once during the set-up and freed with the registry.
    std::atomic<TraceEngine*> m_ownEngine{nullptr};
    void CreateOwnEngine();
};

}  // namespace Tracing
