// One named flag of a module slot.
//
// Shared-memory record (34 bytes, byte-aligned; 28 of them sit in every TraceModuleData):
//   0  u8        bit number  0 = free slot; 4-31 when in use (slot i of a module holds bit i + 4)
//   1  char[33]  flag name   zero-terminated, at most 32 bytes
// Written only under the buffer header's TraceIpcLock. Fixed-width fields only; no pointers,
// no size_t.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "Trace/Buffer/ShmName.h"

namespace Tracing {

struct TraceFlagInfo;

class TraceFlagData {
public:
    TraceFlagData() noexcept { Deactivate(); }

    // Occupies a free slot with a bit in 4-31; false when the slot is in use or the bit invalid.
    bool Activate(uint8_t bitNo, const char* name);
    void Deactivate();

    bool IsActivated() const { return m_bitNo != 0; }
    uint8_t GetBitNo() const { return m_bitNo; }
    const char* GetFlagName() const { return Internal::ShmNameCString(m_flagName); }
    void SetFlagName(const char* name) { Internal::CopyShmName(m_flagName, name); }
    bool HasName(const char* name) const { return Internal::ShmNameEquals(m_flagName, name); }

    // Bit and name; whether the flag is active is the module's to say.
    void GetInfo(TraceFlagInfo& info) const;

private:
    uint8_t m_bitNo;
    char m_flagName[Internal::ShmNameFieldSize];

    static void CheckLayout();
};

inline void TraceFlagData::CheckLayout() {
    static_assert(sizeof(TraceFlagData) == 34);
    static_assert(alignof(TraceFlagData) == 1);
    static_assert(offsetof(TraceFlagData, m_bitNo) == 0);
    static_assert(offsetof(TraceFlagData, m_flagName) == 1);
    static_assert(std::is_standard_layout_v<TraceFlagData>);
    static_assert(std::is_trivially_copyable_v<TraceFlagData>);
}

}  // namespace Tracing
