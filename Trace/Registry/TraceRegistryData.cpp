#include "Trace/Registry/TraceRegistryData.h"

#include <limits>
#include <new>

#include "Trace/Engine/TraceConfigurationPrivate.h"

namespace Tracing {

void TraceRegistryData::CheckLayout() {
    static_assert(offsetof(TraceRegistryData, m_version) == 0);
    static_assert(offsetof(TraceRegistryData, m_changeCounter) == 4);
    static_assert(offsetof(TraceRegistryData, m_lock) == 8);
    static_assert(sizeof(m_lock) == 24);
    static_assert(offsetof(TraceRegistryData, m_initializedFlag) == 32);
    static_assert(offsetof(TraceRegistryData, m_updateIndicator) == 36);
    static_assert(offsetof(TraceRegistryData, m_timerSecond) == 40);
    static_assert(offsetof(TraceRegistryData, m_timerThird) == 56);
    static_assert(offsetof(TraceRegistryData, m_timerFirst) == 72);
    static_assert(offsetof(TraceRegistryData, m_timerSlot) == 88);
    static_assert(offsetof(TraceRegistryData, m_resyncPeriod) == 92);
    static_assert(offsetof(TraceRegistryData, m_receiverCommands) == 96);
    static_assert(offsetof(TraceRegistryData, m_nextFreeBufferID) == 128);
    static_assert(offsetof(TraceRegistryData, m_profileIndex) == 132);
    static_assert(offsetof(TraceRegistryData, m_profileLoaderID) == 136);
    static_assert(offsetof(TraceRegistryData, m_globalTraceCounter) == 144);
    static_assert(offsetof(TraceRegistryData, m_sizeOfBufferArray) == 148);
    static_assert(GetSize(1) == 232 && GetSize(1000) == 80152);
}

TraceRegistryData::TraceRegistryData(unsigned numberOfItems)
    : m_version(TraceConfigurationPrivate::ShmVersion),
      m_changeCounter(0),
      m_lock(),
      m_initializedFlag(0),
      m_updateIndicator(0),
      m_timerSecond{0, 0},
      m_timerThird{0, 0},
      m_timerFirst{0, 0},
      m_timerSlot(0),
      m_resyncPeriod(DefaultResyncPeriod),
      m_receiverCommands{},
      m_nextFreeBufferID(0),
      m_profileIndex(0),
      m_profileLoaderID(0),
      m_globalTraceCounter(0),
      m_sizeOfBufferArray(numberOfItems) {
    TraceRegistryDataItem* items = GetBufferArray();
    for (unsigned i = 0; i < numberOfItems; ++i)
        new (&items[i]) TraceRegistryDataItem();
}

SHMErrorCodes::Values TraceRegistryData::Create(TraceRegistryData*& out, void* memory, uint64_t size) {
    out = nullptr;
    if (memory == nullptr)
        return SHMErrorCodes::InvalidAddress;
    if (size < GetSize(1))
        return SHMErrorCodes::InvalidSize;
    const uint64_t items = (size - SizeWithoutBufferArray) / sizeof(TraceRegistryDataItem);
    // The count is a 32-bit field; a larger block just leaves its tail unused.
    const unsigned count = items > std::numeric_limits<uint32_t>::max() ? std::numeric_limits<uint32_t>::max()
                                                                        : static_cast<unsigned>(items);
    out = new (memory) TraceRegistryData(count);
    return SHMErrorCodes::Success;
}

SHMErrorCodes::Values TraceRegistryData::Attach(TraceRegistryData*& out, void* memory) {
    out = nullptr;
    if (memory == nullptr)
        return SHMErrorCodes::InvalidAddress;
    out = static_cast<TraceRegistryData*>(memory);
    return SHMErrorCodes::Success;
}

TraceRegistryDataItem* TraceRegistryData::ActivateFirstFreeItem(int32_t bufferID, int64_t processID,
                                                                const char* host, const char* subsystem) {
    TraceRegistryDataItem* items = GetBufferArray();
    for (unsigned i = 0, n = m_sizeOfBufferArray; i < n; ++i) {
        if (!items[i].IsActivated()) {
            items[i].Activate(bufferID, processID, host, subsystem);
            return &items[i];
        }
    }
    return nullptr;
}

bool TraceRegistryData::DeactivateItem(int32_t bufferID) {
    TraceRegistryDataItem* items = GetBufferArray();
    for (unsigned i = 0, n = m_sizeOfBufferArray; i < n; ++i) {
        if (items[i].GetBufferID() == bufferID) {
            items[i].Deactivate();
            return true;
        }
    }
    return false;
}

const TraceRegistryDataItem* TraceRegistryData::FindItem(int32_t bufferID) const {
    const TraceRegistryDataItem* items = GetBufferArray();
    for (unsigned i = 0, n = m_sizeOfBufferArray; i < n; ++i) {
        if (items[i].GetBufferID() == bufferID)
            return &items[i];
    }
    return nullptr;
}

}  // namespace Tracing
