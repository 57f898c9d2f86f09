#include "Trace/Profiles/TraceProfileSHMHandler.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "TestSupport.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Registry/TraceRegistry.h"
#include "Trace/Time/TraceTimer.h"
#include "platform/EventLog.h"
#include "platform/SharedMemory.h"

using namespace Tracing;
using namespace Tracing::Test;

namespace {

constexpr unsigned Published = TraceProfileSHMHandler::ProfilePublishedBit;

TraceProfileSHMHandler& Handler() {
    return TraceProfileSHMHandler::GetInstance();
}

unsigned ProfileWord() {
    return TraceRegistry::GetInstance().GetProfileIndex();
}

std::string ProfileKey(unsigned index) {
    return TraceConfigurationPrivate::GetInstance().GetShmPrefix() + "TraceProfile_V1_" +
           std::to_string(index);
}

template <typename T>
T Read(const TraceSharedMemory& memory, size_t offset) {
    T value;
    std::memcpy(&value, static_cast<const unsigned char*>(memory.constData()) + offset, sizeof value);
    return value;
}

template <typename T>
void Write(TraceSharedMemory& memory, size_t offset, T value) {
    std::memcpy(static_cast<unsigned char*>(memory.data()) + offset, &value, sizeof value);
}

// One application and subsystem with a ring size and two modules, "first" with flags.
TraceProfile SimpleProfile(uint32_t ringSize) {
    TraceProfile profile;
    TraceProfile::SubSystem* subSystem =
        profile.CreateHost("host")->CreateApplication("App")->CreateSubSystem("Sub");
    subSystem->SetTraceStreamSize(ringSize);
    subSystem->SetSeverity(5);
    TraceProfile::Module* first = subSystem->CreateModule("first");
    first->CreateFlag("on")->SetEnabled(true);
    first->CreateFlag("off");
    subSystem->CreateModule("second")->SetSeverity(2);
    return profile;
}

uint32_t FoundRingSize(const char* application, const char* subsystem) {
    const auto lock = Handler().LockSHM();
    const TraceBufferData* image = Handler().FindBufferInSHM(application, subsystem);
    return image != nullptr ? image->GetRingBufferSize() : 0;
}

std::string SignalPath(const std::string& name) {
    return "/tmp/" + ShmPrefix() + "-" + name;
}

bool FileExists(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

void Touch(const std::string& path) {
    std::ofstream(path).put('x');
}

}  // namespace

// args: application, subsystem, ring size, module count, severity, module, module filter state.
// Exit code 1: no image; 2: the image differs; 3: no module; 4: the module differs.
PAXLTRACE_CHILD_ROLE(ExpectImage) {
    const auto lock = Handler().LockSHM();
    const TraceBufferData* image = Handler().FindBufferInSHM(args[0].c_str(), args[1].c_str());
    const TraceModuleData* module = nullptr;
    if (image == nullptr)
        return 1;
    if (image->GetRingBufferSize() != std::stoul(args[2]) ||
        image->GetSizeOfModuleArray() != std::stoul(args[3]) ||
        image->GetProfileSeverity() != std::stoul(args[4]))
        return 2;
    if (!Handler().FindModuleInSHM(&module, args[0].c_str(), args[1].c_str(), args[5].c_str()))
        return 3;
    return module->GetFilterState() == std::stoul(args[6]) ? 0 : 4;
}

PAXLTRACE_CHILD_ROLE(WatchForReplacement) {
    // args: first ring size, second ring size, signal file
    if (!WaitFor([&] { return FoundRingSize("App", "Sub") == std::stoul(args[0]); }, 10000))
        return 1;
    Touch(args[2]);
    if (!WaitFor([&] { return FoundRingSize("App", "Sub") == std::stoul(args[1]); }, 10000))
        return 2;
    return 0;
}

PAXLTRACE_CHILD_ROLE(PublishAndHold) {
    // args: ring size, release signal file
    if (Handler().CreateSHM(SimpleProfile(std::stoul(args[0]))) != TraceProfileSHMHandler::Published)
        return 1;
    return WaitFor([&] { return FileExists(args[1]); }, 10000) ? 0 : 2;
}

TEST(TraceProfileSHMHandler, NothingToPublishLeavesNoProfileInForce) {
    TraceProfile profile;
    EXPECT_EQ(Handler().CreateSHM(profile), TraceProfileSHMHandler::NothingToPublish);
    EXPECT_EQ(ProfileWord(), 1u);
    EXPECT_FALSE(ShmExists(ProfileKey(1)));

    // A default host whose switches are all unset and a host without subsystems add nothing.
    profile.CreateHost("")->SetResynchronizationPeriod(1234);
    profile.CreateHost("h")->CreateApplication("a");
    EXPECT_EQ(Handler().CreateSHM(profile), TraceProfileSHMHandler::NothingToPublish);
    EXPECT_EQ(ProfileWord(), 1u);

    // After a real publication an empty one withdraws it.
    ASSERT_EQ(Handler().CreateSHM(SimpleProfile(65536)), TraceProfileSHMHandler::Published);
    EXPECT_EQ(ProfileWord(), 1u | Published);
    EXPECT_EQ(FoundRingSize("App", "Sub"), 65536u);
    EXPECT_EQ(Handler().CreateSHM(TraceProfile()), TraceProfileSHMHandler::NothingToPublish);
    EXPECT_EQ(ProfileWord(), 2u);
    EXPECT_FALSE(ShmExists(ProfileKey(1)));
    EXPECT_FALSE(Handler().FindModuleInSHM(nullptr, "App", "Sub", "first"));
}

TEST(TraceProfileSHMHandler, IndexesAdvanceAndAFailedIndexIsReused) {
    std::vector<Platform::EventLogEntry> log;
    Platform::SetEventLogSink([&](const auto& entry) { log.push_back(entry); });
    ASSERT_EQ(Handler().CreateSHM(SimpleProfile(16384)), TraceProfileSHMHandler::Published);
    EXPECT_EQ(ProfileWord(), 1u | Published);
    ASSERT_EQ(Handler().CreateSHM(SimpleProfile(32768)), TraceProfileSHMHandler::Published);
    EXPECT_EQ(ProfileWord(), 2u | Published);
    // The replaced block had no other holder and is gone.
    EXPECT_FALSE(ShmExists(ProfileKey(1)));
    EXPECT_TRUE(ShmExists(ProfileKey(2)));

    // Someone holds the name of the next index: creation fails and leaves the index unpublished.
    auto blocker = std::make_unique<TraceSharedMemory>(ProfileKey(3).c_str());
    ASSERT_TRUE(blocker->create(4096));
    EXPECT_EQ(Handler().CreateSHM(SimpleProfile(65536)), TraceProfileSHMHandler::CreationFailed);
    EXPECT_EQ(ProfileWord(), 3u);
    EXPECT_EQ(FoundRingSize("App", "Sub"), 0u);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].source, "TraceProfile");
    EXPECT_EQ(log[0].message, "Couldn't create the SHM for the trace profile. ProfileIndex: 3, SHM: '" +
                                  ProfileKey(3) + "', Error: already exists.");
    blocker.reset();

    ASSERT_EQ(Handler().CreateSHM(SimpleProfile(65536)), TraceProfileSHMHandler::Published);
    EXPECT_EQ(ProfileWord(), 3u | Published);
    EXPECT_EQ(FoundRingSize("App", "Sub"), 65536u);

    // A profile whose image cannot be laid out (ring above 2^31) fails to write, also reusable.
    EXPECT_EQ(Handler().CreateSHM(SimpleProfile(0x80000001u)), TraceProfileSHMHandler::WriteFailed);
    EXPECT_EQ(ProfileWord(), 4u);
    EXPECT_FALSE(ShmExists(ProfileKey(4)));
    EXPECT_FALSE(ShmExists(ProfileKey(3)));
    EXPECT_EQ(Handler().CreateSHM(SimpleProfile(8192)), TraceProfileSHMHandler::Published);
    EXPECT_EQ(ProfileWord(), 4u | Published);
    Platform::SetEventLogSink(nullptr);
}

