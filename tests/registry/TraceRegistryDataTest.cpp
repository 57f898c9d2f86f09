#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Trace/Registry/TraceReceiverCommandStore.h"
#include "Trace/Registry/TraceRegistryData.h"

using namespace Tracing;

namespace {

// Process-local memory standing in for a mapped block; filled with a pattern so that anything
// Create forgets to initialise shows.
struct Block {
    explicit Block(uint64_t size) : bytes(size / 8 + 1, 0xA5A5A5A5A5A5A5A5ULL), size(size) {}
    void* memory() { return bytes.data(); }
    std::vector<uint64_t> bytes;
    uint64_t size;
};

TraceRegistryData* MakeBlock(Block& block) {
    TraceRegistryData* data = nullptr;
    EXPECT_EQ(TraceRegistryData::Create(data, block.memory(), block.size), SHMErrorCodes::Success);
    return data;
}

}  // namespace

TEST(TraceRegistryData, CreateSizesTheArrayFromTheBlockSize) {
    Block exact(232), tooSmall(231), withTail(311), large(TraceRegistryData::GetSize(1000));
    TraceRegistryData* data = reinterpret_cast<TraceRegistryData*>(1);

    EXPECT_EQ(TraceRegistryData::Create(data, tooSmall.memory(), tooSmall.size), SHMErrorCodes::InvalidSize);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(tooSmall.bytes[0], 0xA5A5A5A5A5A5A5A5ULL) << "a refused block must stay untouched";
    EXPECT_EQ(TraceRegistryData::Create(data, nullptr, 1000), SHMErrorCodes::InvalidAddress);
    EXPECT_EQ(TraceRegistryData::Attach(data, nullptr), SHMErrorCodes::InvalidAddress);
    EXPECT_EQ(data, nullptr);

    EXPECT_EQ(MakeBlock(exact)->GetSizeOfBufferArray(), 1u);
    EXPECT_EQ(MakeBlock(withTail)->GetSizeOfBufferArray(), 1u);
    data = MakeBlock(large);
    EXPECT_EQ(data->GetSizeOfBufferArray(), 1000u);
}

TEST(TraceRegistryData, CreateLeavesAnUnpublishedBlockWithItsStartValues) {
    Block block(TraceRegistryData::GetSize(3));
    TraceRegistryData* data = MakeBlock(block);
    const unsigned char* bytes = static_cast<const unsigned char*>(block.memory());
    uint32_t word = 0;

    EXPECT_EQ(data->GetVersion(), 1u);
    std::memcpy(&word, bytes + 92, 4);
    EXPECT_EQ(word, 10000u) << "resyncPeriod sits at offset 92";
    std::memcpy(&word, bytes + 148, 4);
    EXPECT_EQ(word, 3u) << "sizeOfBufferArray sits at offset 148";
    for (unsigned offset : {4u, 8u, 32u, 36u, 88u, 96u, 124u, 128u, 132u, 136u, 140u, 144u}) {
        std::memcpy(&word, bytes + offset, 4);
        EXPECT_EQ(word, 0u) << "offset " << offset;
    }
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_FALSE(data->GetBufferArray()[i].IsActivated());
        std::memcpy(&word, bytes + 152 + 80 * i + 8, 4);
        EXPECT_EQ(word, 0xFFFFFFFFu) << "a free item's bufferID at item offset 8";
    }

    TraceRegistryData* attached = nullptr;
    EXPECT_EQ(TraceRegistryData::Attach(attached, block.memory()), SHMErrorCodes::Success);
    EXPECT_EQ(attached, data);
}

TEST(TraceRegistryData, ItemsAreActivatedFoundAndFreedAndReadSafely) {
    Block block(TraceRegistryData::GetSize(2));
    TraceRegistryData* data = MakeBlock(block);
    const std::string longHost(40, 'h');
    const std::string longSubsystem = std::string(32, 's') + "cut-off";

    TraceRegistryDataItem* first =
        data->ActivateFirstFreeItem(7, 1234, longHost.c_str(), longSubsystem.c_str());
    ASSERT_EQ(first, &data->GetBufferArray()[0]);
    EXPECT_EQ(std::string(first->GetHostName()), longHost.substr(0, 32));
    EXPECT_EQ(std::string(first->GetSubSystemName()), std::string(32, 's'));
    EXPECT_FALSE(first->Activate(8, 1, "h", "s")) << "an item in use is not overwritten";
    EXPECT_EQ(first->GetBufferID(), 7);

    ASSERT_NE(data->ActivateFirstFreeItem(9, 99, "host", nullptr), nullptr);
    EXPECT_EQ(std::string(data->FindItem(9)->GetSubSystemName()), "");
    EXPECT_EQ(data->ActivateFirstFreeItem(10, 1, "full", "full"), nullptr);
    EXPECT_EQ(data->FindItem(10), nullptr);
    EXPECT_EQ(data->FindItem(7), first);

    EXPECT_FALSE(data->DeactivateItem(11));
    EXPECT_TRUE(data->DeactivateItem(7));
    EXPECT_EQ(first->GetProcessID(), 0);
    EXPECT_EQ(data->FindItem(7), nullptr);
    EXPECT_EQ(data->ActivateFirstFreeItem(12, 5, "again", "again"), first)
        << "the freed slot is reused first";

    // Names another process left unterminated read as empty.
    std::memset(reinterpret_cast<unsigned char*>(first) + 12, 'x', 68);
    EXPECT_STREQ(first->GetHostName(), "");
    EXPECT_STREQ(first->GetSubSystemName(), "");
}

