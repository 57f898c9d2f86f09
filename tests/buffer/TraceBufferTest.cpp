#include "Trace/Buffer/TraceBuffer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "Trace/Buffer/TraceModuleData.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Profiles/TraceProfileSHMHandler.h"
#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Registry/TraceRegistry.h"
#include "platform/EventLog.h"
#include "platform/Thread.h"

using namespace Tracing;
using Tracing::Test::ShmPrefix;

namespace {

const std::string Long40 = "0123456789abcdefghijklmnopqrstuvwxyzABCD";

int64_t Pid() {
    return getpid();
}

std::unique_ptr<TraceBuffer> MakeBuffer(int32_t id, const char* subSystem, uint32_t modules = 4,
                                        uint32_t streamSize = 0) {
    auto buffer = std::make_unique<TraceBuffer>();
    EXPECT_EQ(buffer->Create(id, Pid(), TimestampMode::NotSet, "", "", "System", "App", subSystem, modules,
                             streamSize),
              TraceBuffer::Success)
        << subSystem;
    return buffer;
}

uint32_t State(const TraceModuleData* module) {
    return module->GetFilterState();
}

// The self-diagnostics write into a file of this test process; set up before anything reports.
class DiagnosticsFile {
public:
    DiagnosticsFile() : m_path("/tmp/paxl-buffer-diag-" + std::to_string(Pid()) + ".txt") {
        std::remove(m_path.c_str());
        setenv("TRACE_DIAG", "1", 1);
        setenv("TRACE_DIAG_FILE", m_path.c_str(), 1);
    }
    ~DiagnosticsFile() { std::remove(m_path.c_str()); }
    bool Contains(const std::string& text) const {
        std::ifstream in(m_path);
        std::stringstream content;
        content << in.rdbuf();
        return content.str().find(text) != std::string::npos;
    }

private:
    std::string m_path;
};

class EventLogCapture {
public:
    EventLogCapture()
        : m_previous(Platform::SetEventLogSink(
              [this](const Platform::EventLogEntry& e) { m_entries.push_back(e); })) {}
    ~EventLogCapture() { Platform::SetEventLogSink(std::move(m_previous)); }
    bool Contains(const std::string& text) const {
        for (const Platform::EventLogEntry& entry : m_entries) {
            if (entry.source == "TraceBuffer" && entry.message.find(text) != std::string::npos)
                return true;
        }
        return false;
    }

private:
    std::vector<Platform::EventLogEntry> m_entries;
    Platform::EventLogSink m_previous;
};

}  // namespace

TEST(TraceBuffer, NamesAndIDs) {
    const std::string prefix = TraceConfigurationPrivate::GetInstance().GetShmPrefix();
    EXPECT_EQ(prefix.rfind(ShmPrefix(), 0), 0u);
    std::string name;
    TraceBuffer::GetSHMName(name, 123456789012, "host:1", "Sub", false);
    EXPECT_EQ(name, prefix + "TraceBuffer_V1_123456789012_host:1_Sub");
    TraceBuffer::GetSHMName(name, 7, nullptr, nullptr, true);
    EXPECT_EQ(name, "Global\\" + prefix + "TraceBuffer_V1_7__");

    EXPECT_EQ(TraceBuffer::MaskID(-1, false), 0x3FFFFFFF);
    EXPECT_EQ(TraceBuffer::MaskID(-1, true), 0x7FFFFFFF);

    // The service bit of the ID selects the global name.
    auto service = MakeBuffer(TraceBuffer::MaskID(3, true), "Svc");
    EXPECT_EQ(service->GetBufferName(),
              "Global\\" + prefix + "TraceBuffer_V1_" + std::to_string(Pid()) + "__Svc");
    auto local = MakeBuffer(4, "Loc");
    EXPECT_EQ(local->GetBufferName(), prefix + "TraceBuffer_V1_" + std::to_string(Pid()) + "__Loc");
}

