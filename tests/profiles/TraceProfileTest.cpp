#include "Trace/Profiles/TraceProfile.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Tracing::TraceProfile;

namespace {

// Each visit as "host/application/subsystem severity,maxModules,streamSize,mode,moduleCount".
class RecordingVisitor : public TraceProfile::ISubSystemVisitor {
public:
    void Visit(const TraceProfile::SubSystem& subSystem, const std::string& hostName,
               const std::string& applicationName) override {
        paths.push_back(hostName + "/" + applicationName + "/" + subSystem.GetName());
        visits.push_back(paths.back() + " " + std::to_string(subSystem.GetSeverity()) + "," +
                         std::to_string(subSystem.GetMaxModules()) + "," +
                         std::to_string(subSystem.GetTraceStreamSize()) + "," +
                         std::to_string(subSystem.GetTimestampMode()) + "," +
                         std::to_string(subSystem.GetModules().size()));
    }
    std::vector<std::string> paths;
    std::vector<std::string> visits;
};

RecordingVisitor VisitAll(const TraceProfile& profile) {
    RecordingVisitor visitor;
    profile.StartVisitor(visitor);
    return visitor;
}

using Texts = std::vector<std::string>;

}  // namespace

TEST(TraceProfileModel, CreatingAnExistingChildReturnsItUnchangedAndEmptyNamesAreDefaultsOnly) {
    TraceProfile profile;
    TraceProfile::Host* host = profile.CreateHost("host");
    host->SetSeverity(3);
    TraceProfile::Module* module =
        host->CreateApplication("app")->CreateSubSystem("sub")->CreateModule("mod");
    module->SetSeverity(6);
    TraceProfile::Flag* flag = module->CreateFlag("flag");
    flag->SetEnabled(true);

    // Siblings inserted around them must not move the nodes handed out.
    for (const char* name : {"a", "z", "hosta", "hostz"})
        profile.CreateHost(name)->CreateApplication(name);
    EXPECT_EQ(profile.CreateHost("host"), host);
    EXPECT_EQ(host->GetSeverity(), 3u);
    EXPECT_EQ(host->CreateApplication("app")->CreateSubSystem("sub")->CreateModule("mod"), module);
    EXPECT_EQ(module->GetSeverity(), 6u);
    EXPECT_EQ(module->CreateFlag("flag"), flag);
    EXPECT_TRUE(flag->IsEnabled());

    // Empty names are defaults for hosts, applications and subsystems, never for modules or flags.
    TraceProfile::SubSystem* defaults = profile.CreateHost("")->CreateApplication("")->CreateSubSystem("");
    ASSERT_NE(defaults, nullptr);
    EXPECT_EQ(defaults->CreateModule(""), nullptr);
    EXPECT_EQ(module->CreateFlag(""), nullptr);
    EXPECT_EQ(module->GetFlags().size(), 1u);

    const TraceProfile::Host* fresh = profile.CreateHost("new");
    EXPECT_EQ(fresh->GetResynchronizationPeriod(), 10000u);
    EXPECT_FALSE(fresh->HasOwnValues() || fresh->HasGlobalSwitches());
}

TEST(TraceProfileModel, FindCopiesTheNodeOrLeavesOutUnchanged) {
    TraceProfile profile;
    TraceProfile::Application* application = profile.CreateHost("h")->CreateApplication("a");
    TraceProfile::Module* module = application->CreateSubSystem("s")->CreateModule("m");
    module->SetSeverity(5);
    module->CreateFlag("f")->SetEnabled(true);

    TraceProfile::Module found("untouched");
    EXPECT_FALSE(profile.FindModule(found, "h", "missing", "s", "m"));
    EXPECT_FALSE(profile.FindModule(found, "missing", "a", "s", "m"));
    EXPECT_FALSE(profile.FindModule(found, "h", "a", "s", "M"));  // case-sensitive
    EXPECT_EQ(found.GetName(), "untouched");
    ASSERT_TRUE(profile.FindModule(found, "h", "a", "s", "m"));
    EXPECT_EQ(found.GetSeverity(), 5u);
    // The copy is independent of the tree.
    found.CreateFlag("extra");
    EXPECT_EQ(module->GetFlags().size(), 1u);

    TraceProfile::Flag flag("kept");
    EXPECT_FALSE(profile.FindFlag(flag, "h", "a", "s", "m", "g"));
    EXPECT_EQ(flag.GetName(), "kept");
    ASSERT_TRUE(profile.FindFlag(flag, "h", "a", "s", "m", "f"));
    EXPECT_TRUE(flag.IsEnabled());

    // Deleting takes the descendants along; a re-created node starts empty.
    EXPECT_TRUE(module->DeleteFlag("f") && !module->DeleteFlag("f"));
    EXPECT_FALSE(profile.FindFlag(flag, "h", "a", "s", "m", "f"));
    EXPECT_FALSE(application->DeleteSubSystem("missing"));
    EXPECT_TRUE(application->DeleteSubSystem("s"));
    EXPECT_FALSE(profile.FindModule(found, "h", "a", "s", "m"));
    TraceProfile::SubSystem* recreated = application->CreateSubSystem("s");
    EXPECT_TRUE(recreated->GetModules().empty());
    recreated->CreateModule("m");
    EXPECT_TRUE(recreated->DeleteModule("m") && !recreated->DeleteModule("m") &&
                recreated->GetModules().empty());
    EXPECT_TRUE(profile.DeleteHost("h") && !profile.DeleteHost("h") && profile.GetHost("h") == nullptr);
}

