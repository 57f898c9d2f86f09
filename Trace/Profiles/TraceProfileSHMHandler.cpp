#include "Trace/Profiles/TraceProfileSHMHandler.h"

#include <algorithm>
#include <new>

#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Registry/TraceRegistry.h"
#include "Trace/Time/TraceTimer.h"
#include "platform/Process.h"
#include "platform/Thread.h"

namespace Tracing {
namespace {

// A reader gives the writer this many further 1 ms sleeps to store the ready flag.
constexpr unsigned ReadySleeps = 20;

constexpr uint64_t HeaderSize = sizeof(TraceProfileSHMHandler::HeaderData);

void ReportProfile(Severity::Type severity, const TraceMessage& message) {
    if (TraceDiagnostics::IsActive(DiagnosticCategory::Profile))
        TraceDiagnostics::GetInstance().Report(DiagnosticCategory::Profile, severity, message);
}

const char* OrEmpty(const char* text) {
    return text != nullptr ? text : "";
}

// ASCII only: names are byte strings and the match must not depend on the locale.
bool EqualsCaseInsensitive(const char* left, const char* right) {
    const auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; };
    for (;; ++left, ++right) {
        if (lower(static_cast<unsigned char>(*left)) != lower(static_cast<unsigned char>(*right)))
            return false;
        if (*left == '\0')
            return true;
    }
}

uint32_t GlobalSwitchesOf(const TraceProfile::Host* host) {
    using Host = TraceProfile::Host;
    if (host == nullptr)
        return 0;
    uint32_t switches = 0;
    if (host->GetWriteToEventLog() == Host::SwitchOn)
        switches |= TraceProfileSHMHandler::WriteToCELogOn;
    if (host->GetWriteTraceLocation() == Host::SwitchOn)
        switches |= TraceProfileSHMHandler::WriteTraceLocationOn;
    if (host->GetGlobalTraceID() != Host::SwitchNotSet)
        switches |= TraceProfileSHMHandler::GlobalTraceIDDefined;
    if (host->GetGlobalTraceID() == Host::SwitchOn)
        switches |= TraceProfileSHMHandler::GlobalTraceIDOn;
    return switches;
}

uint64_t ImageSize(const TraceProfile::SubSystem& subSystem) {
    return TraceBufferData::GetSize(std::max<uint64_t>(subSystem.GetModules().size(), 1));
}

// The header and the extent of the image area, both checked against the mapping: the data size
// another process wrote counts only as far as the mapping reaches.
struct BlockView {
    const TraceProfileSHMHandler::HeaderData* header = nullptr;
    const unsigned char* images = nullptr;
    uint64_t imagesSize = 0;
};

BlockView ViewOf(const TraceSharedMemory& memory) {
    BlockView view;
    const uint64_t mapped = memory.size();
    if (memory.constData() == nullptr || mapped < HeaderSize)
        return view;
    view.header = static_cast<const TraceProfileSHMHandler::HeaderData*>(memory.constData());
    view.images = static_cast<const unsigned char*>(memory.constData()) + HeaderSize;
    view.imagesSize = std::min<uint64_t>(view.header->GetDataSize(), mapped - HeaderSize);
    return view;
}

// Walks the images in order; the callback sees each image with its module count read once and
// already checked to fit, and returns true to stop.
template <typename Callback>
const TraceBufferData* WalkImages(const BlockView& view, Callback&& stop) {
    uint64_t position = 0;
    while (view.imagesSize - position >= TraceBufferData::SizeWithoutModuleArray) {
        const auto* image = reinterpret_cast<const TraceBufferData*>(view.images + position);
        const uint32_t moduleCount = image->GetSizeOfModuleArray();
        const uint64_t size = TraceBufferData::GetSize(moduleCount);
        if (size > view.imagesSize - position)
            return nullptr;
        if (stop(*image, moduleCount))
            return image;
        position += size;
    }
    return nullptr;
}

// Bounded by the count checked during the walk, not by the count in the image, which its writer
// may change at any time.
const TraceModuleData* FindModuleInImage(const TraceBufferData& image, uint32_t moduleCount,
                                         const char* name) {
    const TraceModuleData* modules = image.GetModuleArray();
    for (uint32_t i = 0; i < moduleCount; ++i) {
        if (modules[i].IsActivated() && modules[i].HasName(name))
            return &modules[i];
    }
    return nullptr;
}

}  // namespace

// --- HeaderData