TEST(TraceBuffer, CreateResolvesSizesAndReportsFailures) {
    EventLogCapture events;
    TraceConfigurationPrivate& configuration = TraceConfigurationPrivate::GetInstance();

    const unsigned configuredSize = configuration.GetTraceStreamSize();
    configuration.SetTraceStreamSize(1000);
    auto small = MakeBuffer(1, "Small", 3, 1000);
    configuration.SetTraceStreamSize(configuredSize);
    EXPECT_EQ(small->GetRingBufferSize(), 16384u);
    EXPECT_EQ(small->GetBufferData()->GetInitializedFlag().load(), 1u);

    auto defaults = MakeBuffer(2, "Defaults", 0, 0);
    EXPECT_EQ(defaults->GetSizeOfModuleArray(), configuration.GetMaxNumberOfModules());
    EXPECT_EQ(defaults->GetRingBufferSize(), std::bit_ceil(configuration.GetTraceStreamSize()));
    EXPECT_EQ(defaults->GetTimestampMode(), configuration.GetTimestampMode());

    // Mode 0 asked for and configured stays 0: the header holds what was asked for.
    const TimestampMode::Type configuredMode = configuration.GetTimestampMode();
    configuration.SetTimestampMode(TimestampMode::NotSet);
    auto unset = MakeBuffer(3, "NoMode");
    configuration.SetTimestampMode(configuredMode);
    EXPECT_EQ(unset->GetTimestampMode(), TimestampMode::NotSet);

    EXPECT_EQ(small->Create(1, Pid(), TimestampMode::FAST, "", "", "System", "App", "Small", 3, 0),
              TraceBuffer::AlreadyCreated);
    EXPECT_TRUE(
        events.Contains("Couldn't create trace buffer: BufferID: 1, ProcessID: " + std::to_string(Pid()) +
                        ", HostName: '', SystemName: 'System', ApplicationName: 'App', SubSystemName: "
                        "'Small'. Already created."));

    // A second object for the same process and subsystem finds the name taken.
    TraceBuffer twin;
    testing::internal::CaptureStderr();
    EXPECT_EQ(twin.Create(9, Pid(), TimestampMode::FAST, "", "", "System", "App", "Small", 3, 0),
              TraceBuffer::SharedMemoryFailed);
    const std::string stderrText = testing::internal::GetCapturedStderr();
    EXPECT_NE(stderrText.find("WARNING: (" + std::to_string(Pid()) +
                              ") Couldn't create the SHM for the trace buffer. BufferID:9, PID: " +
                              std::to_string(Pid()) +
                              ", host: , subsys: Small, shmname: " + small->GetBufferName() + ", shmerror: "),
              std::string::npos)
        << stderrText;
    EXPECT_TRUE(events.Contains("Couldn't create the SHM for the trace buffer. BufferID: 9, SHM: '" +
                                small->GetBufferName() + "', Error: "));
    EXPECT_EQ(twin.RegisterModule("m", Severity::Info), nullptr);
    EXPECT_EQ(twin.WriteTrace(Trace()), TraceBuffer::StreamNotCreated);
    EXPECT_TRUE(events.Contains(
        "Couldn't write trace to trace buffer: BufferID: -1. TraceID: 0. Stream not created."));
    // The failed attempt left the other buffer alone.
    EXPECT_NE(small->RegisterModule("still there", Severity::Info), nullptr);
}

