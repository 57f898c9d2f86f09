#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "TestSupport.h"
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "paxltrace.h"
#include "platform/ExecutablePath.h"

using namespace Tracing;
namespace fs = std::filesystem;

namespace {

// A private directory for configuration files, removed with everything in it. Never the working
// directory: the real test binaries live there.
struct TempDir {
    fs::path path = fs::temp_directory_path() / ("paxlconf-" + std::to_string(getpid()) + "-" +
                                                 std::to_string(reinterpret_cast<uintptr_t>(this)));
    TempDir() { fs::create_directory(path); }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
};

using Environment = std::map<std::string, std::string>;

std::unique_ptr<TraceConfigurationPrivate> Load(const Environment& environment, const std::string& fileText) {
    TempDir dir;
    const fs::path file = dir.path / "paxltrace.conf";
    std::ofstream(file) << fileText;
    return std::make_unique<TraceConfigurationPrivate>(
        [&](const char* name) -> const char* {
            const auto it = environment.find(name);
            return it != environment.end() ? it->second.c_str() : nullptr;
        },
        file.string());
}

}  // namespace

TEST(TraceConfigurationFile, LinesAreTrimmedSplitAtTheFirstEqualsAndLaterKeysWin) {
    const auto values = Internal::ParseConfigurationText(
        " TRACE_STREAM_SIZE = 65536 "
        "\r\nTRACE_MAX_MODULES\n\tA\t=\tx=y\t\r\nB=1\nB=2\n# C=3\n=orphan\nD=");
    const std::map<std::string, std::string> expected{
        {"TRACE_STREAM_SIZE", "65536"}, {"A", "x=y"}, {"B", "2"}, {"# C", "3"}, {"", "orphan"}, {"D", ""}};
    EXPECT_EQ(values, expected);
}

TEST(TraceConfigurationFile, EnvironmentHidesTheFileEvenWhenEmpty) {
    const auto config =
        Load({{"TRACE_MAX_MODULES", ""}, {"TRACE_PREFIX", "env"}},
             "TRACE_MAX_MODULES=7\nTRACE_MAX_BUFFERS=9\nTRACE_PREFIX = file\ntrace_location=1\n");
    EXPECT_EQ(config->GetMaxNumberOfModules(), 20u);
    EXPECT_EQ(config->GetMaxNumberOfBuffers(), 9u);
    EXPECT_EQ(config->GetShmPrefix(), "env_");
    EXPECT_FALSE(config->GetTraceLocation()) << "keys are case-sensitive";

    const TraceConfigurationPrivate noFile([](const char*) -> const char* { return nullptr; },
                                           "/nonexistent/x");
    EXPECT_EQ(noFile.GetShmUserGroupPrefix(), "PAXL ");
    EXPECT_EQ(noFile.GetShmPrefix(), "");
}

TEST(TraceConfigurationFile, IsReadFromADirectoryWithANonAsciiName) {
    TempDir dir;
    const fs::path directory = dir.path / fs::path(u8"Größe ✓ Конфиг");
    fs::create_directory(directory);
    std::ofstream(directory / "paxltrace.conf") << "TRACE_MAX_MODULES=7\n";
    const std::u8string path = (directory / "paxltrace.conf").u8string();
    const TraceConfigurationPrivate config([](const char*) -> const char* { return nullptr; },
                                           std::string(path.begin(), path.end()));
    EXPECT_EQ(config.GetMaxNumberOfModules(), 7u);
}

