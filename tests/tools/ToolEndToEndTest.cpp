// The paxltrace binary against real producer processes (its own demo producers).
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>
#ifdef _WIN32
#include <windows.h>
#endif

#include <fstream>
#include <set>
#include <sstream>

#include "TestSupport.h"
#include "Trace/Records/CsvField.h"

namespace Tracing::Tool {
namespace {

using Test::WaitChild;
using Test::WaitFor;

class ToolTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (pid_t pid : m_running) {
            kill(pid, SIGTERM);
            WaitChild(pid);
        }
        for (const std::string& file : m_files) {
            unlink(file.c_str());
        }
    }

    std::string TempFile(const std::string& name) {
        std::string path = ::testing::TempDir() + "paxltrace_" + std::to_string(getpid()) + "_" + name;
        m_files.push_back(path);
        return path;
    }

    // Starts the tool with stdout and stderr in files; it is stopped at the end of the test.
    pid_t Start(const std::vector<std::string>& args, const std::string& outPath) {
        Tracing::Test::ProcessOptions options;
        options.output = outPath;
        options.error = outPath + ".err";
        m_files.push_back(options.error);
        const pid_t pid = Tracing::Test::StartProcess(PAXLTRACE_TOOL_PATH, args, options);
        EXPECT_GT(pid, 0);
        m_running.insert(pid);
        return pid;
    }

    // Asks the tool to stop as Ctrl-C would; it then flushes and exits normally.
    static void RequestStop(pid_t pid) {
#ifdef _WIN32
        const std::wstring name = L"Local\\paxltrace stop " + std::to_wstring(pid);
        HANDLE event = ::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str());
        ASSERT_NE(event, nullptr);
        ::SetEvent(event);
        ::CloseHandle(event);
#else
        kill(pid, SIGTERM);
#endif
    }

    int Wait(pid_t pid) {
        m_running.erase(pid);
        return WaitChild(pid);
    }

    // Runs the tool to its end; its standard output (and error) in out.
    int Run(const std::vector<std::string>& args, std::string* out = nullptr) {
        const std::string path = TempFile("run");
        int code = Wait(Start(args, path));
        if (out != nullptr) {
            *out = Read(path) + Read(path + ".err");
        }
        return code;
    }

    pid_t StartProducer(const std::string& name) {
        const std::string out = TempFile("producer_" + name);
        pid_t pid = Start({"demo-producer", name, "--duration", "60"}, out);
        EXPECT_TRUE(WaitFor([&] { return Read(out).find("ready") != std::string::npos; }, 20000))
            << Read(out + ".err");
        return pid;
    }

    static std::string Read(const std::string& path) {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

private:
    std::set<pid_t> m_running;
    std::vector<std::string> m_files;
};

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

}  // namespace
}  // namespace Tracing::Tool