TEST(TraceBuffer, ModuleRegistrationReusesNamesAndStopsAtTheLastSlot) {
    DiagnosticsFile diagnostics;
    auto buffer = MakeBuffer(11, "Modules", 4);
    const TraceBufferData& header = *buffer->GetBufferData();

    TraceModuleData* alpha = buffer->RegisterModule("alpha", Severity::Warning);
    ASSERT_NE(alpha, nullptr);
    EXPECT_EQ(alpha->GetModuleID(), 0);
    EXPECT_EQ(State(alpha), Severity::Warning);
    const int32_t nextID = header.GetAtomicNextFreeModuleID().load();
    const uint32_t counter = buffer->GetChangeCounter();
    EXPECT_EQ(buffer->RegisterModule("alpha", Severity::Debug), alpha);
    EXPECT_EQ(header.GetAtomicNextFreeModuleID().load(), nextID);
    EXPECT_EQ(buffer->GetChangeCounter(), counter);
    EXPECT_EQ(State(alpha), Severity::Warning);

    // A name cut to 32 characters still finds its slot.
    TraceModuleData* longName = buffer->RegisterModule(Long40.c_str(), Severity::Info);
    ASSERT_NE(longName, nullptr);
    EXPECT_EQ(buffer->RegisterModule(Long40.c_str(), Severity::Info), longName);
    std::string name;
    ASSERT_TRUE(buffer->GetModuleName(longName->GetModuleID(), name));
    EXPECT_EQ(name, Long40.substr(0, 32));

    ASSERT_NE(buffer->RegisterModule("fixed", Severity::Info, 77), nullptr);
    // Severity None: the configured default.
    TraceModuleData* defaulted = buffer->RegisterModule("defaulted", Severity::None);
    ASSERT_NE(defaulted, nullptr);
    EXPECT_EQ(State(defaulted), TraceConfigurationPrivate::GetInstance().GetSeverityFilter());
    EXPECT_GT(buffer->GetChangeCounter(), counter);

    EXPECT_TRUE(buffer->IsMaxModulesReached());
    EXPECT_EQ(buffer->RegisterModule("extra", Severity::Info), nullptr);
    EXPECT_TRUE(
        diagnostics.Contains("Couldn't register a trace module: BufferID: 11. ModuleName: extra! Maximum "
                             "number of modules reached (4)."));
    EXPECT_EQ(buffer->RegisterModule("alpha", Severity::Info), alpha)
        << "known names still resolve when full";
    EXPECT_EQ(buffer->GetModuleID("fixed"), 77);
    EXPECT_EQ(buffer->GetModuleID("extra"), -1);
    // Browse replaces stale entries.
    std::vector<TraceModuleInfo> modules{TraceModuleInfo()};
    buffer->Browse(modules);
    ASSERT_EQ(modules.size(), 4u);
    EXPECT_EQ(modules[2].ModuleID, 77);
}

TEST(TraceBuffer, FlagsAndFiltersMoveTheChangeCounterOnlyOnChange) {
    DiagnosticsFile diagnostics;
    auto buffer = MakeBuffer(12, "Filters", 2);
    const int32_t id = buffer->RegisterModule("m", Severity::Info)->GetModuleID();
    const TraceModuleData* module = buffer->GetBufferData()->FindModule(id);

    uint32_t counter = buffer->GetChangeCounter();
    EXPECT_EQ(buffer->RegisterFlag(id, "IO", false), 4);
    EXPECT_EQ(buffer->GetChangeCounter(), ++counter);
    EXPECT_EQ(buffer->RegisterFlag(id, "IO", true), 4);
    EXPECT_EQ(buffer->GetChangeCounter(), counter);
    EXPECT_EQ(buffer->RegisterFlag(id, "Net", true), 5);
    EXPECT_TRUE(module->IsFlagActive(5));
    EXPECT_EQ(buffer->RegisterFlag(id, "Deep", false, 20), 20);
    EXPECT_EQ(buffer->RegisterFlag(99, "x", true), 0);
    EXPECT_EQ(buffer->RegisterFlag(id, nullptr, true), 0);
    for (int i = 0; i < 25; ++i)
        EXPECT_NE(buffer->RegisterFlag(id, ("f" + std::to_string(i)).c_str(), false), 0);
    EXPECT_EQ(buffer->RegisterFlag(id, "one too many", false), 0);
    EXPECT_TRUE(
        diagnostics.Contains("Couldn't register a trace flag: BufferID: 12. ModuleID: " + std::to_string(id) +
                             ", FlagName: one too many! Maximum number of flags reached (28)."));

    counter = buffer->GetChangeCounter();
    EXPECT_FALSE(buffer->SetSeverity(id, Severity::Info));
    EXPECT_TRUE(buffer->SetSeverity(id, Severity::Debug));
    EXPECT_EQ(buffer->GetChangeCounter(), ++counter);
    EXPECT_FALSE(buffer->SetFlag(id, true, 5)) << "already on";
    EXPECT_TRUE(buffer->SetFlag(id, true, 4));
    EXPECT_EQ(buffer->GetChangeCounter(), ++counter);
    EXPECT_TRUE(buffer->SetSeverityMask(id, Severity::Error | 1u << 5 | 1u << 31));
    EXPECT_EQ(buffer->GetChangeCounter(), ++counter);
    uint32_t state = 0;
    ASSERT_EQ(buffer->GetFilterState(id, state), TraceBuffer::Success);
    EXPECT_EQ(state, Severity::Error | 1u << 5 | 1u << 31) << "bit 31 is registered (f-flags fill it)";
    EXPECT_FALSE(buffer->SetSeverityMask(id, state | 8)) << "bit 3 dropped: no change";
    EXPECT_FALSE(buffer->SetSeverity(99, Severity::Call));
    EXPECT_EQ(buffer->GetChangeCounter(), counter);
    EXPECT_EQ(buffer->GetFilterState(99, state), TraceBuffer::InvalidModuleID);
    EXPECT_TRUE(
        diagnostics.Contains("Couldn't get filter state: BufferID: 12. ModuleID: 99. Invalid module id."));
}

