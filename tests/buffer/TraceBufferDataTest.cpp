#include "Trace/Buffer/TraceBufferData.h"

#include <gtest/gtest.h>
#include <unistd.h>
#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#endif

#include <cstring>
#include <string>
#include <vector>

using namespace Tracing;

namespace {

const std::string Long40 = "0123456789abcdefghijklmnopqrstuvwxyzABCD";
const std::string Cut32 = Long40.substr(0, 32);

// Memory that Create must fully initialise: it starts as garbage.
struct Memory {
    explicit Memory(uint32_t modules)
        : words(TraceBufferData::GetSize(modules) / 8 + 1, 0xA5A5A5A5A5A5A5A5) {}
    void* Address() { return words.data(); }
    std::vector<uint64_t> words;
};

TraceBufferData* CreateBuffer(void* address, uint32_t modules, uint32_t ringSize = 3000) {
    TraceBufferData* data = nullptr;
    EXPECT_EQ(TraceBufferData::Create(data, address, TraceBufferData::GetSize(modules), ringSize, 7, 4242,
                                      TimestampMode::PRECISE, Long40.c_str(), "system", nullptr, "subsys"),
              SHMErrorCodes::Success);
    return data;
}

}  // namespace

TEST(TraceBufferData, CreateLaysOutHeaderAndFreeSlots) {
    Memory memory(4);
    TraceBufferData* data = reinterpret_cast<TraceBufferData*>(1);
    auto create = [&](void* address, uint64_t size, uint32_t ring) {
        return TraceBufferData::Create(data, address, size, ring, 1, 2, TimestampMode::FAST, "", "", "", "");
    };
    EXPECT_EQ(create(nullptr, 4096, 0), SHMErrorCodes::InvalidAddress);
    EXPECT_EQ(create(static_cast<char*>(memory.Address()) + 2, 4096, 0), SHMErrorCodes::InvalidAddress);
    EXPECT_EQ(create(memory.Address(), 1215, 0), SHMErrorCodes::InvalidSize);
    EXPECT_EQ(create(memory.Address(), 4096, 0x80000001u), SHMErrorCodes::InvalidSize);
    EXPECT_EQ(data, nullptr);
    ASSERT_EQ(create(memory.Address(), 1216, 0), SHMErrorCodes::Success);
    EXPECT_EQ(data->GetSizeOfModuleArray(), 1u);

    data = CreateBuffer(memory.Address(), 4);
    EXPECT_EQ(data->GetRingBufferSize(), 4096u);
    EXPECT_EQ(data->GetCreatorProcessID(), getpid());
    EXPECT_EQ(data->GetHostName(), Cut32);
    data->SetApplicationName(Long40.c_str());
    EXPECT_EQ(data->GetApplicationName(), Cut32);
    EXPECT_STREQ(data->GetSubSystemName(), "subsys") << "neighbour untouched";
    EXPECT_FALSE(data->GetGlobalTraceID() || data->GetReuseFilterState() || data->GetLock().GetState() ||
                 data->GetInitializedFlag().load() || data->GetAtomicChangeCounter().load() ||
                 data->GetAtomicNextFreeModuleID().load() || data->GetAtomicTotalTraceCounter().load() ||
                 data->GetAtomicWriteIndex().load() || data->GetRingBufferWasFilled().load() ||
                 data->GetConsumerAttached().load());
    for (unsigned i = 0; i < 4; ++i)
        EXPECT_FALSE(data->GetModule(i)->IsSet() || data->GetModule(i)->IsActivated() ||
                     data->GetModule(i)->GetRegisteredFlags());
    EXPECT_EQ(data->GetModule(4), nullptr);

    // Slots are taken lowest first and found by exact name or ID.
    TraceModuleData* a = data->ActivateFirstFreeModule(0, "Alpha", 0x3C);
    TraceModuleData* b = data->ActivateFirstFreeModule(1, Long40.c_str(), 4);
    data->ActivateFirstFreeModule(2, "C", 4);
    data->ActivateFirstFreeModule(3, "D", 4);
    EXPECT_EQ(data->ActivateFirstFreeModule(4, "Full", 4), nullptr);
    ASSERT_EQ(a, data->GetModule(0));
    EXPECT_EQ(a->GetFilterState(), 0x3Cu) << "stored as given";
    EXPECT_EQ(data->FindModule("Alph"), nullptr);
    EXPECT_EQ(data->FindModule(Cut32.c_str()), b);
    EXPECT_EQ(data->FindModule(1), b);
    b->Deactivate();
    EXPECT_EQ(data->FindModule(1), nullptr);
    EXPECT_EQ(data->ActivateFirstFreeModule(9, "Reused", 4), b);
}

