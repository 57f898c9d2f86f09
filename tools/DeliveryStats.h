// What a consumer of live traces got and lost, per buffer and in total.
//
// The reader reports a loss by a record of no module (module ID -1) in the buffer's sequence; how
// many traces it cost is the gap in trace IDs between the last trace delivered before it and the
// first one after it. With global trace IDs (the default) the IDs count the traces of every
// buffer on the machine, so while other buffers are written too the gap also holds their traces:
// then it is an upper bound. Gaps without a loss record are not counted, because with global IDs
// they are the normal case.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace Tracing {
class Trace;
}

namespace Tracing::Tool {

class DeliveryStats {
public:
    struct Loss {
        int BufferID = -1;
        std::string Reason;       // the reader's text
        uint32_t LastBefore = 0;  // last ID delivered before the loss; 0 if none
        uint32_t FirstAfter = 0;  // first ID delivered after it; 0 if none (yet)
        uint64_t Lost = 0;        // traces lost; 0 when not known
    };

    // Counts one record. True when it completes a loss, which is then in loss.
    bool Observe(const Trace& trace, Loss& loss);
    // Losses still waiting for their next trace (the buffer ended or stopped being read).
    template <typename Report>
    void FlushPending(Report&& report) {
        for (auto& [id, buffer] : m_buffers) {
            if (buffer.Pending) {
                buffer.Pending = false;
                report(buffer.PendingLoss);
            }
        }
    }

    uint64_t GetDelivered() const { return m_delivered; }
    uint64_t GetLost() const { return m_lost; }
    uint64_t GetLargestGap() const { return m_largestGap; }
    uint64_t GetOverflows() const { return m_overflows; }
    // "N traces delivered, M lost in K overflows (largest gap G)"
    std::string Summary() const;

private:
    struct BufferState {
        uint32_t LastID = 0;
        bool Pending = false;
        Loss PendingLoss;
    };

    std::map<int, BufferState> m_buffers;
    uint64_t m_delivered = 0;
    uint64_t m_lost = 0;
    uint64_t m_largestGap = 0;
    uint64_t m_overflows = 0;
};

}  // namespace Tracing::Tool