namespace {

// Preset for the subsystem "Preset" of "App": a 64 KiB ring, 4 modules, severity Verbose, and the
// module "first" at Error with the flag "on" switched on and "off" switched off.
TraceProfile PresetProfile() {
    TraceProfile profile;
    TraceProfile::SubSystem* subSystem =
        profile.CreateHost("")->CreateApplication("App")->CreateSubSystem("Preset");
    subSystem->SetTraceStreamSize(65536);
    subSystem->SetMaxModules(4);
    subSystem->SetSeverity(Severity::Verbose);
    TraceProfile::Module* first = subSystem->CreateModule("first");
    first->SetSeverity(Severity::Error);
    first->CreateFlag("on")->SetEnabled(true);
    first->CreateFlag("off");
    return profile;
}

bool HasPresetFilters(const TraceModuleInfo& first) {
    const TraceFlagInfo* on = first.FindFlag("on");
    const TraceFlagInfo* off = first.FindFlag("off");
    return first.SeverityValue == Severity::Error && on != nullptr && on->Active && off != nullptr &&
           !off->Active;
}

}  // namespace

// Attaches the producer's buffer, checks what the profile preset, announces itself by registering a
// module, and waits for the producer's filter change.
PAXLTRACE_CHILD_ROLE(AttachPresetBuffer) {
    TraceBuffer buffer;
    if (buffer.Attach(std::stoi(args.at(0)), std::stoll(args.at(1)), "", "Preset") != TraceBuffer::Success)
        return 10;
    if (buffer.GetRingBufferSize() != 65536 || buffer.GetSizeOfModuleArray() != 4 ||
        buffer.GetProcessID() != std::stoll(args.at(1)) ||
        buffer.GetCreatorProcessID() != std::stoll(args.at(1)))
        return 11;
    TraceModuleInfo first;
    TraceModuleInfo fresh;
    if (!buffer.GetModuleInfo("first", first) || !HasPresetFilters(first))
        return 12;
    if (!buffer.GetModuleInfo("fresh", fresh) || fresh.SeverityValue != Severity::Verbose)
        return 13;
    const uint32_t seen = buffer.GetChangeCounter();
    if (buffer.RegisterModule("consumer", Severity::Info) == nullptr)
        return 14;
    const bool changed = Tracing::Test::WaitFor(
        [&] {
            uint32_t state = 0;
            return buffer.GetFilterState(first.ModuleID, state) == TraceBuffer::Success &&
                   (state & Severity::Mask) == Severity::Debug;
        },
        20000);
    if (!changed)
        return 15;
    return buffer.GetChangeCounter() >= seen + 2 ? 0 : 16;
}