TEST(TraceModuleData, FlagsAreRegisteredByNameOrBit) {
    TraceModuleData module;
    ASSERT_TRUE(module.Activate(1, 0, "Mod", Severity::Info));
    EXPECT_EQ(module.RegisterFlag("A", false), 4);
    EXPECT_EQ(module.RegisterFlag("A", true), 4);
    EXPECT_EQ(module.RegisterFlag("B", true), 5);
    EXPECT_EQ(module.GetFilterState(), Severity::Info | 0x20u) << "only a new registration activates";
    EXPECT_EQ(module.RegisterFlag("X", true, 3), 0);
    EXPECT_EQ(module.RegisterFlag("X", true, 32), 0);
    EXPECT_EQ(module.RegisterFlag("Other", true, 5), 5) << "a bit in use is returned unchanged";

    // An explicit bit behind a free slot: registered, but FindFlag stops at the gap.
    EXPECT_EQ(module.RegisterFlag(Long40.c_str(), false, 10), 10);
    EXPECT_TRUE(module.IsFlagRegistered(10));
    EXPECT_EQ(module.FindFlag(Cut32.c_str()), nullptr);
    EXPECT_EQ(module.FindFlag("B"), module.GetFlag(1));
    EXPECT_EQ(module.RegisterFlag("C", false), 6) << "first free slot";
    for (int i = 0; i < 24; ++i)
        EXPECT_NE(module.RegisterFlag(("F" + std::to_string(i)).c_str(), false), 0);
    EXPECT_EQ(module.RegisterFlag("Full", false), 0);
    EXPECT_EQ(module.RegisterFlag("C", false), 6);
    EXPECT_EQ(module.GetRegisteredFlags(), 0xFFFFFFF0u);
}

TEST(TraceModuleData, FilterChangesKeepToRegisteredBits) {
    TraceModuleData module;
    ASSERT_TRUE(module.Activate(1, 0, "Mod", 0x2C));
    module.RegisterFlag("A", false);
    EXPECT_FALSE(module.SetSeverity(Severity::Info));
    EXPECT_TRUE(module.SetSeverity(Severity::Error));
    EXPECT_EQ(module.GetFilterState(), 0x22u) << "bit 3 cleared, flags kept";
    EXPECT_TRUE(module.SetSeverity(static_cast<Severity::Type>(12)));
    EXPECT_EQ(module.GetFilterState(), 0x2Cu) << "stored as given: Info and bit 3";

    EXPECT_TRUE(module.SetSeverityMask(0xFFFFFFFF));
    EXPECT_EQ(module.GetFilterState(), 0x17u) << "unregistered flags and bit 3 dropped";
    EXPECT_FALSE(module.SetSeverityMask(0x17 | 0x40)) << "same effective value";
    EXPECT_FALSE(module.SetFlag(true, 4));
    EXPECT_TRUE(module.SetFlag(false, 4));
    EXPECT_FALSE(module.SetFlag(true, 5)) << "unregistered";
    EXPECT_FALSE(module.SetFlag(true, 40));
    EXPECT_FALSE(module.SetFlag(false, 1)) << "severity bits are not flags";
    EXPECT_EQ(module.GetFilterState(), 0x7u);
}

TEST(TraceModuleData, ProfileSwitchesFlagsOnNeverOff) {
    Memory memory(2);
    TraceBufferData* profile = CreateBuffer(memory.Address(), 2, 0);
    TraceModuleData* wanted = profile->ActivateFirstFreeModule(0, "Mod", Severity::Verbose);
    wanted->RegisterFlag("A", true);   // 4, on
    wanted->RegisterFlag("B", false);  // 5, off
    wanted->RegisterFlag("C", true);   // 6, on
    profile->ActivateFirstFreeModule(1, "NoSeverity", Severity::None);

    TraceModuleData module;
    ASSERT_TRUE(module.Activate(1, 0, "Mod", Severity::Error | 0x8));
    module.RegisterFlag("C", false);  // 4
    module.RegisterFlag("B", true);   // 5, stays on
    module.RegisterFlag("A", false);  // 6
    module.RegisterFlag("D", false);  // 7, unknown to the profile
    module.ApplyProfile(*profile, Severity::Info);
    EXPECT_EQ(module.GetFilterState(), Severity::Verbose | 0x70u);

    TraceModuleData fallback;
    ASSERT_TRUE(fallback.Activate(1, 1, "NoSeverity", Severity::Error));
    fallback.ApplyProfile(*profile, Severity::None);
    EXPECT_EQ(fallback.GetFilterState(), uint32_t{Severity::Error});
    fallback.ApplyProfile(*profile, Severity::Debug);
    EXPECT_EQ(fallback.GetFilterState(), uint32_t{Severity::Debug});
}

