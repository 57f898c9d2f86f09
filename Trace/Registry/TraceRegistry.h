// This process's view of the machine-wide trace registry.
//
// The registry block is created by the first process under a named creation guard and published by
// the creator's final store of its initialised flag; every later process attaches and waits for that
// flag. A process that is not a service also attaches the service registry (the same name in the
// global namespace) when one exists. Without a registry block the object still exists and every
// accessor returns a neutral value, so the library keeps working without cross-process registration.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Trace/Buffer/SHMErrorCodes.h"

namespace Tracing {

class TraceRegistryData;
class TraceReceiverCommandStore;
class TraceSharedMemory;

class TraceRegistry {
public:
    static TraceRegistry& GetInstance();

    // Attaches the service registry unless it is attached already, this process is a service, or
    // the local registry has turned out to be the global one.
    void TryAttachServiceRegistry();

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

    bool UpdateIsNeeded() const { return m_updateNeeded.load(std::memory_order_seq_cst); }

    // Carries a changed system or application name into the buffers this process created.
    void UpdateNamesOfAllCreatedBuffers();

    // The second argument is not used.
    static bool IsProcessAlive(int64_t pid, bool unused = false);

    TraceRegistry(const TraceRegistry&) = delete;
    TraceRegistry& operator=(const TraceRegistry&) = delete;

private:
    TraceRegistry();
    ~TraceRegistry();

    static void GetSHMName(std::string& out, bool global);
    static void GetSemaphoreName(std::string& out);

    void InitializeOnce();
    // Creates or attaches the local block under the creation guard; a creator publishes it.
    void CreateOrAttach();
    void SetUpBlock();
    void TryAttachServiceRegistryLocked();

    std::unique_ptr<TraceSharedMemory> m_registryMemory;
    SHMErrorCodes::Values m_creationErrorCode = static_cast<SHMErrorCodes::Values>(1);
    // The local block; null without a registry. Its counters are reached through its atomic accessors.
    TraceRegistryData* m_data = nullptr;
    std::unique_ptr<TraceReceiverCommandStore> m_receiverCommandStore;

    std::unique_ptr<TraceSharedMemory> m_serviceMemory;
    // Null while the service registry is not attached.
    TraceRegistryData* m_serviceData = nullptr;
    bool m_tryServiceRegistry = true;

    mutable std::recursive_mutex m_mutex;
    std::atomic<bool> m_updateNeeded{false};

    // Once-per-process set-up after construction; the thread running it may re-enter GetInstance.
    std::mutex m_initializeMutex;
    std::atomic<bool> m_initialized{false};
    std::atomic<std::thread::id> m_initializingThread{};
};

}  // namespace Tracing