TEST(TraceProfileSHMHandler, BlockHoldsHeaderAndImagesInVisitOrder) {
    TraceProfile profile;
    TraceProfile::Application* application = profile.CreateHost("H")->CreateApplication("App");
    TraceProfile::SubSystem* sub = application->CreateSubSystem("Sub");
    sub->SetSeverity(5);
    sub->SetMaxModules(1);
    sub->SetTraceStreamSize(3000);
    sub->SetTimestampMode(7);  // values are kept as given, known or not
    TraceProfile::Module* alpha = sub->CreateModule("alpha");
    alpha->CreateFlag("f1")->SetEnabled(true);
    alpha->CreateFlag("f2");
    sub->CreateModule("beta")->SetSeverity(12);
    sub->CreateModule("gamma");
    application->CreateSubSystem("NoModules");
    application->CreateSubSystem("Plain")->CreateModule("m");
    ASSERT_EQ(Handler().CreateSHM(profile), TraceProfileSHMHandler::Published);

    TraceSharedMemory block(ProfileKey(1).c_str());
    ASSERT_TRUE(block.attach(TraceSharedMemory::ReadOnly));
    // Subsystems in byte order: "NoModules", "Plain", "Sub".
    const uint64_t dataSize = 2 * TraceBufferData::GetSize(1) + TraceBufferData::GetSize(3);
    EXPECT_EQ(block.size(), MappedSize(dataSize + 1256));
    EXPECT_EQ(Read<uint16_t>(block, 0), 1u);
    EXPECT_EQ(Read<uint16_t>(block, 2), 203u);
    EXPECT_EQ(Read<uint32_t>(block, 4), dataSize);
    EXPECT_EQ(Read<uint32_t>(block, 8), 0u);
    EXPECT_EQ(Read<uint32_t>(block, 12), 1u);
    EXPECT_EQ(Read<uint32_t>(block, 16) & 1, 0u);  // the writer released its lock
    const auto* images = static_cast<const unsigned char*>(block.constData()) + 40;
    const auto* noModules = reinterpret_cast<const TraceBufferData*>(images);
    const auto* plain = reinterpret_cast<const TraceBufferData*>(images + TraceBufferData::GetSize(1));
    EXPECT_STREQ(noModules->GetSubSystemName(), "NoModules");
    EXPECT_EQ(noModules->GetProfileMaxModules(), 0u);
    // Neither module nor subsystem set a severity: the configured one applies.
    ASSERT_NE(plain->FindModule("m"), nullptr);
    EXPECT_EQ(plain->FindModule("m")->GetFilterState(),
              static_cast<uint32_t>(TraceConfigurationPrivate::GetInstance().GetSeverityFilter()));

    const auto lock = Handler().LockSHM();
    const TraceBufferData* image = Handler().FindBufferInSHM("app", "SUB");
    ASSERT_NE(image, nullptr);
    EXPECT_STREQ(reinterpret_cast<const TraceBufferData*>(images + 2 * TraceBufferData::GetSize(1))
                     ->GetSubSystemName(),
                 "Sub");
    EXPECT_EQ(image->GetRingBufferSize(), 4096u);
    EXPECT_EQ(image->GetSizeOfModuleArray(), 3u);
    EXPECT_EQ(image->GetProfileSeverity(), 5u);
    EXPECT_EQ(image->GetProfileMaxModules(), 3u);  // raised to the modules it holds
    EXPECT_EQ(image->GetTimestampMode(), 7u);
    // Module IDs come from the image's counter, which a buffer copied from it carries on.
    EXPECT_EQ(image->GetAtomicNextFreeModuleID().load(), 3);

    const TraceModuleData* module = nullptr;
    ASSERT_TRUE(Handler().FindModuleInSHM(&module, "App", "Sub", "alpha"));
    EXPECT_EQ(module->GetFilterState(), 5u | (1u << 4));  // the subsystem's severity, "f1" on
    EXPECT_TRUE(module->IsFlagRegistered(5));
    ASSERT_TRUE(Handler().FindModuleInSHM(&module, "App", "Sub", "beta"));
    EXPECT_EQ(module->GetFilterState(), 12u);
    EXPECT_EQ(module->GetModuleID(), 1);
}