void TraceProfileSHMHandler::HeaderData::SetUp(uint32_t dataSize, uint32_t globalSwitches) {
    m_layoutVersion = LayoutVersion;
    m_profileVersion = TraceProfile::CurrentVersion;
    m_dataSize = dataSize;
    m_globalSwitches = globalSwitches;
    GetAtomicReadyFlag().store(0, std::memory_order_seq_cst);
}

// --- Visitors

void TraceProfileSHMHandler::SHMSizeCalculator::Visit(const TraceProfile::SubSystem& subSystem,
                                                      const std::string&, const std::string&) {
    m_size += ImageSize(subSystem);
}

void TraceProfileSHMHandler::SHMConfigWriter::Visit(const TraceProfile::SubSystem& subSystem,
                                                    const std::string& hostName,
                                                    const std::string& applicationName) {
    const uint64_t size = ImageSize(subSystem);
    if (size > m_capacity - m_position) {
        m_ok = false;
        return;
    }
    unsigned char* address = m_data + m_position;
    m_position += size;

    TraceBufferData* image = nullptr;
    const auto timestampMode = static_cast<TimestampMode::Type>(subSystem.GetTimestampMode());
    if (TraceBufferData::Create(image, address, size, subSystem.GetTraceStreamSize(), 0, 0, timestampMode,
                                hostName.c_str(), "", applicationName.c_str(),
                                subSystem.GetName().c_str()) != SHMErrorCodes::Success) {
        m_ok = false;
        return;
    }
    const auto moduleCount = static_cast<uint32_t>(subSystem.GetModules().size());
    const uint32_t maxModules = subSystem.GetMaxModules();
    image->SetProfileMaxModules(maxModules != 0 ? std::max(maxModules, moduleCount) : 0);
    image->SetProfileSeverity(subSystem.GetSeverity());

    unsigned slotIndex = 0;
    for (const auto& [name, module] : subSystem.GetModules()) {
        unsigned severity = module.GetSeverity();
        if (severity == 0)
            severity = subSystem.GetSeverity();
        if (severity == 0)
            severity = m_defaultSeverity;
        // IDs from the image's own counter: a buffer copied from it keeps the counter as it is and
        // so never hands a preset module's ID to a new one. Readers take the severity bits only.
        const int32_t moduleID = image->GetAtomicNextFreeModuleID().fetch_add(1, std::memory_order_seq_cst);
        // The slots fill in order, so the next one is the first free one: no search per module,
        // which made large profiles quadratic.
        TraceModuleData* slot =
            slotIndex < image->GetSizeOfModuleArray() ? image->GetModule(slotIndex++) : nullptr;
        if (slot == nullptr || !slot->Activate(image->GetBufferID(), moduleID, name.c_str(), severity)) {
            m_ok = false;
            return;
        }
        // More than 28 flags: the rest find no slot and are left out, as in a live module.
        for (const auto& [flagName, flag] : module.GetFlags())
            slot->RegisterFlag(flagName.c_str(), flag.IsEnabled());
    }
}

// --- TraceProfileSHMHandler

TraceProfileSHMHandler& TraceProfileSHMHandler::GetInstance() {
    // Never destroyed: code running at exit may still create buffers and engines, which read the
    // profile. The name of its block goes with the others' at exit.
    static TraceProfileSHMHandler* const handler = new TraceProfileSHMHandler;
    return *handler;
}

// The registry is reached only on use, never here: diagnostics issued while the registry is set
// up may create buffers, which ask for the profile.
TraceProfileSHMHandler::TraceProfileSHMHandler() : m_memory(std::make_unique<TraceSharedMemory>()) {
    TraceConfigurationPrivate::GetInstance();  // made first so that it outlives the handler
}

TraceProfileSHMHandler::~TraceProfileSHMHandler() {
    std::lock_guard lock(m_mutex);
    if (m_memory->isAttached())
        m_memory->detach();
}

std::unique_lock<std::recursive_mutex> TraceProfileSHMHandler::LockSHM() const {
    // The registry's set-up reads the profile: it is always reached before this lock, never under it.
    TraceRegistry::GetInstance();
    return std::unique_lock(m_mutex);
}

void TraceProfileSHMHandler::GetSHMName(std::string& name, unsigned int index) {
    name = TraceMessage("%1TraceProfile_V%2_%3")
               .Add(TraceConfigurationPrivate::GetInstance().GetShmPrefix())
               .Add(TraceConfigurationPrivate::ShmVersion)
               .Add(index)
               .Format();
}