TEST(TraceBuffer, PublishedProfilePresetsABufferThatAnotherProcessAttaches) {
    ASSERT_EQ(TraceProfileSHMHandler::GetInstance().CreateSHM(PresetProfile()),
              TraceProfileSHMHandler::Published);
    // Both arguments are smaller than the preset.
    auto buffer = MakeBuffer(21, "Preset", 2, 1000);
    EXPECT_EQ(buffer->GetRingBufferSize(), 65536u);
    EXPECT_EQ(buffer->GetSizeOfModuleArray(), 4u);

    const int32_t firstID = buffer->GetModuleID("first");
    ASSERT_NE(firstID, -1) << "preset modules exist before anyone registers them";
    TraceModuleData* first = buffer->RegisterModule("first", Severity::Info);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->GetModuleID(), firstID);
    EXPECT_EQ(first->GetBufferID(), 21);
    TraceModuleInfo info;
    ASSERT_TRUE(buffer->GetModuleInfo(firstID, info));
    EXPECT_TRUE(HasPresetFilters(info));
    EXPECT_EQ(buffer->RegisterFlag(firstID, "on", false), info.FindFlag("on")->BitNo);
    EXPECT_TRUE(first->IsFlagActive(info.FindFlag("on")->BitNo));

    // Not in the profile: the buffer's preset severity wins over the argument.
    TraceModuleData* fresh = buffer->RegisterModule("fresh", Severity::Info);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(State(fresh), Severity::Verbose);
    EXPECT_NE(fresh->GetModuleID(), firstID) << "module IDs stay unique next to preset modules";

    const pid_t child = Tracing::Test::SpawnChild(
        "AttachPresetBuffer", {std::to_string(buffer->GetBufferID()), std::to_string(Pid())});
    EXPECT_TRUE(Tracing::Test::WaitFor([&] { return buffer->GetModuleID("consumer") != -1; }, 20000));
    EXPECT_TRUE(buffer->SetSeverity(firstID, Severity::Debug));
    EXPECT_EQ(Tracing::Test::WaitChild(child), 0);
    EXPECT_EQ(buffer->GetBufferData()->GetConsumerAttached().load(), 1u);
}

TEST(TraceBuffer, ProfilePublishedLaterReachesNewModulesFlagsAndApplyDefaultProfile) {
    auto buffer = MakeBuffer(22, "Late", 4);
    const int32_t early = buffer->RegisterModule("early", Severity::Info)->GetModuleID();
    const uint8_t traceBit = buffer->RegisterFlag(early, "trace", false);

    TraceProfile profile;
    TraceProfile::SubSystem* subSystem =
        profile.CreateHost("")->CreateApplication("App")->CreateSubSystem("Late");
    TraceProfile::Module* earlyPreset = subSystem->CreateModule("early");
    earlyPreset->SetSeverity(Severity::Debug);
    earlyPreset->CreateFlag("trace")->SetEnabled(true);
    TraceProfile::Module* latePreset = subSystem->CreateModule("late");
    latePreset->SetSeverity(Severity::Warning);
    latePreset->CreateFlag("f")->SetEnabled(true);
    latePreset->CreateFlag("quiet");
    ASSERT_EQ(TraceProfileSHMHandler::GetInstance().CreateSHM(profile), TraceProfileSHMHandler::Published);

    TraceModuleData* late = buffer->RegisterModule("late", Severity::Info);
    ASSERT_NE(late, nullptr);
    EXPECT_EQ(State(late), Severity::Warning);
    const int32_t lateID = late->GetModuleID();
    EXPECT_TRUE(late->IsFlagActive(buffer->RegisterFlag(lateID, "f", false))) << "the profile switches it on";
    EXPECT_FALSE(late->IsFlagActive(buffer->RegisterFlag(lateID, "quiet", true)))
        << "the profile switches it off";
    EXPECT_TRUE(late->IsFlagActive(buffer->RegisterFlag(lateID, "g", true)))
        << "not in the profile: the argument";

    const TraceModuleData* earlySlot = buffer->GetBufferData()->FindModule(early);
    EXPECT_EQ(State(earlySlot), Severity::Info) << "registered before: untouched until applied";
    const uint32_t counter = buffer->GetChangeCounter();
    buffer->ApplyDefaultProfile();
    EXPECT_EQ(State(earlySlot), Severity::Debug | 1u << traceBit);
    EXPECT_EQ(buffer->GetChangeCounter(), counter + 1);
    buffer->ApplyDefaultProfile();
    EXPECT_EQ(buffer->GetChangeCounter(), counter + 1);
}