TEST(TraceProfileSHMHandler, BufferLookupFallsBackInOrderModuleLookupNever) {
    TraceProfile profile;
    TraceProfile::Host* host = profile.CreateHost("");
    const std::vector<std::pair<std::string, std::string>> entries = {
        {"App", "Sub"}, {"App", ""}, {"", "Sub"}, {"", ""}};
    uint32_t severity = 1;
    for (const auto& [application, subsystem] : entries)
        host->CreateApplication(application)->CreateSubSystem(subsystem)->SetSeverity(severity++);
    host->GetApplication("")->GetSubSystem("")->CreateModule("Module");

    auto foundSeverity = [&](const char* application, const char* subsystem) -> uint32_t {
        const auto lock = Handler().LockSHM();
        const TraceBufferData* image = Handler().FindBufferInSHM(application, subsystem);
        return image != nullptr ? image->GetProfileSeverity() : 0;
    };
    ASSERT_EQ(Handler().CreateSHM(profile), TraceProfileSHMHandler::Published);
    EXPECT_EQ(foundSeverity("aPP", "sUB"), 1u);
    EXPECT_EQ(foundSeverity("App", "Other"), 2u);
    EXPECT_EQ(foundSeverity("Other", "Sub"), 3u);
    EXPECT_EQ(foundSeverity("Other", "Other"), 4u);
    EXPECT_EQ(foundSeverity(nullptr, nullptr), 4u);

    // Each fall-back is taken only when the ones before it are missing.
    host->GetApplication("App")->DeleteSubSystem("");
    ASSERT_EQ(Handler().CreateSHM(profile), TraceProfileSHMHandler::Published);
    EXPECT_EQ(foundSeverity("App", "Other"), 4u);
    EXPECT_EQ(foundSeverity("App", "Sub"), 1u);
    host->DeleteApplication("");
    ASSERT_EQ(Handler().CreateSHM(profile), TraceProfileSHMHandler::Published);
    EXPECT_EQ(foundSeverity("Other", "Sub"), 0u);
    EXPECT_EQ(foundSeverity("App", "Other"), 0u);

    // Modules only in the exact image, found by their exact name.
    host->CreateApplication("")->CreateSubSystem("")->CreateModule("Module");
    ASSERT_EQ(Handler().CreateSHM(profile), TraceProfileSHMHandler::Published);
    const TraceModuleData* module = reinterpret_cast<const TraceModuleData*>(1);
    EXPECT_FALSE(Handler().FindModuleInSHM(&module, "App", "Unknown", "Module"));
    EXPECT_EQ(module, nullptr);
    EXPECT_FALSE(Handler().FindModuleInSHM(&module, "", "", "module"));
    EXPECT_TRUE(Handler().FindModuleInSHM(&module, "", "", "Module"));
    EXPECT_STREQ(module->GetModuleName(), "Module");
}

