#include "Trace/Buffer/TraceModuleData.h"

#include <cstring>

#include "Trace/Buffer/TraceBufferData.h"
#include "Trace/Buffer/TraceModuleInfo.h"

namespace Tracing {

namespace {
constexpr uint32_t Bit(uint8_t bit) {
    return bit <= 31 ? uint32_t{1} << bit : 0;
}
}  // namespace

bool TraceModuleData::Activate(int32_t bufferID, int32_t moduleID, const char* name, uint32_t filterState) {
    if (IsActivated())
        return false;
    m_moduleID = moduleID;
    Internal::CopyShmName(m_moduleName, name);
    // Not reduced to registered bits: the caller's state is taken as it stands.
    AtomicFilterState().store(filterState, std::memory_order_seq_cst);
    // Last: readers take a slot with a buffer ID as complete.
    SetBufferID(bufferID);
    return true;
}

void TraceModuleData::Deactivate() {
    SetBufferID(FreeBufferID);
    m_moduleID = 0;
    Internal::CopyShmName(m_moduleName, nullptr);
    std::memset(m_padding, 0, sizeof m_padding);
    AtomicFilterState().store(0, std::memory_order_seq_cst);
    for (TraceFlagData& flag : m_flags)
        flag.Deactivate();
    AtomicRegisteredFlags().store(0, std::memory_order_seq_cst);
}

uint32_t TraceModuleData::RemoveInvalidBits(uint32_t mask) const {
    return mask & (GetRegisteredFlags() | SeverityMask);
}

bool TraceModuleData::SetSeverityMask(uint32_t mask) {
    const uint32_t state = RemoveInvalidBits(mask);
    if (state == GetFilterState())
        return false;
    AtomicFilterState().store(state, std::memory_order_seq_cst);
    return true;
}

bool TraceModuleData::SetSeverity(Severity::Type severity) {
    // Compared by its severity bits but stored as given, so a value above 7 also sets bit 3 or
    // flag bits, as the caller asked.
    const uint32_t value = static_cast<uint32_t>(severity);
    const uint32_t state = GetFilterState();
    if ((state & SeverityMask) == value)
        return false;
    // A load and an exchange rather than one read-modify-write; bit 3 is cleared on the way.
    AtomicFilterState().exchange((state & FlagMask) | value, std::memory_order_seq_cst);
    return true;
}

bool TraceModuleData::SetFlag(bool on, uint8_t bit) {
    const uint32_t flagBit = Bit(bit) & GetRegisteredFlags() & FlagMask;
    const uint32_t before = on ? AtomicFilterState().fetch_or(flagBit, std::memory_order_seq_cst)
                               : AtomicFilterState().fetch_and(~flagBit, std::memory_order_seq_cst);
    return before != GetFilterState();
}

uint8_t TraceModuleData::RegisterFlag(const char* name, bool activate, uint8_t bit) {
    TraceFlagData* slot = nullptr;
    if (bit != 0) {
        if (bit < FirstFlagBit || bit > LastFlagBit)
            return 0;
        slot = &m_flags[bit - FirstFlagBit];
        if (slot->IsActivated())
            return bit;  // keeps the name it has
    } else {
        for (unsigned i = 0; i < FlagCount; ++i) {
            TraceFlagData& flag = m_flags[i];
            if (flag.IsActivated()) {
                if (flag.HasName(name))
                    return flag.GetBitNo();
            } else if (slot == nullptr) {
                slot = &flag;
                bit = static_cast<uint8_t>(i + FirstFlagBit);
            }
        }
        if (slot == nullptr)
            return 0;
    }
    slot->Activate(bit, name);
    AtomicRegisteredFlags().fetch_or(Bit(bit), std::memory_order_seq_cst);
    if (activate)
        AtomicFilterState().fetch_or(Bit(bit) & GetRegisteredFlags() & FlagMask, std::memory_order_seq_cst);
    return bit;
}

const TraceFlagData* TraceModuleData::FindFlag(const char* name) const {
    for (const TraceFlagData& flag : m_flags) {
        if (!flag.IsActivated())
            break;
        if (flag.HasName(name))
            return &flag;
    }
    return nullptr;
}

const TraceFlagData* TraceModuleData::RegisteredFlagSlot(uint8_t bit) const {
    if (bit < FirstFlagBit || bit > LastFlagBit)
        return nullptr;
    const TraceFlagData& flag = m_flags[bit - FirstFlagBit];
    return flag.IsActivated() ? &flag : nullptr;
}

bool TraceModuleData::IsFlagRegistered(uint8_t bit) const {
    return RegisteredFlagSlot(bit) != nullptr;
}

bool TraceModuleData::IsFlagActive(uint8_t bit) const {
    return (Bit(bit) & GetFilterState() & FlagMask) != 0;
}

bool TraceModuleData::GetFlagName(uint8_t bit, std::string& name) const {
    const TraceFlagData* flag = RegisteredFlagSlot(bit);
    if (flag == nullptr)
        return false;
    name = flag->GetFlagName();
    return true;
}

uint32_t TraceModuleData::GetTraceFlags() const {
    uint32_t flags = 0;
    for (const TraceFlagData& flag : m_flags) {
        if (flag.IsActivated())
            flags |= Bit(flag.GetBitNo());
    }
    return flags & FlagMask;
}

void TraceModuleData::ApplyProfile(const TraceBufferData& profileRecord, unsigned defaultSeverity) {
    const TraceModuleData* profile = profileRecord.FindModule(GetModuleName());

    uint32_t severity = 0;
    if (profile != nullptr && (profile->GetFilterState() & SeverityMask) != 0)
        severity = profile->GetFilterState() & SeverityMask;
    else
        severity = defaultSeverity & SeverityMask;
    if (severity != 0) {
        const uint32_t state = GetFilterState();
        if ((state & SeverityMask) != severity)
            AtomicFilterState().store((state & ~uint32_t{15}) | severity, std::memory_order_seq_cst);
    }

    if (profile == nullptr)
        return;
    const uint32_t profileState = profile->GetFilterState();
    for (const TraceFlagData& flag : m_flags) {
        if (!flag.IsActivated())
            break;
        for (const TraceFlagData& profileFlag : profile->m_flags) {
            if (!profileFlag.IsActivated())
                break;
            if (!profileFlag.HasName(flag.GetFlagName()))
                continue;
            if ((Bit(profileFlag.GetBitNo()) & profileState & FlagMask) != 0) {
                AtomicFilterState().fetch_or(Bit(flag.GetBitNo()) & GetRegisteredFlags() & FlagMask,
                                             std::memory_order_seq_cst);
            }
            break;
        }
    }
}

void TraceModuleData::GetInfo(TraceModuleInfo& info) const {
    info.BufferID = GetBufferID();
    info.ModuleID = m_moduleID;
    info.Name = GetModuleName();
    info.FilterState = GetFilterState();
    info.SeverityValue = static_cast<Severity::Type>(info.FilterState & SeverityMask);
    info.RegisteredFlags = GetRegisteredFlags();
    info.Flags.clear();
    for (const TraceFlagData& flag : m_flags) {
        if (!flag.IsActivated())
            continue;
        TraceFlagInfo& flagInfo = info.Flags.emplace_back();
        flag.GetInfo(flagInfo);
        // From the state read above, so that the description is one consistent picture.
        flagInfo.Active = (Bit(flag.GetBitNo()) & info.FilterState & FlagMask) != 0;
    }
}

bool TraceModuleData::AddToProfile(TraceProfile::SubSystem& subSystem) const {
    TraceProfile::Module* module = subSystem.CreateModule(GetModuleName());
    if (module == nullptr)
        return false;
    module->SetSeverity(GetFilterState() & SeverityMask);
    for (const TraceFlagData& flag : m_flags) {
        if (!flag.IsActivated())
            break;
        if (TraceProfile::Flag* profileFlag = module->CreateFlag(flag.GetFlagName()))
            profileFlag->SetEnabled(IsFlagActive(flag.GetBitNo()));
    }
    return true;
}

}  // namespace Tracing
