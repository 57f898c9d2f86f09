// The TOML form of trace profiles: what a file means, round trips, and errors people can fix.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tools/ProfileFile.h"

namespace Tracing::Tool {
namespace {

std::string Print(const TraceProfile& profile) {
    std::ostringstream out;
    PrintProfile(out, profile);
    return out.str();
}

TEST(ProfileFile, ExampleFileMeansWhatItSays) {
    std::ifstream in(PAXLTRACE_TOOL_EXAMPLES "/profile.toml");
    std::stringstream text;
    text << in.rdbuf();
    TraceProfile profile;
    std::vector<ProfileError> errors;
    ASSERT_TRUE(ParseProfile(text.str(), profile, errors)) << errors.at(0).Format("profile.toml");

    const TraceProfile::Host* host = profile.GetHost("");
    ASSERT_NE(host, nullptr);
    EXPECT_EQ(host->GetWriteTraceLocation(), TraceProfile::Host::SwitchOn);
    EXPECT_EQ(host->GetWriteToEventLog(), TraceProfile::Host::SwitchNotSet);
    EXPECT_EQ(host->GetSeverity(), 4u);
    EXPECT_EQ(host->GetTimestampMode(), 4u);
    TraceProfile::SubSystem orders;
    ASSERT_TRUE(profile.FindSubSystem(orders, "", "", "Orders"));
    EXPECT_EQ(orders.GetSeverity(), 3u);
    EXPECT_EQ(orders.GetMaxModules(), 16u);
    TraceProfile::Flag flag;
    ASSERT_TRUE(profile.FindFlag(flag, "", "", "Orders", "Network", "Retry"));
    EXPECT_TRUE(flag.IsEnabled());
    ASSERT_TRUE(profile.FindFlag(flag, "", "", "Orders", "Network", "IO"));
    EXPECT_FALSE(flag.IsEnabled());
}

TEST(ProfileFile, PrintedProfileParsesBackToTheSameProfile) {
    TraceProfile profile;
    TraceProfile::Host* host = profile.CreateHost("");
    host->SetResynchronizationPeriod(2500);
    host->SetGlobalTraceID(TraceProfile::Host::SwitchOff);
    profile.CreateHost("build box.local")->SetTraceStreamSize(65536);
    TraceProfile::Application* application = host->CreateApplication("my \"quoted\" app\\1");
    application->SetTimestampMode(1);
    TraceProfile::SubSystem* subSystem = application->CreateSubSystem("");
    subSystem->SetSeverity(7);
    TraceProfile::Module* module = subSystem->CreateModule("Módulo\tTab");
    module->SetSeverity(2);
    module->CreateFlag("a b")->SetEnabled(true);
    module->CreateFlag("Plain_flag-2");
    subSystem->CreateModule("NoSettings");

    const std::string printed = Print(profile);
    TraceProfile parsed;
    std::vector<ProfileError> errors;
    ASSERT_TRUE(ParseProfile(printed, parsed, errors)) << errors.at(0).Format("printed") << "\n" << printed;
    EXPECT_EQ(Print(parsed), printed);
    TraceProfile::Module found;
    ASSERT_TRUE(parsed.FindModule(found, "", "my \"quoted\" app\\1", "", "Módulo\tTab"));
    EXPECT_EQ(found.GetSeverity(), 2u);
    EXPECT_EQ(parsed.GetHost("")->GetResynchronizationPeriod(), 2500u);
}

TEST(ProfileFile, ErrorsNameTheirLineAndLeaveNoProfile) {
    const char* text =
        "[host.\"\"]\n"                            // 1
        "severity = \"Loud\"\n"                    // 2
        "colour = 3\n"                             // 3
        "[host.\"\".application.A]\n"              // 4
        "max_modules = \"many\"\n"                 // 5
        "timestamp_mode = \"SLOW\"\n"              // 6
        "[host.\"\".application.A.subsystem.S]\n"  // 7
        "stream_size = 100\n"                      // 8
        "module.M.flags = { IO = 1 }\n"            // 9
        "module.M.severity = 0\n";                 // 10
    TraceProfile profile;
    profile.CreateHost("stale");
    std::vector<ProfileError> errors;
    EXPECT_FALSE(ParseProfile(text, profile, errors));
    EXPECT_TRUE(profile.GetHosts().empty());
    std::vector<unsigned> lines;
    for (const ProfileError& error : errors) {
        lines.push_back(error.Line);
    }
    EXPECT_EQ(lines, (std::vector<unsigned>{2, 3, 5, 6, 8, 9, 10}));
    EXPECT_NE(errors.at(1).Format("p.toml").find("p.toml:3:1: unknown key 'colour'"), std::string::npos)
        << errors.at(1).Format("p.toml");

    errors.clear();
    EXPECT_FALSE(ParseProfile("[host.\"\"]\nseverity = \"Info\"\n[host.\"\"\n", profile, errors));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].Line, 3u);
    errors.clear();
    EXPECT_FALSE(ParseProfile("[host.\"\".application.A.subsystem.S.module.\"\"]\n", profile, errors));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].Message, "a module needs a name");
}

TEST(ProfileFile, DeepNestingAndMoreThanABufferHoldsAreErrorsWithTheirLine) {
    const std::string subsystem = "[host.\"\".application.A.subsystem.S]\n";
    auto modules = [](size_t count) {
        std::string text;
        for (size_t i = 0; i < count; ++i)
            text += "module.m" + std::to_string(i) + " = {}\n";
        return text;
    };
    auto flags = [](size_t count) {
        std::string text = "module.M.flags = {";
        for (size_t i = 0; i < count; ++i)
            text += (i == 0 ? " f" : ", f") + std::to_string(i) + " = true";
        return text + " }\n";
    };
    struct Case {
        const char* what;
        std::string text;
        unsigned line;  // 0: accepted
        const char* message;
    };
    auto repeat = [](const std::string& part, size_t count) {
        std::string text;
        for (size_t i = 0; i < count; ++i)
            text += part;
        return text;
    };
    const Case cases[] = {
        {"dotted header", "# deep\n[a" + repeat(".a", 50000) + "]\n", 2, "dotted keys"},
        {"dotted key", "\n\nx" + repeat(".a", 50000) + " = 1\n", 3, "dotted keys"},
        {"arrays", "x = " + repeat("[", 50000) + "\n", 1, "arrays and tables"},
        {"inline tables", "x = " + repeat("{a = ", 50000), 1, "arrays and tables"},
        {"quoted dots", "[host.\"" + std::string(1000, '.') + "\"]\n", 0, ""},
        {"28 flags", subsystem + flags(28), 0, ""},
        {"29 flags", subsystem + flags(29), 2, "a module holds at most 28 flags, not 29"},
        {"too many modules", subsystem + modules(65536), 2,
         "a subsystem holds at most 65535 modules, not 65536"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TraceProfile profile;
        std::vector<ProfileError> errors;
        EXPECT_EQ(ParseProfile(c.text, profile, errors), c.line == 0);
        if (c.line == 0)
            continue;
        ASSERT_EQ(errors.size(), 1u);
        EXPECT_EQ(errors[0].Line, c.line);
        EXPECT_NE(errors[0].Message.find(c.message), std::string::npos) << errors[0].Message;
    }
}

}  // namespace
}  // namespace Tracing::Tool
