// The registry's item of the updater thread: runs the registry update when a change counter moved
// (or a registration asked for it), and every tenth cycle looks for buffers of dead processes and
// for a service registry that appeared.
//
// Lock order: the registry's mutex before this object's mutex; the updater never calls into the
// registry while holding only its own.
#pragma once

#include <cstdint>
#include <mutex>

#include "Trace/Reading/IUpdaterItem.h"

namespace Tracing {

class TraceRegistry;

class TraceRegistryUpdater : public IUpdaterItem {
public:
    // Adds itself to the update manager, which starts the updater thread.
    explicit TraceRegistryUpdater(TraceRegistry& registry);
    // Removes itself; when this returns, Update is not running and will not run again.
    ~TraceRegistryUpdater() override;

    void Update() override;

    // +1 on the change counter of the local / service block.
    void IncChangeCounter();
    void IncServiceChangeCounter();

    TraceRegistryUpdater(const TraceRegistryUpdater&) = delete;
    TraceRegistryUpdater& operator=(const TraceRegistryUpdater&) = delete;

private:
    // Dead-process search and service-registry attempt every this many cycles.
    static constexpr uint32_t CheckPeriodTicks = 10;
    // The dead-process search is a full check every this many cycles (5 minutes).
    static constexpr uint32_t FullCheckPeriodTicks = 6000;

    TraceRegistry& m_registry;
    std::mutex m_mutex;
    uint32_t m_lastChangeCounter = 0;
    uint32_t m_lastServiceChangeCounter = 0;
    uint32_t m_tick = 0;
};

}  // namespace Tracing