TEST(TraceBufferData, CopyCreateKeepsModulesAndRestartsTheRing) {
    Memory oldMemory(2);
    TraceBufferData* old = CreateBuffer(oldMemory.Address(), 2);
    old->ActivateFirstFreeModule(3, "Kept", Severity::Info)->RegisterFlag("F", true);
    old->ActivateFirstFreeModule(4, "Gone", Severity::Info)->Deactivate();
    old->GetAtomicWriteIndex().store(12345);
    old->GetAtomicTotalTraceCounter().store(99);
    old->GetAtomicChangeCounter().store(5);
    old->SetGlobalTraceID(true);

    Memory newMemory(4);
    TraceBufferData* copy = nullptr;
    auto copyTo = [&](void* address, const TraceBufferData& from, uint32_t modules) {
        return TraceBufferData::Create(copy, address, from, modules, 3000, 8, 77, TimestampMode::SEQ_ID, "h2",
                                       "s2", "a2", "u2");
    };
    EXPECT_EQ(copyTo(newMemory.Address(), *old, 1), SHMErrorCodes::InvalidSize);
    ASSERT_EQ(copyTo(newMemory.Address(), *old, 4), SHMErrorCodes::Success);
    EXPECT_EQ(copy->GetRingBufferSize(), 4096u);
    EXPECT_STREQ(copy->GetHostName(), "h2");
    EXPECT_EQ(copy->GetAtomicWriteIndex().load() + copy->GetAtomicTotalTraceCounter().load(), 0u);
    EXPECT_EQ(copy->GetAtomicChangeCounter().load(), 5u);
    EXPECT_TRUE(copy->GetGlobalTraceID());
    ASSERT_EQ(copy->FindModule("Kept"), copy->GetModule(0));
    EXPECT_EQ(copy->GetModule(0)->GetBufferID(), 8);
    EXPECT_EQ(copy->GetModule(0)->GetFilterState(), Severity::Info | 0x10u);
    for (unsigned i = 1; i < 4; ++i)
        EXPECT_FALSE(copy->GetModule(i)->IsActivated()) << i;
}

TEST(TraceBufferData, HostileContentIsNeverReadPastTheMapping) {
    // Header and one slot end exactly where an inaccessible page begins.
#ifdef _WIN32
    const size_t page = 4096;
    void* mapping = ::VirtualAlloc(nullptr, 2 * page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    ASSERT_NE(mapping, nullptr);
    char* guard = static_cast<char*>(mapping) + page;
    DWORD previous = 0;
    ASSERT_TRUE(::VirtualProtect(guard, page, PAGE_NOACCESS, &previous));
#else
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* mapping = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mapping, MAP_FAILED);
    char* guard = static_cast<char*>(mapping) + page;
    ASSERT_EQ(mprotect(guard, page, PROT_NONE), 0);
#endif
    const uint64_t mapped = TraceBufferData::GetSize(1);

    // A writer that terminates nothing and claims a huge module array.
    std::memset(guard - mapped, 0x7F, mapped);
    TraceBufferData* data = nullptr;
    ASSERT_EQ(TraceBufferData::Attach(data, guard - mapped), SHMErrorCodes::Success);
    EXPECT_FALSE(data->IsPlausible(mapped));
    EXPECT_GT(data->GetSize(), uint64_t{UINT32_MAX}) << "no wrap-around";
    EXPECT_STREQ(data->GetSubSystemName(), "");
    Memory target(8);
    TraceBufferData* copy = nullptr;
    EXPECT_EQ(TraceBufferData::Create(copy, target.Address(), *data, 8, 0, 1, 1, TimestampMode::FAST, "", "",
                                      "", ""),
              SHMErrorCodes::InvalidSize);

    // A plausible count with a garbage slot: every walk stays within the slot.
    data = CreateBuffer(guard - mapped, 1);
    EXPECT_TRUE(data->IsPlausible(mapped) && !data->IsPlausible(mapped - 1));
    TraceModuleData* module = data->GetModule(0);
    std::memset(static_cast<void*>(module), 0x7F, sizeof(TraceModuleData));
    EXPECT_STREQ(module->GetModuleName(), "");
    EXPECT_EQ(data->FindModule("x"), nullptr);
    EXPECT_EQ(module->FindFlag("x"), nullptr);
    EXPECT_EQ(module->GetTraceFlags(), 0u) << "bit numbers beyond 31 name no flag";
    EXPECT_EQ(module->RegisterFlag("x", true), 0);
    module->ApplyProfile(*data, Severity::Info);
#ifdef _WIN32
    ::VirtualFree(mapping, 0, MEM_RELEASE);
#else
    munmap(mapping, 2 * page);
#endif
}