TEST(TraceBuffer, InfoAndProfileDescribeTheBuffer) {
    auto buffer = MakeBuffer(61, "Described", 3, 1000);
    const int32_t net = buffer->RegisterModule("net", Severity::Warning)->GetModuleID();
    buffer->RegisterFlag(net, "tx", true);
    buffer->RegisterFlag(net, "rx", false);
    buffer->RegisterModule("disk", Severity::Debug);

    TraceBufferInfo info;
    buffer->GetInfo(info);
    EXPECT_EQ(info.BufferName, buffer->GetBufferName());
    EXPECT_EQ(info.ModuleCount, 2u) << "active slots only";
    TraceBufferInfo empty;
    TraceBuffer().GetInfo(empty);
    EXPECT_EQ(empty, TraceBufferInfo());

    TraceProfile profile;
    buffer->AddToProfile(profile);
    TraceProfile::SubSystem subSystem;
    ASSERT_TRUE(profile.FindSubSystem(subSystem, "", "App", "Described"));
    EXPECT_EQ(subSystem.GetTraceStreamSize(), info.RingBufferSize);
    EXPECT_EQ(subSystem.GetMaxModules(), 3u);
    TraceProfile::Module module;
    ASSERT_TRUE(subSystem.FindModule(module, "net"));
    EXPECT_EQ(module.GetSeverity(), Severity::Warning);
    ASSERT_EQ(module.GetFlags().size(), 2u);
    EXPECT_TRUE(module.GetFlags().at("tx").IsEnabled());
    EXPECT_FALSE(module.GetFlags().at("rx").IsEnabled());
    ASSERT_TRUE(subSystem.FindModule(module, "disk"));
    EXPECT_EQ(module.GetSeverity(), Severity::Debug);
}

TEST(TraceBuffer, TracesReadBackAndWrittenAgainAreEqual) {
    auto buffer = MakeBuffer(41, "Ring", 2);
    const int32_t id = buffer->RegisterModule("mod", Severity::Info)->GetModuleID();
    ASSERT_EQ(buffer->RegisterFlag(id, "IO", true), 4);
    TraceStream* stream = buffer->GetTraceStream();
    ASSERT_NE(stream, nullptr);

    TraceMessage parameters;
    parameters.Add(int32_t{-5}).Add("text").Add(2.5);
    stream->Write(0, id, 0x4d2, 0, Severity::Info | 1u << 4 | 1u << 6, "file.cpp", 42, "value %1 %2 %3",
                  parameters.GetParameterCount(), parameters.GetParameters());
    const uint64_t binaryID = 0x1122334455667788;
    stream->Write(0, id, 0x4d2, 0, Severity::Error, nullptr, 0, binaryID, 0, nullptr);

    TraceReaderInfo cursor;
    cursor.AttachBuffer = true;
    ASSERT_EQ(buffer->ConnectReader(cursor, 0), TraceStream::Ok);
    EXPECT_TRUE(buffer->AreNewTracesAvailable(cursor));
    std::vector<std::unique_ptr<Trace>> first;
    bool overflow = true;
    buffer->Read(cursor, first, overflow, 0);
    ASSERT_EQ(first.size(), 2u);
    EXPECT_FALSE(overflow);
    const Trace& text = *first[0];
    EXPECT_EQ(text.GetFormattedMessage(), "value -5 text 2.5");
    EXPECT_EQ(text.GetModuleName(), "mod");
    EXPECT_EQ(text.GetFlags(), "IO, <Unknown flag 6>");
    EXPECT_EQ(text.GetThreadIDText(), std::to_string(Pid()) + " (0x4d2)");
    EXPECT_EQ(first[1]->GetBinaryTraceID(), binaryID);

    // Written into a buffer of the same ID and process, the traces come back unchanged.
    auto copy = MakeBuffer(41, "RingCopy", 1);
    ASSERT_EQ(copy->WriteTraces(first), TraceBuffer::Success);
    TraceReaderInfo copyCursor;
    copyCursor.AttachBuffer = true;
    ASSERT_EQ(copy->ConnectReader(copyCursor, 0), TraceStream::Ok);
    std::vector<std::unique_ptr<Trace>> again;
    copy->Read(copyCursor, again, overflow, 0);
    ASSERT_EQ(again.size(), 2u);
    EXPECT_TRUE(*again[0] == text);
    EXPECT_TRUE(*again[1] == *first[1]);
}