std::string TraceProfileSHMHandler::shmErrorString() const {
    return m_memory->errorString();
}

void TraceProfileSHMHandler::Detach() const {
    if (m_memory->isAttached())
        m_memory->detach();
}

TraceProfileSHMHandler::ErrorType TraceProfileSHMHandler::CreateSHM(const TraceProfile& profile) {
    const auto lock = LockSHM();
    TraceRegistry& registry = TraceRegistry::GetInstance();
    const unsigned int oldWord = registry.GetProfileIndex();
    // An index whose publication failed was never in force: take it again.
    const unsigned int index = (oldWord & ProfileIndexMask) != 0 && (oldWord & ProfilePublishedBit) == 0
                                   ? oldWord & ProfileIndexMask
                                   : (oldWord + 1) & ProfileIndexMask;

    const ErrorType result = DoCreateSHM(profile, index);
    const unsigned int newWord = result == Published ? index | ProfilePublishedBit : index;
    if (!registry.SetProfileIndex(oldWord, newWord)) {
        // Someone else published meanwhile; 0 makes the next reader look at the registry afresh.
        Detach();
        m_profileIndex = 0;
        return CreationFailed;
    }
    m_profileIndex = newWord;
    // Without a published profile nothing may stay attached: an older block would pose as current.
    if (result != Published)
        Detach();
    return result;
}

TraceProfileSHMHandler::ErrorType TraceProfileSHMHandler::DoCreateSHM(const TraceProfile& profile,
                                                                      unsigned int index) {
    SHMSizeCalculator calculator;
    profile.StartVisitor(calculator);
    const uint64_t dataSize = calculator.GetSize();
    const TraceProfile::Host* defaultHost = profile.GetHost(std::string());
    if (dataSize == 0 && (defaultHost == nullptr || !defaultHost->HasGlobalSwitches()))
        return NothingToPublish;

    std::string name;
    GetSHMName(name, index);
    std::lock_guard lock(m_mutex);
    Detach();
    m_memory->setKey(name.c_str());
    const bool fits = dataSize <= UINT32_MAX - BlockSizeReserve;
    if (!fits || !m_memory->create(dataSize + BlockSizeReserve)) {
        const std::string error =
            fits ? shmErrorString() : SHMErrorCodes::ToString(SHMErrorCodes::InvalidSize);
        TraceSharedMemory::writeErrorEventLog(
            "TraceProfile",
            TraceMessage(
                "Couldn't create the SHM for the trace profile. ProfileIndex: %1, SHM: '%2', Error: %3.")
                .Add(index)
                .Add(name)
                .Add(error)
                .Format()
                .c_str());
        return CreationFailed;
    }

    auto* header = new (m_memory->data()) HeaderData();
    header->GetLock().Lock(__FILE__, __LINE__);
    header->SetUp(static_cast<uint32_t>(dataSize), GlobalSwitchesOf(defaultHost));
    if (defaultHost != nullptr)
        TraceTimer::SetResynchronizationPeriod(defaultHost->GetResynchronizationPeriod());

    SHMConfigWriter writer(static_cast<unsigned char*>(m_memory->data()) + HeaderSize, dataSize,
                           TraceConfigurationPrivate::GetInstance().GetSeverityFilter());
    profile.StartVisitor(writer);
    header->GetLock().Unlock();
    if (!writer.IsOk()) {
        Detach();
        return WriteFailed;
    }
    // Publishes the images and the header to readers that see the flag.
    header->GetAtomicReadyFlag().store(1, std::memory_order_seq_cst);
    return Published;
}

bool TraceProfileSHMHandler::AttachToCurrentSHM() const {
    const auto lock = LockSHM();
    const unsigned int word = TraceRegistry::GetInstance().GetProfileIndex();
    if (word == m_profileIndex)
        return m_memory->isAttached();

    if (m_memory->isAttached()) {
        Detach();
        ReportProfile(Severity::Info,
                      TraceMessage("Detached from Profile SHM '%1'.").Add(m_profileIndex & ProfileIndexMask));
    }
    m_profileIndex = word;
    if ((word & ProfilePublishedBit) == 0)
        return false;

    const unsigned int index = word & ProfileIndexMask;
    std::string name;
    GetSHMName(name, index);
    ReportProfile(Severity::Info,
                  TraceMessage("Trying to attach to Profile SHM '%1' (name: %2).").Add(index).Add(name));
    m_memory->setKey(name.c_str());
    if (!m_memory->attach(TraceSharedMemory::ReadOnly)) {
        ReportProfile(Severity::Warning,
                      TraceMessage("Couldn't attach to Profile SHM '%1' (name: %2), error: %3.")
                          .Add(index)
                          .Add(name)
                          .Add(shmErrorString()));
        return false;
    }
    const BlockView view = ViewOf(*m_memory);
    for (unsigned sleeps = 0; view.header != nullptr; ++sleeps) {
        // Pairs with the writer's final store: the images are complete once it reads 1.
        if (view.header->GetAtomicReadyFlag().load(std::memory_order_seq_cst) == 1) {
            ReportProfile(
                Severity::Info,
                TraceMessage("Successfully attached to Profile SHM '%1' (name: %2).").Add(index).Add(name));
            return true;
        }
        if (sleeps == ReadySleeps)
            break;
        Platform::SleepMs(1);
    }
    Detach();
    return false;
}