TEST(TraceProfileSHMHandler, GlobalSwitchesComeFromTheDefaultHost) {
    auto& configuration = TraceConfigurationPrivate::GetInstance();
    // Nothing published: the configuration decides.
    EXPECT_FALSE(Handler().WriteToCELog());
    EXPECT_EQ(Handler().WriteTraceLocation(), configuration.GetTraceLocation());
    EXPECT_EQ(Handler().GlobalTraceID(), configuration.GetGlobalTraceID());

    TraceProfile profile;
    TraceProfile::Host* host = profile.CreateHost("");
    host->SetWriteToEventLog(TraceProfile::Host::SwitchOn);
    host->SetWriteTraceLocation(TraceProfile::Host::SwitchOn);
    host->SetGlobalTraceID(TraceProfile::Host::SwitchOff);
    host->SetResynchronizationPeriod(2500);
    // Switches alone are worth a block, even without any image.
    ASSERT_EQ(Handler().CreateSHM(profile), TraceProfileSHMHandler::Published);
    configuration.SetGlobalTraceID(true);
    EXPECT_TRUE(Handler().WriteToCELog());
    EXPECT_TRUE(Handler().WriteTraceLocation());
    EXPECT_FALSE(Handler().GlobalTraceID());
    EXPECT_EQ(TraceTimer::GetResynchronizationPeriod(), 2500u);
    {
        TraceSharedMemory block(ProfileKey(1).c_str());
        ASSERT_TRUE(block.attach(TraceSharedMemory::ReadOnly));
        EXPECT_EQ(block.size(), MappedSize(1256));
        EXPECT_EQ(Read<uint32_t>(block, 4), 0u);
        EXPECT_EQ(Read<uint32_t>(block, 8), 1u | 2u | 4u);
    }

    host->SetWriteToEventLog(TraceProfile::Host::SwitchOff);
    host->SetWriteTraceLocation(TraceProfile::Host::SwitchNotSet);
    host->SetGlobalTraceID(TraceProfile::Host::SwitchOn);
    ASSERT_EQ(Handler().CreateSHM(profile), TraceProfileSHMHandler::Published);
    configuration.SetGlobalTraceID(false);
    EXPECT_FALSE(Handler().WriteToCELog());
    EXPECT_EQ(Handler().WriteTraceLocation(), configuration.GetTraceLocation());
    EXPECT_TRUE(Handler().GlobalTraceID());

    // Another host's switches do not count; an unset switch leaves it to the configuration.
    host->SetGlobalTraceID(TraceProfile::Host::SwitchNotSet);
    profile.CreateHost("other")->SetGlobalTraceID(TraceProfile::Host::SwitchOn);
    ASSERT_EQ(Handler().CreateSHM(profile), TraceProfileSHMHandler::Published);
    EXPECT_FALSE(Handler().GlobalTraceID());
}

