#include "Trace/Buffer/TraceBufferUpdater.h"

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Reading/TraceUpdateManager.h"

namespace Tracing {

TraceBufferUpdater::TraceBufferUpdater(TraceBuffer& buffer)
    : m_buffer(buffer),
      m_lastChangeCounter(buffer.GetChangeCounter()),
      m_lastWriteIndex(buffer.GetWriteIndex()) {
    TraceUpdateManager::GetInstance().AddItem(*this);
}

TraceBufferUpdater::~TraceBufferUpdater() {
    TraceUpdateManager::GetInstance().RemoveItem(*this);
}

void TraceBufferUpdater::Update() {
    const bool updateNeeded = m_buffer.UpdateIsNeeded();
    std::unique_lock lock(m_mutex);
    if (m_suspended)
        return;
    const uint32_t changeCounter = m_buffer.GetChangeCounter();
    if (changeCounter != m_lastChangeCounter || updateNeeded || m_pending) {
        m_lastChangeCounter = changeCounter;
        m_pending = false;
        lock.unlock();
        m_buffer.Update();
        lock.lock();
    }
    const uint32_t writeIndex = m_buffer.GetWriteIndex();
    if (writeIndex == m_lastWriteIndex)
        return;
    m_lastWriteIndex = writeIndex;
    lock.unlock();
    m_buffer.NewTracesAreAvailable();
}

void TraceBufferUpdater::Suspend() {
    std::lock_guard lock(m_mutex);
    m_suspended = true;
}

void TraceBufferUpdater::Resume() {
    std::lock_guard lock(m_mutex);
    m_suspended = false;
    m_pending = true;
}

void TraceBufferUpdater::IncHeaderChangeCounter() {
    std::lock_guard lock(m_mutex);
    m_buffer.IncChangeCounter();
    // Keeps any difference another process made, so its change still gets its full update.
    ++m_lastChangeCounter;
}

}  // namespace Tracing
