// The paxltrace binary against real producer processes (its own demo producers).
#include <cstring>
#include <fstream>
#include <random>
#include <set>

#include "ToolTest.h"
#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceBufferData.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "Trace/Ipc/TraceSharedMemory.h"
#include "Trace/Records/CsvField.h"
#include "Trace/Registry/TraceRegistryData.h"

namespace Tracing::Tool {
namespace {

using Test::WaitFor;

TEST_F(ToolTest, TailCsvShowsEveryProducersTraces) {
    StartProducer("Orders");
    StartProducer("Billing");
    const std::string csv = TempFile("tail.csv");
    std::string report;
    ASSERT_EQ(Run({"tail", "--csv", "--duration", "3", "--output", csv}, &report), 0);
    EXPECT_NE(report.find("traces delivered, 0 lost in 0 overflows"), std::string::npos) << report;

    std::ifstream in(csv);
    std::set<std::string> subsystems, modules;
    bool requestSeen = false;
    int rows = 0;
    for (std::string line; Internal::ReadCsvLine(in, line), !line.empty() || in.good();) {
        if (line.empty()) {
            continue;
        }
        std::vector<std::string> fields;
        const char* cursor = line.c_str();
        while (*cursor != '\0' || fields.size() < 13) {
            fields.emplace_back();
            Internal::ReadCsvField(cursor, fields.back(), ';');
            if (fields.size() > 13) {
                break;
            }
        }
        ASSERT_EQ(fields.size(), 13u) << line;
        if (rows++ == 0) {
            EXPECT_EQ(fields[0], "#");
            continue;
        }
        subsystems.insert(fields[4]);
        modules.insert(fields[5]);
        requestSeen = requestSeen || fields[10].find("served in") != std::string::npos;
    }
    EXPECT_GT(rows, 10);
    EXPECT_TRUE(subsystems.count("Billing") && subsystems.count("Orders"));
    EXPECT_TRUE(modules.count("Network") && modules.count("Scheduler"));
    EXPECT_TRUE(requestSeen);

    // Read back and written as log lines, every row is one trace.
    const std::string log = TempFile("converted.log");
    ASSERT_EQ(Run({"convert", csv, log}, &report), 0);
    EXPECT_NE(report.find(std::to_string(rows - 1) + " traces converted"), std::string::npos) << report;

    std::string list;
    ASSERT_EQ(Run({"list"}, &list), 0);
    EXPECT_NE(list.find("Orders"), std::string::npos);
    EXPECT_NE(list.find("Billing"), std::string::npos);
    // These buffers draw machine-wide trace IDs: no count of their own, never a false 0.
    std::istringstream listed(list);
    for (std::string row; std::getline(listed, row);) {
        if (row.find("Orders") != std::string::npos) {
            EXPECT_EQ(row.substr(row.find_last_of(' ') + 1), "-") << row;
        }
    }
}

TEST_F(ToolTest, ConvertCountsLinesThatAreNoTraces) {
    const std::string noise = TempFile("noise.csv");
    {
        std::ofstream out(noise, std::ios::binary);
        uint32_t state = 15;
        for (int i = 0; i < 200000; ++i) {
            state = state * 1664525u + 1013904223u;
            out.put(static_cast<char>(state >> 24));
        }
    }
    std::string report;
    EXPECT_EQ(Run({"convert", noise, TempFile("noise.log")}, &report), 2);
    EXPECT_NE(report.find("0 traces converted"), std::string::npos) << report;
    EXPECT_NE(report.find("are not traces"), std::string::npos) << report;
}

TEST_F(ToolTest, FilterChangesReachTheRunningProducer) {
    const std::string producerOut = TempFile("producer_out");
    Start({"demo-producer", "Orders", "--duration", "60"}, producerOut);
    ASSERT_TRUE(WaitFor([&] { return Read(producerOut).find("ready") != std::string::npos; }, 20000));

    std::string out;
    ASSERT_EQ(Run({"set-severity", "Orders", "Network", "debug"}, &out), 0) << out;
    EXPECT_TRUE(WaitFor(
        [&] {
            return Read(producerOut).find("module Network filter 0x00000016 severity Debug") !=
                   std::string::npos;
        },
        20000))
        << Read(producerOut);
    ASSERT_EQ(Run({"set-flag", "Orders", "Network", "IO", "off"}, &out), 0) << out;
    ASSERT_EQ(Run({"modules", "Orders"}, &out), 0);
    EXPECT_NE(out.find("Debug"), std::string::npos) << out;
    EXPECT_NE(out.find("IO=off Retry=off"), std::string::npos) << out;

    // Exit codes scripts rely on: 1 for what is not there, 2 for what cannot be meant.
    EXPECT_EQ(Run({"modules", "Nowhere"}, &out), 1) << out;
    EXPECT_EQ(Run({"set-flag", "Orders", "Network", "NoSuchFlag", "on"}), 1);
    EXPECT_EQ(Run({"set-severity", "Orders", "Network", "Loud"}), 2);
    EXPECT_EQ(Run({"set-flag", "Orders", "Network", "IO", "maybe"}), 2);
    EXPECT_EQ(Run({"tail", "--bogus"}), 2);
    EXPECT_EQ(Run({}), 2);
}

TEST_F(ToolTest, LoadedProfilePresetsProducersStartedLater) {
    const std::string loaderOut = TempFile("loader");
    pid_t loader = Start({"profile", "load", PAXLTRACE_TOOL_EXAMPLES "/profile.toml"}, loaderOut);
    ASSERT_TRUE(WaitFor([&] { return Read(loaderOut).find("in force") != std::string::npos; }, 20000))
        << Read(loaderOut + ".err");
    StartProducer("Orders");

    std::string out;
    ASSERT_EQ(Run({"modules", "Orders"}, &out), 0);
    EXPECT_NE(out.find("Network"), std::string::npos) << out;
    EXPECT_NE(out.find("Debug"), std::string::npos) << out;
    EXPECT_NE(out.find("IO=off Retry=on"), std::string::npos) << out;

    ASSERT_EQ(Run({"profile", "show"}, &out), 0);
    EXPECT_NE(out.find("[host.\"\".application."), std::string::npos) << out;
    EXPECT_NE(out.find("flags = { IO = false, Retry = true }"), std::string::npos) << out;

    RequestStop(loader);
    EXPECT_EQ(Wait(loader), 0);

    const std::string bad = TempFile("bad.toml");
    std::ofstream(bad) << "[host.\"\"]\nseverity = \"Loud\"\n";
    ASSERT_EQ(Run({"profile", "load", bad}, &out), 2);
    EXPECT_NE(out.find(bad + ":2:12:"), std::string::npos) << out;
}

// Another process may scribble anything over the shared blocks: the tool reports what it can and
// ends, with no crash and no hang.
TEST_F(ToolTest, CorruptedSharedMemoryNeitherCrashesNorHangsTheTool) {
    const pid_t producer = StartProducer("Orders");
    std::string name;
    TraceBuffer::GetSHMName(name, producer, "", "Orders", false);
    TraceSharedMemory buffer(name.c_str());
    TraceSharedMemory registry(
        (TraceConfigurationPrivate::GetInstance().GetShmPrefix() + "TraceRegistry_V1").c_str());
    ASSERT_TRUE(buffer.attach(TraceSharedMemory::ReadWrite)) << buffer.errorString();
    ASSERT_TRUE(registry.attach(TraceSharedMemory::ReadWrite)) << registry.errorString();
    auto* bytes = static_cast<unsigned char*>(buffer.data());
    auto* items = static_cast<unsigned char*>(registry.data()) + TraceRegistryData::SizeWithoutBufferArray;
    const uint64_t itemBytes = registry.size() - TraceRegistryData::SizeWithoutBufferArray;
    const uint64_t slotBytes =
        TraceBufferData::GetSize(reinterpret_cast<TraceBufferData*>(bytes)->GetSizeOfModuleArray()) -
        TraceBufferData::SizeWithoutModuleArray;

    std::mt19937 random(20261123);
    const auto scribble = [&](unsigned char* at, uint64_t size, unsigned count) {
        for (unsigned i = 0; i < count && size > 0; ++i)
            at[random() % size] = static_cast<unsigned char>(random());
    };
    const uint32_t extremes[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        // Header words at extreme values, the lock (bytes 8 to 31) excepted: a lock held for ever
        // is a wait, not corrupted data.
        for (uint64_t offset : {0u, 4u, 32u, 36u, 56u, 60u, 64u, 68u, 72u, 208u}) {
            const uint32_t value = extremes[random() % std::size(extremes)];
            std::memcpy(bytes + offset, &value, sizeof value);
        }
        scribble(bytes + TraceBufferData::SizeWithoutModuleArray, slotBytes, 200);
        scribble(bytes + TraceBufferData::SizeWithoutModuleArray + slotBytes,
                 buffer.size() - TraceBufferData::SizeWithoutModuleArray - slotBytes, 2000);
        scribble(items, itemBytes, 200);
        for (const std::vector<std::string>& command :
             {std::vector<std::string>{"list"}, {"modules", "Orders"}, {"tail", "--duration", "1"}}) {
            std::string out;
            const int code = Run(command, &out);
            EXPECT_TRUE(code == 0 || code == 1) << command[0] << " ended with " << code << ": " << out;
        }
    }
}

}  // namespace
}  // namespace Tracing::Tool