TEST(TraceRegistryData, TimerReferenceIsDoubleBuffered) {
    Block block(TraceRegistryData::GetSize(1));
    TraceRegistryData* data = MakeBlock(block);
    uint64_t first = 1, second = 1;
    int64_t third = 1;
    data->GetTraceTimer(first, second, third);
    EXPECT_EQ(first + second + static_cast<uint64_t>(third), 0u);

    data->SetTraceTimer(11, 12, -13);
    EXPECT_EQ(data->GetAtomicTimerSlot().load(), 1u);
    data->SetTraceTimer(21, 22, -23);
    EXPECT_EQ(data->GetAtomicTimerSlot().load(), 0u);
    data->GetTraceTimer(first, second, third);
    EXPECT_EQ(third, -23);
    // Field order of the halves: second, third, first.
    uint64_t raw[6];
    std::memcpy(raw, static_cast<unsigned char*>(block.memory()) + 40, sizeof raw);
    EXPECT_EQ(raw[0], 22u);
    EXPECT_EQ(raw[1], 12u);
    EXPECT_EQ(raw[4], 21u);
    EXPECT_EQ(raw[5], 11u);

    // A writer that finds the update indicator taken drops its values.
    data->GetAtomicUpdateIndicator().store(1);
    EXPECT_FALSE(data->TrySetTraceTimer(31, 32, -33));
    data->GetAtomicUpdateIndicator().store(0);
    data->GetTraceTimer(first, second, third);
    EXPECT_EQ(first, 21u);
    EXPECT_TRUE(data->TrySetTraceTimer(41, 42, -43));
    EXPECT_EQ(data->GetAtomicUpdateIndicator().load(), 0u);
    data->GetTraceTimer(first, second, third);
    EXPECT_EQ(first, 41u);
}

TEST(TraceReceiverCommandStore, SlotsAndCommands) {
    uint32_t words[8] = {};
    TraceReceiverCommandStore store(words);
    using Command = TraceReceiverCommandStore::CommandType;

    for (unsigned i = 0; i < 8; ++i)
        EXPECT_EQ(store.RegisterReceiver(), i);
    EXPECT_EQ(store.RegisterReceiver(), 0xFFFFFFFFu);

    store.UnregisterReceiver(3);
    store.SetCommand(3, Command::Refresh);
    EXPECT_EQ(words[3], 0u) << "a command for a free slot would register it";
    EXPECT_FALSE(store.IsCommandSet(3, Command::Refresh));

    store.SetCommand(2, Command::Refresh);
    EXPECT_EQ(words[2], 3u);
    EXPECT_TRUE(store.IsCommandSet(2, Command::Refresh));
    store.RemoveCommand(2, Command::Refresh);
    EXPECT_EQ(words[2], 1u);

    store.SendCommandToAllReceivers(Command::Registration);
    EXPECT_EQ(words[3], 0u) << "sending command 0 would register free slots";
    store.SendCommandToAllReceivers(Command::Refresh);
    for (unsigned i = 0; i < 8; ++i)
        EXPECT_EQ(words[i], i == 3 ? 0u : 3u) << "slot " << i;

    store.UnregisterReceiver(5);
    EXPECT_EQ(words[5], 0u) << "unregistering drops pending commands";
    EXPECT_EQ(store.RegisterReceiver(), 3u) << "the lowest free slot comes first";

    // Out-of-range IDs and commands are ignored.
    store.SetCommand(8, Command::Refresh);
    store.SetCommand(0, static_cast<Command>(2));
    store.UnregisterReceiver(100);
    EXPECT_FALSE(store.IsCommandSet(8, Command::Registration));
    EXPECT_FALSE(store.IsCommandSet(0, static_cast<Command>(5)));
    EXPECT_EQ(words[0], 3u);
}
