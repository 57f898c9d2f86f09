#include "Trace/Buffer/TraceBufferData.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "platform/Process.h"

namespace Tracing {

namespace {

constexpr uint32_t MaxRingBufferSize = 0x80000000u;

// Next power of two; 0 (a record without ring) stays 0, which std::bit_ceil would make 1.
uint32_t RoundRingSize(uint32_t size) {
    return size == 0 ? 0 : std::bit_ceil(size);
}

bool IsUsableAddress(const void* address) {
    return address != nullptr && reinterpret_cast<uintptr_t>(address) % alignof(TraceBufferData) == 0;
}

}  // namespace

int64_t TraceBufferData::LoadInt64(const uint32_t (&words)[2]) {
    int64_t value;
    std::memcpy(&value, words, sizeof value);
    return value;
}

void TraceBufferData::StoreInt64(uint32_t (&words)[2], int64_t value) {
    std::memcpy(words, &value, sizeof value);
}

void TraceBufferData::SetNames(const char* hostName, const char* systemName, const char* applicationName,
                               const char* subSystemName) {
    Internal::CopyShmName(m_hostName, hostName);
    Internal::CopyShmName(m_systemName, systemName);
    Internal::CopyShmName(m_applicationName, applicationName);
    Internal::CopyShmName(m_subSystemName, subSystemName);
}

SHMErrorCodes::Values TraceBufferData::Create(TraceBufferData*& data, void* address, uint64_t memorySize,
                                              uint32_t ringSize, int32_t bufferID, int64_t processID,
                                              TimestampMode::Type timestampMode, const char* hostName,
                                              const char* systemName, const char* applicationName,
                                              const char* subSystemName) {
    data = nullptr;
    if (!IsUsableAddress(address))
        return SHMErrorCodes::InvalidAddress;
    const uint64_t moduleCount =
        memorySize < SizeWithoutModuleArray ? 0 : (memorySize - SizeWithoutModuleArray) / ModuleSlotSize;
    if (moduleCount == 0 || moduleCount > UINT32_MAX || ringSize > MaxRingBufferSize)
        return SHMErrorCodes::InvalidSize;

    // Zero-fills the header, the lock included.
    auto* header = new (address) TraceBufferData();
    header->m_versionNumber = static_cast<uint16_t>(TraceConfigurationPrivate::ShmVersion);
    header->m_bufferID = bufferID;
    StoreInt64(header->m_processID, processID);
    StoreInt64(header->m_creatorProcessID, Platform::CurrentProcessId());
    header->m_timestampMode = static_cast<uint8_t>(timestampMode);
    header->m_ringBufferSize = RoundRingSize(ringSize);
    header->SetNames(hostName, systemName, applicationName, subSystemName);
    header->m_sizeOfModuleArray = static_cast<uint32_t>(moduleCount);
    // The ring's bytes stay as they are: readers validate every entry anyway.
    for (uint32_t i = 0; i < moduleCount; ++i)
        new (header->GetModuleArray() + i) TraceModuleData();
    data = header;
    return SHMErrorCodes::Success;
}

SHMErrorCodes::Values TraceBufferData::Create(TraceBufferData*& data, void* address,
                                              const TraceBufferData& existing, uint32_t moduleCount,
                                              uint32_t ringSize, int32_t bufferID, int64_t processID,
                                              TimestampMode::Type timestampMode, const char* hostName,
                                              const char* systemName, const char* applicationName,
                                              const char* subSystemName) {
    data = nullptr;
    if (!IsUsableAddress(address))
        return SHMErrorCodes::InvalidAddress;
    const uint32_t oldCount = existing.GetSizeOfModuleArray();
    if (GetSize(moduleCount) < existing.GetSize() || ringSize > MaxRingBufferSize)
        return SHMErrorCodes::InvalidSize;

    // Byte for byte, lock word, counters and flags included; memmove because the new memory may
    // be the old one.
    std::memmove(address, &existing, existing.GetSize());
    auto* header = static_cast<TraceBufferData*>(address);
    header->GetAtomicWriteIndex().store(0, std::memory_order_seq_cst);
    header->GetAtomicTotalTraceCounter().store(0, std::memory_order_seq_cst);

    header->m_sizeOfModuleArray = moduleCount;
    header->m_ringBufferSize = RoundRingSize(ringSize);
    header->SetTimestampMode(timestampMode);
    header->m_bufferID = bufferID;
    StoreInt64(header->m_processID, processID);
    StoreInt64(header->m_creatorProcessID, Platform::CurrentProcessId());
    header->SetNames(hostName, systemName, applicationName, subSystemName);

    TraceModuleData* modules = header->GetModuleArray();
    const uint32_t kept = std::min(oldCount, moduleCount);
    for (uint32_t i = 0; i < kept; ++i) {
        if (modules[i].IsActivated())
            modules[i].SetBufferID(bufferID);
    }
    for (uint32_t i = kept; i < moduleCount; ++i)
        new (modules + i) TraceModuleData();
    data = header;
    return SHMErrorCodes::Success;
}

SHMErrorCodes::Values TraceBufferData::Attach(TraceBufferData*& data, void* address) {
    data = nullptr;
    if (!IsUsableAddress(address))
        return SHMErrorCodes::InvalidAddress;
    data = static_cast<TraceBufferData*>(address);
    return SHMErrorCodes::Success;
}

void TraceBufferData::SetGlobalTraceID(bool global) {
    if (global)
        Ref(m_flagWord).fetch_or(GlobalTraceIDBit, std::memory_order_seq_cst);
    else
        Ref(m_flagWord).fetch_and(static_cast<uint16_t>(~GlobalTraceIDBit), std::memory_order_seq_cst);
}

TraceModuleData* TraceBufferData::ActivateFirstFreeModule(int32_t moduleID, const char* name,
                                                          uint32_t filterState) {
    TraceModuleData* modules = GetModuleArray();
    for (uint32_t i = 0, count = GetSizeOfModuleArray(); i < count; ++i) {
        if (!modules[i].IsActivated())
            return modules[i].Activate(m_bufferID, moduleID, name, filterState) ? modules + i : nullptr;
    }
    return nullptr;
}

const TraceModuleData* TraceBufferData::FindModule(const char* name) const {
    const TraceModuleData* modules = GetModuleArray();
    for (uint32_t i = 0, count = GetSizeOfModuleArray(); i < count; ++i) {
        if (modules[i].IsActivated() && modules[i].HasName(name))
            return modules + i;
    }
    return nullptr;
}

TraceModuleData* TraceBufferData::FindModule(const char* name) {
    return const_cast<TraceModuleData*>(static_cast<const TraceBufferData*>(this)->FindModule(name));
}

const TraceModuleData* TraceBufferData::FindModule(int32_t moduleID) const {
    const TraceModuleData* modules = GetModuleArray();
    for (uint32_t i = 0, count = GetSizeOfModuleArray(); i < count; ++i) {
        if (modules[i].IsActivated() && modules[i].GetModuleID() == moduleID)
            return modules + i;
    }
    return nullptr;
}

TraceModuleData* TraceBufferData::FindModule(int32_t moduleID) {
    return const_cast<TraceModuleData*>(static_cast<const TraceBufferData*>(this)->FindModule(moduleID));
}

}  // namespace Tracing