TEST(TraceConfigurationVariables, NumbersFollowUnsignedScanWithZeroKeptOnlyForWaitAndSwitches) {
    struct Case {
        const char* value;
        unsigned modules, closeWait;
        int switchValue;  // -1: not converted, the defaults stay
    };
    // Counts ignore 0 and garbage; the close wait and the switches take any converted number.
    const Case cases[] = {
        {"-1", 4294967295u, 4294967295u, 1}, {"0", 20u, 0u, 0}, {"abc", 20u, 150u, -1}, {"", 20u, 150u, -1},
        {" 65536kB", 65536u, 65536u, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        const auto config = Load({{"TRACE_MAX_MODULES", c.value},
                                  {"TRACE_BUFFER_CLOSE_WAIT_MS", c.value},
                                  {"TRACE_GLOBAL_ID", c.value},
                                  {"TRACE_LOCATION", c.value},
                                  {"TRACE_NO_WINSVC", c.value}},
                                 "TRACE_MAX_BUFFERS=" + std::string(c.value) + "\n");
        EXPECT_EQ(config->GetMaxNumberOfModules(), c.modules);
        EXPECT_EQ(config->GetMaxNumberOfBuffers(), c.modules == 20u ? 1000u : c.modules);
        EXPECT_EQ(config->GetBufferCloseWaitMs(), c.closeWait);
        EXPECT_EQ(config->GetGlobalTraceID(), c.switchValue != 0);
        EXPECT_EQ(config->GetTraceLocation(), c.switchValue == 1);
        EXPECT_EQ(config->GetNoWinSvc(), c.switchValue == 1);
    }
}

TEST(TraceConfigurationVariables, StreamSizeOutOfRangeWarnsOnceAndTakesTheNearestSizeOrTheDefault) {
    struct Case {
        const char* value;
        unsigned size;
        bool warned;
    };
    const Case cases[] = {
        {"65536", 65536u, false},        {" 65536kB", 65536u, false},
        {"100000", 100000u, false},      {"2147483648", 0x80000000u, false},
        {"0", 1048576u, false},          {"1", 16384u, true},
        {"16383", 16384u, true},         {"2147483649", 1048576u, true},
        {"99999999999", 1048576u, true}, {"-1", 1048576u, true},
        {"abc", 1048576u, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        testing::internal::CaptureStderr();
        const auto config = Load({{"TRACE_STREAM_SIZE", c.value}}, "");
        const std::string printed = testing::internal::GetCapturedStderr();
        EXPECT_EQ(config->GetTraceStreamSize(), c.size);
        if (!c.warned) {
            EXPECT_EQ(printed, "");
            continue;
        }
        const size_t at = printed.find("TRACE_STREAM_SIZE=" + std::string(c.value) + " ");
        ASSERT_NE(at, std::string::npos) << printed;
        EXPECT_EQ(printed.find("TRACE_STREAM_SIZE", at + 1), std::string::npos) << "one warning: " << printed;
        EXPECT_NE(printed.find(" " + std::to_string(c.size) + " bytes is used."), std::string::npos)
            << printed;
    }
}

TEST(TraceConfigurationVariables, NamesAndTexts) {
    auto config = Load({{"TRACE_SEVERITY", "Debug"},
                        {"TRACE_TIMESTAMP_MODE", "precise"},
                        {"TRACE_USERGROUP", "ops"},
                        {"TRACE_FTOK_DIR", "/var/tmp"}},
                       "TRACE_PREFIX=abc\n");
    EXPECT_EQ(config->GetSeverityFilter(), Severity::Debug);
    EXPECT_EQ(config->GetTimestampMode(), TimestampMode::PRECISE);
    EXPECT_EQ(config->GetShmPrefix(), "abc_");
    EXPECT_EQ(config->GetShmUserGroupPrefix(), "ops ");
    EXPECT_EQ(config->GetFtokDir(), "/var/tmp");

    // Severity names are case-sensitive and "None" changes nothing; unknown modes change nothing.
    for (const char* severity : {"debug", "None", "Loud"}) {
        config = Load({{"TRACE_SEVERITY", severity}, {"TRACE_TIMESTAMP_MODE", "slow"}}, "");
        EXPECT_EQ(config->GetSeverityFilter(), Severity::Info) << severity;
        EXPECT_EQ(config->GetTimestampMode(), TimestampMode::OPTIMAL);
    }
}

TEST(TraceConfigurationSetters, InitializeOnceKeepsAnEarlierSystemNameAndTakesModeZero) {
    const auto config = Load({}, "");
    const std::string executableName = config->GetApplicationName();
    config->SetSystemName("A");
    config->Initialize("B", nullptr, TimestampMode::NotSet, 0, 0, 5);
    EXPECT_STREQ(config->GetSystemName(), "A");
    EXPECT_EQ(config->GetApplicationName(), executableName);
    EXPECT_EQ(config->GetTimestampMode(), TimestampMode::NotSet);
    EXPECT_EQ(config->GetTraceStreamSize(), 1048576u);
    EXPECT_EQ(config->GetMaxNumberOfModules(), 5u);

    config->Initialize("C", "app", TimestampMode::FAST, 99999, 7, 8);
    EXPECT_EQ(config->GetMaxNumberOfModules(), 5u) << "only the first Initialize counts";

    const auto fresh = Load({}, "");
    fresh->Initialize("B", "app", TimestampMode::FAST, 99999, 7, 8);
    EXPECT_STREQ(fresh->GetSystemName(), "B");
    EXPECT_STREQ(fresh->GetApplicationName(), "app");
    EXPECT_EQ(fresh->GetTraceStreamSize(), 99999u);
}

TEST(TraceConfigurationSetters, CApiZeroSizesStoreDefaultsAndNamesAreCutAt32) {
    const struct {
        void (*set)(unsigned);
        unsigned (*get)();
        unsigned stored;
    } zeroes[] = {{trace_config_set_max_modules, trace_config_get_max_modules, 20},
                  {trace_config_set_stream_size, trace_config_get_stream_size, 1048576},
                  {trace_config_set_max_buffers, trace_config_get_max_buffers, 1000},
                  {trace_config_set_buffer_close_wait_ms, trace_config_get_buffer_close_wait_ms, 0}};
    for (const auto& zero : zeroes) {
        zero.set(0);
        EXPECT_EQ(zero.get(), zero.stored);  // zero is a valid wait
    }

    const std::string forty = "0123456789abcdefghijklmnopqrstuvwxyzABCD";
    trace_config_set_application(forty.c_str());
    EXPECT_EQ(std::string(trace_config_get_application()), forty.substr(0, 32));
    trace_config_set_system(forty.c_str());
    EXPECT_EQ(std::string(trace_config_get_system()), forty.substr(0, 32));
}

TEST(TraceConfigurationSetters, SharedMemoryConsumptionFollowsTheConfiguredModuleCount) {
    TraceConfigurationPrivate::GetInstance().SetMaxNumberOfModules(3);
    std::ostringstream out;
    TraceConfigurationPrivate::PrintSHMConsumption(out);
    EXPECT_EQ(out.str(),
              "The size of an entry in the trace registry is 80 bytes.\n"
              "The size of the trace registry (1000 items) is 80152 bytes.\n\n"
              "The size of a trace flag is 34 bytes.\n"
              "The size of a trace module (28 flags) is 1004 bytes.\n"
              "The size of a trace buffer (3 modules) is 3224 bytes.\n\n");
}

TEST(TraceConfigurationExecutable, NameDropsTheLastExtensionUnlessItStartsTheName) {
    // Paths as this system writes them.
    auto native = [](std::string path) {
        std::replace(path.begin(), path.end(), '/', Tracing::Platform::PathSeparator);
        return path;
    };
    EXPECT_EQ(Internal::ExecutableNameFromPath(native("/opt/x.y/a.b.exe")), "a.b");
    EXPECT_EQ(Internal::ExecutableNameFromPath(native("/opt/x.y/.hidden")), ".hidden");
    EXPECT_EQ(Internal::ExecutableNameFromPath(native("/opt/x.y/tool")), "tool");
    EXPECT_EQ(Internal::ExecutableNameFromPath("tool.bin"), "tool");
    EXPECT_EQ(Internal::ConfigurationFilePathFor(native("/opt/bin/tool")), native("/opt/bin/paxltrace.conf"));
    EXPECT_EQ(Internal::ConfigurationFilePathFor("tool"), native("tool/paxltrace.conf"));
}

PAXLTRACE_CHILD_ROLE(ReportConfiguration) {
    const auto& config = TraceConfigurationPrivate::GetInstance();
    std::ofstream(args.at(0)) << config.GetApplicationName() << '|' << config.GetShmPrefix() << '|'
                              << config.GetMaxNumberOfModules() << '|' << config.GetShmUserGroupPrefix()
                              << '|' << config.GetTraceLocation() << '\n';
    return 0;
}

TEST(TraceConfigurationExecutable, FileBesideTheExecutableIsRead) {
    TempDir dir;
    const fs::path copy = dir.path / "conf.child.bin";
    fs::copy_file(Tracing::Test::SelfExecutable(), copy);
    fs::permissions(copy, fs::perms::owner_all);
    std::ofstream(dir.path / "paxltrace.conf")
        << "TRACE_MAX_MODULES = 7\nTRACE_USERGROUP=ops\nTRACE_PREFIX=file\nTRACE_LOCATION=1\n";
    const fs::path output = dir.path / "out.txt";

    const pid_t child =
        Tracing::Test::SpawnChildExecutable(copy.string(), "ReportConfiguration", {output.string()});
    ASSERT_GT(child, 0);
    ASSERT_EQ(Tracing::Test::WaitChild(child), 0);

    std::string line;
    std::getline(std::ifstream(output), line);
    EXPECT_EQ(line, "conf.child|" + Tracing::Test::ShmPrefix() + "_|7|ops |1");
}