bool TraceProfileSHMHandler::GetGlobalSwitches(unsigned int& switches) const {
    const auto lock = LockSHM();
    if (!AttachToCurrentSHM())
        return false;
    switches = ViewOf(*m_memory).header->GetGlobalSwitches();
    return true;
}

bool TraceProfileSHMHandler::CheckGlobalSwitch(GlobalSwitchFlagType flag) const {
    unsigned int switches = 0;
    const bool result = GetGlobalSwitches(switches) && (switches & flag) != 0;
    ReportProfile(Severity::Verbose,
                  TraceMessage("Check global flag '%1' returns %2 (bitfield in SHM: 0x%3:x).")
                      .Add(static_cast<uint32_t>(flag))
                      .Add(result)
                      .Add(switches));
    return result;
}

bool TraceProfileSHMHandler::WriteToCELog() const {
    return CheckGlobalSwitch(WriteToCELogOn);
}

bool TraceProfileSHMHandler::WriteTraceLocation() const {
    return CheckGlobalSwitch(WriteTraceLocationOn) ||
           TraceConfigurationPrivate::GetInstance().GetTraceLocation();
}

bool TraceProfileSHMHandler::GlobalTraceID() const {
    if (CheckGlobalSwitch(GlobalTraceIDDefined))
        return CheckGlobalSwitch(GlobalTraceIDOn);
    return TraceConfigurationPrivate::GetInstance().GetGlobalTraceID();
}

const TraceBufferData* TraceProfileSHMHandler::DoFindBufferInSHM(const TraceSharedMemory& memory,
                                                                 const char* application,
                                                                 const char* subsystem) {
    return WalkImages(ViewOf(memory), [&](const TraceBufferData& image, uint32_t) {
        return EqualsCaseInsensitive(image.GetApplicationName(), application) &&
               EqualsCaseInsensitive(image.GetSubSystemName(), subsystem);
    });
}

const TraceBufferData* TraceProfileSHMHandler::FindBufferInSHM(const char* application,
                                                               const char* subsystem) const {
    application = OrEmpty(application);
    subsystem = OrEmpty(subsystem);
    const auto lock = LockSHM();
    if (!AttachToCurrentSHM())
        return nullptr;
    const char* const candidates[][2] = {{application, subsystem},
                                         {application, DEFAULT_SUBSYSTEM},
                                         {DEFAULT_APPLICATION, subsystem},
                                         {DEFAULT_APPLICATION, DEFAULT_SUBSYSTEM}};
    for (const auto& [candidateApplication, candidateSubsystem] : candidates) {
        if (const TraceBufferData* image =
                DoFindBufferInSHM(*m_memory, candidateApplication, candidateSubsystem))
            return image;
    }
    return nullptr;
}

bool TraceProfileSHMHandler::FindModuleInSHM(const TraceModuleData** out, const char* application,
                                             const char* subsystem, const char* module) const {
    if (out != nullptr)
        *out = nullptr;
    application = OrEmpty(application);
    subsystem = OrEmpty(subsystem);
    const auto lock = LockSHM();
    if (!AttachToCurrentSHM())
        return false;
    const TraceModuleData* found = nullptr;
    WalkImages(ViewOf(*m_memory), [&](const TraceBufferData& image, uint32_t moduleCount) {
        if (!EqualsCaseInsensitive(image.GetApplicationName(), application) ||
            !EqualsCaseInsensitive(image.GetSubSystemName(), subsystem))
            return false;
        found = FindModuleInImage(image, moduleCount, OrEmpty(module));
        return true;
    });
    if (out != nullptr)
        *out = found;
    return found != nullptr;
}

}  // namespace Tracing
