#include "Trace/Buffer/TraceFlagData.h"

#include "Trace/Buffer/TraceFlagInfo.h"

namespace Tracing {

namespace {
constexpr uint8_t FirstFlagBit = 4;
constexpr uint8_t LastFlagBit = 31;
}  // namespace

bool TraceFlagData::Activate(uint8_t bitNo, const char* name) {
    if (IsActivated() || bitNo < FirstFlagBit || bitNo > LastFlagBit)
        return false;
    // Name first: a reader that sees the bit number finds a complete name behind it.
    SetFlagName(name);
    m_bitNo = bitNo;
    return true;
}

void TraceFlagData::Deactivate() {
    m_bitNo = 0;
    Internal::CopyShmName(m_flagName, nullptr);
}

void TraceFlagData::GetInfo(TraceFlagInfo& info) const {
    info.BitNo = m_bitNo;
    info.Name = GetFlagName();
    info.Active = false;
}

}  // namespace Tracing