TEST(TraceBuffer, SeverityTextsNameTheFlagsOfTheProducerBuffer) {
    TraceBuffer::ErrorType error = TraceBuffer::SharedMemoryFailed;
    TraceBuffer* buffer =
        TraceRegistry::GetInstance().RegisterBuffer("Texts", "mod", TimestampMode::NotSet, 2, 0, &error);
    ASSERT_NE(buffer, nullptr);
    const int32_t id = buffer->RegisterModule("mod", Severity::Info)->GetModuleID();
    ASSERT_EQ(buffer->RegisterFlag(id, "IO", true), 4);
    const int bufferID = buffer->GetBufferID();

    std::string text;
    Severity::ToString(text, Severity::Info | 1u << 4 | 1u << 6, bufferID, id);
    EXPECT_EQ(text, "Info | IO, <Unknown flag 6>");
    Severity::ToString(text, Severity::Info | 8, bufferID, id);
    EXPECT_EQ(text, "Info") << "bit 3 is never shown";
    Severity::ToString(text, Severity::Error | 1u << 4, bufferID + 1000, id);
    EXPECT_EQ(text, "Error");

    Severity::GetFlagsAsString(text, 1u << 4 | 1u << 31, *buffer, id);
    EXPECT_EQ(text, "IO, <Unknown flag 31>");
    Severity::GetFlagsAsString(text, 1u << 4, *buffer, id + 1);
    EXPECT_EQ(text, "<Unknown flag 4>");
    text = "stale";
    Severity::GetFlagsAsString(text, 1u << 4, -1, id);
    EXPECT_EQ(text, "");
}

TEST(TraceBuffer, WaitBeforeCloseKeepsAYoungBufferUntilTheCloseWaitHasPassed) {
    DiagnosticsFile diagnostics;
    TraceConfigurationPrivate::GetInstance().SetBufferCloseWaitMs(150);
    const auto start = std::chrono::steady_clock::now();
    auto young = MakeBuffer(31, "Young");
    Platform::SleepMs(20);
    young->WaitBeforeClose();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
    EXPECT_TRUE(diagnostics.Contains(" ms before unregistering the buffer: BufferID: 31."));

    auto old = MakeBuffer(32, "Old");
    Platform::SleepMs(1000);
    old->WaitBeforeClose();
    EXPECT_FALSE(diagnostics.Contains("BufferID: 32."));
}

namespace {

constexpr int64_t FakeProducer = 999999937;
constexpr uint32_t ModuleCountOffset = 208;
constexpr uint32_t RingSizeOffset = 72;

// A buffer laid out as a producer would, without the buffer object: one slot and a 16 KiB ring.
struct FakeBuffer {
    explicit FakeBuffer(const std::string& subSystem, uint64_t size = 0) {
        std::string name;
        TraceBuffer::GetSHMName(name, FakeProducer, "", subSystem.c_str(), false);
        memory.setKey(name.c_str());
        const uint64_t full = TraceBufferData::GetSize(1) + TraceStream::GetSize(16384);
        EXPECT_TRUE(memory.create(size != 0 ? size : full));
        if (size != 0)
            return;
        EXPECT_EQ(TraceBufferData::Create(header, memory.data(), TraceBufferData::GetSize(1), 16384, 50,
                                          FakeProducer, TimestampMode::FAST, "", "System", "App",
                                          subSystem.c_str()),
                  SHMErrorCodes::Success);
        header->GetInitializedFlag().store(1);
    }
    void Poke(uint32_t offset, uint32_t value) {
        std::memcpy(static_cast<char*>(memory.data()) + offset, &value, sizeof value);
    }