TEST(TraceProfileVisitor, ValuesAreInheritedLevelByLevel) {
    TraceProfile profile;
    TraceProfile::Host* host = profile.CreateHost("h");
    host->SetMaxModules(7);
    host->SetTimestampMode(2);
    TraceProfile::Application* application = host->CreateApplication("a");
    application->SetSeverity(3);
    application->SetTraceStreamSize(4096);
    application->CreateSubSystem("inherits")->CreateModule("m");
    TraceProfile::SubSystem* own = application->CreateSubSystem("own");
    own->SetSeverity(5);
    own->SetTimestampMode(3);

    // The host has values of its own, so a default application comes first; the application has
    // its own too, so it gets a default subsystem.
    EXPECT_EQ(VisitAll(profile).visits, (Texts{"h// 0,7,0,2,0", "h/a/ 3,7,4096,2,0",
                                               "h/a/inherits 3,7,4096,2,1", "h/a/own 5,7,4096,3,0"}));
    // The tree itself keeps its own values; inheritance lives only in the visit.
    EXPECT_EQ(application->GetSubSystem("inherits")->GetSeverity(), 0u);
}

TEST(TraceProfileVisitor, SyntheticDefaultEntriesCarryTheUpperValues) {
    TraceProfile profile;
    TraceProfile::Host* host = profile.CreateHost("h");
    host->SetSeverity(4);
    host->CreateApplication("B");
    EXPECT_EQ(VisitAll(profile).visits, (Texts{"h// 4,0,0,0,0", "h/B/ 4,0,0,0,0"}));

    // Existing default entries are visited in place, never twice.
    host->CreateApplication("")->CreateSubSystem("")->CreateModule("m");
    host->GetApplication("B")->CreateSubSystem("")->SetSeverity(6);
    EXPECT_EQ(VisitAll(profile).visits, (Texts{"h// 4,0,0,0,1", "h/B/ 6,0,0,0,0"}));

    // Without values above, nothing is made up; values of an application alone make only its own
    // default subsystem.
    TraceProfile plain;
    plain.CreateHost("h")->CreateApplication("a")->CreateSubSystem("s");
    plain.GetHost("h")->CreateApplication("b");
    EXPECT_EQ(VisitAll(plain).paths, (Texts{"h/a/s"}));
    plain.GetHost("h")->GetApplication("b")->SetTraceStreamSize(8192);
    EXPECT_EQ(VisitAll(plain).visits, (Texts{"h/a/s 0,0,0,0,0", "h/b/ 0,0,8192,0,0"}));
}

TEST(TraceProfileVisitor, ApplicationsInCaseInsensitiveOrderTheRestInMapOrder) {
    TraceProfile profile;
    for (const char* host : {"y", "X"}) {
        TraceProfile::Host* node = profile.CreateHost(host);
        for (const char* application : {"b", "A", "c", "B"})
            node->CreateApplication(application)->CreateSubSystem("s");
    }
    TraceProfile::Application* application = profile.GetHost("X")->GetApplication("A");
    application->CreateSubSystem("b");
    application->CreateSubSystem("C");

    // Hosts and subsystems in byte order ("X" < "y", "C" < "b" < "s"); applications ignore case,
    // and equal names keep their byte order ("B" before "b").
    EXPECT_EQ(VisitAll(profile).paths, (Texts{"X/A/C", "X/A/b", "X/A/s", "X/B/s", "X/b/s", "X/c/s", "y/A/s",
                                              "y/B/s", "y/b/s", "y/c/s"}));
}
