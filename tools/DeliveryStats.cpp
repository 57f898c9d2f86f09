#include "tools/DeliveryStats.h"

#include "Trace/Records/Trace.h"

namespace Tracing::Tool {

bool DeliveryStats::Observe(const Trace& trace, Loss& loss) {
    BufferState& buffer = m_buffers[trace.GetBufferID()];
    if (trace.GetModuleID() == -1) {
        ++m_overflows;
        // Several reports before the next trace are one gap.
        if (!buffer.Pending) {
            buffer.Pending = true;
            buffer.PendingLoss = Loss{trace.GetBufferID(), trace.GetFormattedMessage(), buffer.LastID, 0, 0};
        }
        return false;
    }
    ++m_delivered;
    const uint32_t id = trace.GetID();
    // IDs wrap from 0xFFFFFFFF to 1; half the range ahead is newer.
    const bool newer = buffer.LastID == 0 || static_cast<uint32_t>(id - buffer.LastID) < 0x80000000u;
    const uint32_t before = buffer.LastID;
    if (newer)
        buffer.LastID = id;
    if (!buffer.Pending)
        return false;
    buffer.Pending = false;
    loss = buffer.PendingLoss;
    loss.FirstAfter = id;
    if (before != 0 && newer) {
        loss.Lost = static_cast<uint32_t>(id - before) - 1u;
        m_lost += loss.Lost;
        if (loss.Lost > m_largestGap)
            m_largestGap = loss.Lost;
    }
    return true;
}

std::string DeliveryStats::Summary() const {
    return std::to_string(m_delivered) + " traces delivered, " + std::to_string(m_lost) + " lost in " +
           std::to_string(m_overflows) + " overflows (largest gap " + std::to_string(m_largestGap) + ")";
}

}  // namespace Tracing::Tool