// Blocks written by hand under the next index stand for a faulty or hostile publisher.
class HostileProfileBlock : public ::testing::Test {
protected:
    // Lays a header and two single-module images ("A"/"S1", "A"/"S2") into a block of `size`
    // bytes and makes it the current profile.
    void Publish(uint64_t size, uint32_t dataSize, uint32_t ready) {
        const unsigned index = (ProfileWord() & TraceProfileSHMHandler::ProfileIndexMask) + 1;
        m_block = std::make_unique<TraceSharedMemory>(ProfileKey(index).c_str());
        ASSERT_TRUE(m_block->create(size));
        if (size >= 40) {
            Write<uint16_t>(*m_block, 0, 1);
            Write<uint16_t>(*m_block, 2, 203);
            Write<uint32_t>(*m_block, 4, dataSize);
            Write<uint32_t>(*m_block, 12, ready);
        }
        for (unsigned i = 0; i < 2; ++i) {
            const uint64_t offset = 40 + i * TraceBufferData::GetSize(1);
            if (offset + TraceBufferData::GetSize(1) > size)
                break;
            TraceBufferData* image = nullptr;
            ASSERT_EQ(TraceBufferData::Create(image, static_cast<unsigned char*>(m_block->data()) + offset,
                                              TraceBufferData::GetSize(1), 0, 0, 0, TimestampMode::NotSet, "",
                                              "", "A", i == 0 ? "S1" : "S2"),
                      SHMErrorCodes::Success);
            image->ActivateFirstFreeModule(0, "m", 4);
        }
        const unsigned word = ProfileWord();
        ASSERT_TRUE(TraceRegistry::GetInstance().SetProfileIndex(word, index | Published));
    }

    void SetModuleCount(unsigned image, uint32_t count) {
        Write<uint32_t>(*m_block, 40 + image * TraceBufferData::GetSize(1) + 208, count);
    }

    bool Found(const char* subsystem) {
        const auto lock = Handler().LockSHM();
        const TraceBufferData* image = Handler().FindBufferInSHM("A", subsystem);
        const bool moduleFound = Handler().FindModuleInSHM(nullptr, "A", subsystem, "m");
        EXPECT_EQ(image != nullptr, moduleFound);
        return image != nullptr && std::strcmp(image->GetSubSystemName(), subsystem) == 0;
    }

    std::unique_ptr<TraceSharedMemory> m_block;
};

