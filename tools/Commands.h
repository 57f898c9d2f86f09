// The subcommands of the paxltrace tool and what they share.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Trace/Records/Severity.h"

namespace Tracing {
class TraceBuffer;
}

namespace Tracing::Tool {

// Exit codes scripts can rely on.
enum ExitCode : int {
    ExitOk = 0,
    // Runtime failure: buffer or module not found, file not readable, publication failed.
    ExitFailure = 1,
    // Bad arguments or a file that does not parse.
    ExitUsage = 2,
};

// A subcommand's parse callback stores what to run once parsing succeeded.
using Action = std::function<int()>;

void AddInfoCommand(CLI::App& app, Action& action);
void AddConvertCommand(CLI::App& app, Action& action);
// list, modules, set-severity, set-flag
void AddBufferCommands(CLI::App& app, Action& action);
void AddProfileCommand(CLI::App& app, Action& action);
void AddTailCommand(CLI::App& app, Action& action);
// demo and its hidden producer role
void AddDemoCommands(CLI::App& app, Action& action);

struct TailOptions {
    std::vector<std::string> Buffers;  // IDs or subsystem names; empty = all
    int64_t ProcessID = 0;
    std::vector<std::string> Modules;
    std::string MinSeverity;  // empty = all
    bool Csv = false;
    std::string Output;  // empty = standard output
    uint32_t Since = 0;
    double Duration = 0;  // seconds; 0 = until stopped
    bool Stats = false;   // totals on standard error every second
    // Called once at half the duration (the demo changes a filter there).
    std::function<void()> Midway;
};
int RunTail(const TailOptions& options);

// Consumers see buffers once the registry update attached them: waits for one full cycle.
void WaitForRegistryUpdate();
// A consumer buffer by ID or subsystem name (pid 0 = any process); null with a message otherwise.
TraceBuffer* FindConsumerBuffer(const std::string& which, int64_t processID, std::string& error);
// A severity by name (any case) or number 0-7.
std::optional<Severity::Type> ParseSeverity(const std::string& text);

}  // namespace Tracing::Tool
