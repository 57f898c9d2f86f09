// paxltrace: list, tail, filter and configure the trace buffers of this machine.
#include <iostream>

#include "tools/Commands.h"

int main(int argc, char** argv) {
    using namespace Tracing::Tool;
    CLI::App app("paxltrace - machine-wide tracing: list buffers, tail traces, change filters, load profiles",
                 "paxltrace");
    app.require_subcommand(1);
    app.set_version_flag("--version", "paxltrace " PAXLTRACE_VERSION, "Print the version and exit");
    // Options start with '-' on every system: "/path/file" is a file, also on Windows.
    app.allow_windows_style_options(false);
    app.footer(
        "Exit codes: 0 success, 1 runtime failure (e.g. buffer not found), 2 bad arguments or file.\n"
        "Shared memory names follow TRACE_PREFIX from the environment.");
    Action action;
    AddInfoCommand(app, action);
    AddBufferCommands(app, action);
    AddTailCommand(app, action);
    AddProfileCommand(app, action);
    AddConvertCommand(app, action);
    AddRecordCommand(app, action);
    AddForwardCommand(app, action);
    AddExportCommand(app, action);
    AddDemoCommands(app, action);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return ExitUsage;
    }
    try {
        return action ? action() : ExitUsage;
    } catch (const std::exception& e) {
        std::cerr << "paxltrace: " << e.what() << '\n';
        return ExitFailure;
    }
}