TEST_F(HostileProfileBlock, SizesAndCountsNeverLeadOutsideTheMapping) {
#ifdef _WIN32
    GTEST_SKIP() << "openers see whole pages there, so sizes below a page are not seen as such";
#endif
    const uint64_t size = 40 + 2 * TraceBufferData::GetSize(1);
    Publish(size, static_cast<uint32_t>(2 * TraceBufferData::GetSize(1)), 1);
    EXPECT_TRUE(Found("S1"));
    EXPECT_TRUE(Found("S2"));

    // The second image claims more slots than the block holds; the first stays usable.
    Publish(size, static_cast<uint32_t>(2 * TraceBufferData::GetSize(1)), 1);
    SetModuleCount(1, 2);
    EXPECT_TRUE(Found("S1"));
    EXPECT_FALSE(Found("S2"));
    SetModuleCount(1, UINT32_MAX);
    EXPECT_FALSE(Found("S2"));

    // A data size far beyond the mapping counts only as far as the mapping reaches.
    Publish(size, UINT32_MAX, 1);
    EXPECT_TRUE(Found("S2"));
    EXPECT_FALSE(Found("S3"));  // walks to the end of the mapping and no further
    SetModuleCount(0, UINT32_MAX);
    EXPECT_FALSE(Found("S1"));
    EXPECT_FALSE(Found("S2"));

    // A data size that cuts the second image off hides it.
    Publish(size, static_cast<uint32_t>(2 * TraceBufferData::GetSize(1) - 1), 1);
    EXPECT_TRUE(Found("S1"));
    EXPECT_FALSE(Found("S2"));

    // Shorter than its own header.
    Publish(16, 0, 0);
    EXPECT_FALSE(Found("S1"));
    EXPECT_FALSE(Handler().WriteToCELog());
}

TEST_F(HostileProfileBlock, ABlockThatNeverBecomesReadyIsNotUsed) {
    const uint64_t size = 40 + 2 * TraceBufferData::GetSize(1);
    Publish(size, static_cast<uint32_t>(2 * TraceBufferData::GetSize(1)), 0);
    EXPECT_FALSE(Found("S1"));
    // Once given up, the same index is not waited for again; a ready successor is taken.
    Write<uint32_t>(*m_block, 12, 1);
    EXPECT_FALSE(Found("S1"));
    Publish(size, static_cast<uint32_t>(2 * TraceBufferData::GetSize(1)), 1);
    EXPECT_TRUE(Found("S1"));
}

TEST(TraceProfileSHMHandlerProcesses, AProfilePublishedHereIsFoundByAnotherProcess) {
    ASSERT_EQ(Handler().CreateSHM(SimpleProfile(100000)), TraceProfileSHMHandler::Published);
    // Ring rounded up to 131072, two modules, severity 5; "first" has the subsystem's severity,
    // its flag "off" at bit 4 and "on" at bit 5.
    EXPECT_EQ(WaitChild(SpawnChild("ExpectImage", {"app", "sub", "131072", "2", "5", "first", "37"})), 0);
    EXPECT_EQ(WaitChild(SpawnChild("ExpectImage", {"App", "Sub", "131072", "2", "5", "second", "2"})), 0);
    EXPECT_EQ(WaitChild(SpawnChild("ExpectImage", {"App", "Sub", "131072", "2", "5", "third", "0"})), 3);
    EXPECT_EQ(WaitChild(SpawnChild("ExpectImage", {"Other", "Sub", "0", "0", "0", "x", "0"})), 1);

    // A process that already holds the old profile takes the new one when it next asks.
    const std::string signal = SignalPath("first-seen");
    const pid_t watcher = SpawnChild("WatchForReplacement", {"131072", "16384", signal});
    ASSERT_TRUE(WaitFor([&] { return FileExists(signal); }, 10000));
    ASSERT_TRUE(RemoveFile(signal));
    ASSERT_EQ(Handler().CreateSHM(SimpleProfile(16384)), TraceProfileSHMHandler::Published);
    EXPECT_EQ(WaitChild(watcher), 0);
}

TEST(TraceProfileSHMHandlerProcesses, AProfileOutlivesItsPublisherWhileOthersHoldIt) {
    const std::string release = SignalPath("release");
    const pid_t publisher = SpawnChild("PublishAndHold", {"65536", release});
    EXPECT_TRUE(WaitFor([&] { return FoundRingSize("App", "Sub") == 65536u; }, 10000));
    Touch(release);
    EXPECT_EQ(WaitChild(publisher), 0);
    EXPECT_TRUE(RemoveFile(release));
    EXPECT_EQ(FoundRingSize("App", "Sub"), 65536u);
    EXPECT_TRUE(ShmExists(ProfileKey(ProfileWord() & TraceProfileSHMHandler::ProfileIndexMask)));
}
