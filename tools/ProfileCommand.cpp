// profile load / check / show: profiles as TOML files.
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "Trace/Profiles/TraceProfileSHMHandler.h"
#include "Trace/Registry/TraceRegistry.h"
#include "tools/Commands.h"
#include "tools/ProfileFile.h"
#include "tools/ToolOs.h"

namespace Tracing::Tool {

namespace {

struct ProfileOptions {
    std::string File;
    double Duration = 0;
};

// Reads and validates the file; prints every error with its position.
int ReadProfileFile(const std::string& path, TraceProfile& profile) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::cerr << "paxltrace: cannot read " << path << '\n';
        return ExitFailure;
    }
    std::stringstream text;
    text << in.rdbuf();
    std::vector<ProfileError> errors;
    if (!ParseProfile(text.str(), profile, errors)) {
        for (const ProfileError& error : errors) {
            std::cerr << error.Format(path) << '\n';
        }
        return ExitUsage;
    }
    return ExitOk;
}

int RunCheck(const ProfileOptions& options) {
    TraceProfile profile;
    int result = ReadProfileFile(options.File, profile);
    if (result == ExitOk) {
        PrintProfile(std::cout, profile);
    }
    return result;
}

int RunLoad(const ProfileOptions& options) {
    TraceProfile profile;
    if (int result = ReadProfileFile(options.File, profile); result != ExitOk) {
        return result;
    }
    InstallStopHandler();
    switch (TraceProfileSHMHandler::GetInstance().CreateSHM(profile)) {
        case TraceProfileSHMHandler::Published:
            break;
        case TraceProfileSHMHandler::NothingToPublish:
            std::cerr << "paxltrace: " << options.File << " holds no subsystem settings to publish\n";
            return ExitFailure;
        default:
            std::cerr << "paxltrace: the profile could not be published\n";
            return ExitFailure;
    }
    // The published block lives only while a process holds it.
    if (options.Duration > 0) {
        std::cout << "Profile " << options.File << " in force for " << options.Duration << " s" << std::endl;
        SleepUnlessStopped(static_cast<unsigned>(options.Duration * 1000));
    } else {
        std::cout << "Profile " << options.File << " in force until this command ends (Ctrl-C)" << std::endl;
        while (!StopRequested()) {
            SleepUnlessStopped(1000);
        }
    }
    return ExitOk;
}

int RunShow() {
    WaitForRegistryUpdate();
    TraceProfile profile;
    TraceRegistry::GetInstance().GetGlobalTraceProfile(profile);
    PrintProfile(std::cout, profile);
    return ExitOk;
}

}  // namespace

void AddProfileCommand(CLI::App& app, Action& action) {
    CLI::App* profile = app.add_subcommand("profile", "Load, check or show trace profiles (TOML files)");
    profile->require_subcommand(1);

    auto options = std::make_shared<ProfileOptions>();
    CLI::App* load = profile->add_subcommand(
        "load",
        "Publish a profile: buffers created while this command runs take their sizes and filters from it");
    load->add_option("file", options->File, "Profile file (TOML)")->required();
    load->add_option("--duration", options->Duration,
                     "Seconds to keep the profile in force (default: until Ctrl-C)")
        ->check(CLI::NonNegativeNumber);
    load->callback([&action, options] { action = [options] { return RunLoad(*options); }; });

    CLI::App* check =
        profile->add_subcommand("check", "Validate a profile file and print it as it was understood");
    check->add_option("file", options->File, "Profile file (TOML)")->required();
    check->callback([&action, options] { action = [options] { return RunCheck(*options); }; });

    profile->add_subcommand("show", "Print the profile of the running buffers in the file format")
        ->callback([&action] { action = [] { return RunShow(); }; });
}

}  // namespace Tracing::Tool