    TraceSharedMemory memory;
    TraceBufferData* header = nullptr;
};

}  // namespace

TEST(TraceBuffer, AttachRefusesHeadersThatDoNotFitTheirMapping) {
    DiagnosticsFile diagnostics;
    struct Case {
        const char* subSystem;
        std::function<void(FakeBuffer&)> spoil;
    };
    const Case cases[] = {
        {"ModulesBeyondMapping", [](FakeBuffer& b) { b.Poke(ModuleCountOffset, 100000); }},
        {"ModulesMax", [](FakeBuffer& b) { b.Poke(ModuleCountOffset, UINT32_MAX); }},
        {"ModulesNone", [](FakeBuffer& b) { b.Poke(ModuleCountOffset, 0); }},
        {"RingBeyondMapping", [](FakeBuffer& b) { b.Poke(RingSizeOffset, 1u << 30); }},
        {"RingNotPowerOfTwo", [](FakeBuffer& b) { b.Poke(RingSizeOffset, 12288); }},
        {"RingTiny", [](FakeBuffer& b) { b.Poke(RingSizeOffset, 8); }},
        {"Version", [](FakeBuffer& b) { b.Poke(0, 2); }},
        {"NeverInitialized", [](FakeBuffer& b) { b.header->GetInitializedFlag().store(0); }},
    };
    for (const Case& c : cases) {
        FakeBuffer fake(c.subSystem);
        c.spoil(fake);
        TraceBuffer consumer;
        EXPECT_EQ(consumer.Attach(50, FakeProducer, "", c.subSystem), TraceBuffer::SharedMemoryFailed)
            << c.subSystem;
        EXPECT_EQ(consumer.GetTraceStream(), nullptr) << c.subSystem;
    }
    FakeBuffer tiny("Tiny", 100);
    TraceBuffer tinyConsumer;
    EXPECT_EQ(tinyConsumer.Attach(50, FakeProducer, "", "Tiny"), TraceBuffer::SharedMemoryFailed);
    EXPECT_TRUE(
        diagnostics.Contains("Couldn't create the trace buffer from the attached SHM. BufferID: 50, SHM: '"));
    TraceBuffer missing;
    EXPECT_EQ(missing.Attach(51, FakeProducer, "", "Missing"), TraceBuffer::SharedMemoryFailed);
    EXPECT_TRUE(diagnostics.Contains("Couldn't attach to SHM of trace buffer. BufferID: 51, SHM: '"));

    // A header that grows its module count after the attach is still walked only as far as it fit.
    FakeBuffer fake("GrowsLater");
    TraceBuffer consumer;
    ASSERT_EQ(consumer.Attach(50, FakeProducer, "", "GrowsLater"), TraceBuffer::Success);
    EXPECT_EQ(consumer.GetBufferData()->GetConsumerAttached().load(), 1u);
    EXPECT_EQ(consumer.Attach(50, FakeProducer, "", "GrowsLater"), TraceBuffer::AlreadyCreated);
    fake.Poke(ModuleCountOffset, 1u << 30);
    ASSERT_NE(consumer.RegisterModule("one", Severity::Info), nullptr);
    EXPECT_EQ(consumer.RegisterModule("two", Severity::Info), nullptr);
    EXPECT_TRUE(consumer.IsMaxModulesReached());
    std::vector<TraceModuleInfo> modules;
    consumer.Browse(modules);
    EXPECT_EQ(modules.size(), 1u);
}
