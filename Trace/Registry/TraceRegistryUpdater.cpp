#include "Trace/Registry/TraceRegistryUpdater.h"

#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Registry/TraceRegistry.h"

namespace Tracing {

TraceRegistryUpdater::TraceRegistryUpdater(TraceRegistry& registry) : m_registry(registry) {
    TraceUpdateManager::GetInstance().AddItem(*this);
}

TraceRegistryUpdater::~TraceRegistryUpdater() {
    TraceUpdateManager::GetInstance().RemoveItem(*this);
}

void TraceRegistryUpdater::Update() {
    bool changed = false;
    {
        // The service counter is read under the registry's mutex, which must come before ours.
        std::lock_guard<std::recursive_mutex> registryLock(m_registry.m_mutex);
        std::lock_guard<std::mutex> lock(m_mutex);
        const uint32_t local = m_registry.GetChangeCounter();
        const uint32_t service = m_registry.GetServiceChangeCounter();
        if (local != m_lastChangeCounter || service != m_lastServiceChangeCounter ||
            m_registry.UpdateIsNeeded() || m_registry.KeptBufferReleased()) {
            m_lastChangeCounter = local;
            m_lastServiceChangeCounter = service;
            changed = true;
        }
    }
    if (changed)
        m_registry.Update();

    // Only the updater thread calls Update, so the tick needs no lock.
    ++m_tick;
    if (m_tick % CheckPeriodTicks == 0) {
        m_registry.CheckProcesses(m_tick % FullCheckPeriodTicks == 0);
        m_registry.TryAttachServiceRegistry();
    }
}

void TraceRegistryUpdater::IncChangeCounter() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_registry.IncChangeCounter();
}

void TraceRegistryUpdater::IncServiceChangeCounter() {
    std::lock_guard<std::recursive_mutex> registryLock(m_registry.m_mutex);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_registry.IncServiceChangeCounter();
}

}  // namespace Tracing
