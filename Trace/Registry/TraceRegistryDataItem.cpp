#include "Trace/Registry/TraceRegistryDataItem.h"

namespace Tracing {

void TraceRegistryDataItem::CheckLayout() {
    static_assert(offsetof(TraceRegistryDataItem, m_processID) == 0);
    static_assert(offsetof(TraceRegistryDataItem, m_bufferID) == 8);
    static_assert(offsetof(TraceRegistryDataItem, m_hostName) == 12);
    static_assert(offsetof(TraceRegistryDataItem, m_subSystemName) == 45);
    static_assert(offsetof(TraceRegistryDataItem, m_padding) == 78);
    static_assert(sizeof(m_hostName) == 33 && sizeof(m_subSystemName) == 33);
    static_assert(alignof(TraceRegistryDataItem) == 8);
}

bool TraceRegistryDataItem::Activate(int32_t bufferID, int64_t processID, const char* host,
                                     const char* subsystem) {
    if (IsActivated())
        return false;
    std::atomic_ref<int64_t>(m_processID).store(processID, std::memory_order_seq_cst);
    Internal::CopyShmName(m_hostName, host);
    Internal::CopyShmName(m_subSystemName, subsystem);
    // Last: publishes the filled item to scans that run without the lock.
    std::atomic_ref<int32_t>(m_bufferID).store(bufferID, std::memory_order_seq_cst);
    return true;
}

void TraceRegistryDataItem::Deactivate() {
    // First: scans without the lock stop matching the item before its fields are cleared.
    std::atomic_ref<int32_t>(m_bufferID).store(FreeBufferID, std::memory_order_seq_cst);
    std::atomic_ref<int64_t>(m_processID).store(0, std::memory_order_seq_cst);
    m_hostName[0] = '\0';
    m_subSystemName[0] = '\0';
}

}  // namespace Tracing
