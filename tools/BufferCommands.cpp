// list, modules, set-severity and set-flag: the registry's buffers and their module filters.
#include <cctype>
#include <cstdio>
#include <iostream>
#include <memory>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceBufferInfo.h"
#include "Trace/Reading/TraceUpdateManager.h"
#include "Trace/Registry/TraceRegistry.h"
#include "tools/Commands.h"
#include "tools/ToolOs.h"

namespace Tracing::Tool {

namespace {

bool IsNumber(const std::string& text) {
    if (text.empty() || text.size() > 10) {
        return false;
    }
    for (unsigned char c : text) {
        if (!std::isdigit(c)) {
            return false;
        }
    }
    return true;
}

std::string OrDash(const std::string& text) {
    return text.empty() ? "-" : text;
}

// How much of the ring holds traces: the write position runs freely, so past the ring's size the
// ring has wrapped and is full.
std::string Fill(const TraceBufferInfo& info) {
    if (info.RingBufferSize == 0) {
        return "-";
    }
    if (info.WriteIndex >= info.RingBufferSize) {
        return "wrapped";
    }
    return std::to_string(static_cast<uint64_t>(info.WriteIndex) * 100 / info.RingBufferSize) + "%";
}

// Traces written: only a buffer with trace IDs of its own counts them; with machine-wide IDs its
// counter stays 0, which would read as "nothing written".
std::string Traces(const TraceBufferInfo& info) {
    return info.GlobalTraceID ? "-" : std::to_string(info.TotalTraceCounter);
}

int RunList() {
    WaitForRegistryUpdate();
    std::vector<std::unique_ptr<TraceBufferInfo>> infos;
    TraceRegistry::GetInstance().ConsumerBrowse(infos);
    std::printf("%-8s %-8s %-12s %-12s %-16s %-16s %-8s %-10s %-8s %s\n", "ID", "PID", "Host", "System",
                "Application", "Subsystem", "Modules", "Ring", "Fill", "Traces");
    for (const auto& info : infos) {
        // The library's own buffer in this very process is no news.
        if (info->ProcessID == CurrentProcess()) {
            continue;
        }
        std::printf("%-8d %-8lld %-12s %-12s %-16s %-16s %3u/%-4u %-10u %-8s %s\n", info->BufferID,
                    static_cast<long long>(info->ProcessID),
                    info->IsLocal() ? "(local)" : info->HostName.c_str(), OrDash(info->SystemName).c_str(),
                    OrDash(info->ApplicationName).c_str(), OrDash(info->SubSystemName).c_str(),
                    info->ModuleCount, info->SizeOfModuleArray, info->RingBufferSize, Fill(*info).c_str(),
                    Traces(*info).c_str());
    }
    return ExitOk;
}

std::string FlagsText(const TraceModuleInfo& module) {
    std::string text;
    for (const TraceFlagInfo& flag : module.Flags) {
        text += (text.empty() ? "" : " ") + flag.Name + (flag.Active ? "=on" : "=off");
    }
    return text.empty() ? "-" : text;
}

int RunModules(const std::string& which, int64_t processID) {
    WaitForRegistryUpdate();
    std::string error;
    TraceBuffer* buffer = FindConsumerBuffer(which, processID, error);
    if (buffer == nullptr) {
        std::cerr << "paxltrace: " << error << '\n';
        return ExitFailure;
    }
    std::vector<TraceModuleInfo> modules;
    buffer->Browse(modules);
    std::printf("%-4s %-24s %-9s %-10s %s\n", "ID", "Module", "Severity", "Filter", "Flags");
    for (const TraceModuleInfo& module : modules) {
        std::printf("%-4d %-24s %-9s 0x%08x %s\n", module.ModuleID, module.Name.c_str(),
                    Severity::Name(module.SeverityValue), module.FilterState, FlagsText(module).c_str());
    }
    return ExitOk;
}

// The module by name, or by ID when the text is a number.
bool FindModule(TraceBuffer& buffer, const std::string& which, TraceModuleInfo& module) {
    if (buffer.GetModuleInfo(which.c_str(), module)) {
        return true;
    }
    return IsNumber(which) && buffer.GetModuleInfo(std::stoi(which), module);
}

struct FilterTarget {
    std::string Buffer;
    std::string Module;
    int64_t ProcessID = 0;
};

// Finds buffer and module; prints why not and returns null when either is missing.
TraceBuffer* Resolve(const FilterTarget& target, TraceModuleInfo& module) {
    WaitForRegistryUpdate();
    std::string error;
    TraceBuffer* buffer = FindConsumerBuffer(target.Buffer, target.ProcessID, error);
    if (buffer == nullptr) {
        std::cerr << "paxltrace: " << error << '\n';
        return nullptr;
    }
    if (!FindModule(*buffer, target.Module, module)) {
        std::cerr << "paxltrace: buffer " << buffer->GetBufferID() << " has no module '" << target.Module
                  << "'\n";
        return nullptr;
    }
    return buffer;
}

int RunSetSeverity(const FilterTarget& target, const std::string& severityText) {
    auto severity = ParseSeverity(severityText);
    if (!severity) {
        std::cerr << "paxltrace: unknown severity '" << severityText << "' (None, Fatal .. Call or 0-7)\n";
        return ExitUsage;
    }
    TraceModuleInfo module;
    TraceBuffer* buffer = Resolve(target, module);
    if (buffer == nullptr) {
        return ExitFailure;
    }
    bool changed = buffer->SetSeverity(module.ModuleID, *severity);
    std::printf("buffer %d module %s: severity %s -> %s%s\n", buffer->GetBufferID(), module.Name.c_str(),
                Severity::Name(module.SeverityValue), Severity::Name(*severity),
                changed ? "" : " (unchanged)");
    return ExitOk;
}

int RunSetFlag(const FilterTarget& target, const std::string& flagName, bool on) {
    TraceModuleInfo module;
    TraceBuffer* buffer = Resolve(target, module);
    if (buffer == nullptr) {
        return ExitFailure;
    }
    const TraceFlagInfo* flag = module.FindFlag(flagName);
    if (flag == nullptr && IsNumber(flagName) && std::stoi(flagName) <= 31) {
        flag = module.FindFlag(static_cast<uint8_t>(std::stoi(flagName)));
    }
    if (flag == nullptr) {
        std::cerr << "paxltrace: module " << module.Name << " has no flag '" << flagName << "'\n";
        return ExitFailure;
    }
    bool changed = buffer->SetFlag(module.ModuleID, on, flag->BitNo);
    std::printf("buffer %d module %s: flag %s %s%s\n", buffer->GetBufferID(), module.Name.c_str(),
                flag->Name.c_str(), on ? "on" : "off", changed ? "" : " (unchanged)");
    return ExitOk;
}

void AddTarget(CLI::App& command, FilterTarget& target) {
    command.add_option("buffer", target.Buffer, "Buffer ID or subsystem name")->required();
    command.add_option("module", target.Module, "Module name or ID")->required();
    command.add_option("--pid", target.ProcessID,
                       "Process of the buffer, when a subsystem name is ambiguous");
}

}  // namespace

void WaitForRegistryUpdate() {
    TraceRegistry::GetInstance();
    TraceUpdateManager::GetInstance().WaitForAllUpdates();
}

TraceBuffer* FindConsumerBuffer(const std::string& which, int64_t processID, std::string& error) {
    TraceRegistry& registry = TraceRegistry::GetInstance();
    if (IsNumber(which)) {
        TraceBuffer* buffer = registry.GetConsumerBuffer(static_cast<int32_t>(std::stoll(which)));
        if (buffer == nullptr) {
            error = "no buffer with ID " + which;
        }
        return buffer;
    }
    std::vector<std::unique_ptr<TraceBufferInfo>> infos;
    registry.ConsumerBrowse(infos);
    const TraceBufferInfo* found = nullptr;
    int matches = 0;
    for (const auto& info : infos) {
        if (info->SubSystemName == which && (processID == 0 || info->ProcessID == processID)) {
            found = info.get();
            ++matches;
        }
    }
    if (matches == 0) {
        error = "no buffer with subsystem '" + which + "'" +
                (processID != 0 ? " in process " + std::to_string(processID) : std::string());
        return nullptr;
    }
    if (matches > 1) {
        error = std::to_string(matches) + " buffers have subsystem '" + which +
                "': choose one with --pid or by ID";
        return nullptr;
    }
    TraceBuffer* buffer = registry.GetConsumerBuffer(found->BufferID);
    if (buffer == nullptr) {
        error = "buffer " + std::to_string(found->BufferID) + " has gone";
    }
    return buffer;
}

std::optional<Severity::Type> ParseSeverity(const std::string& text) {
    if (text.size() == 1 && text[0] >= '0' && text[0] <= '7') {
        return static_cast<Severity::Type>(text[0] - '0');
    }
    for (uint32_t value = Severity::None; value <= Severity::Call; ++value) {
        std::string name = Severity::Name(value);
        if (name.size() == text.size() &&
            std::equal(name.begin(), name.end(), text.begin(),
                       [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); })) {
            return static_cast<Severity::Type>(value);
        }
    }
    return std::nullopt;
}

void AddBufferCommands(CLI::App& app, Action& action) {
    app.add_subcommand("list",
                       "List the trace buffers of this machine (Traces: traces written, '-' for "
                       "buffers with machine-wide trace IDs, which count none of their own)")
        ->callback([&action] { action = [] { return RunList(); }; });

    auto modules = std::make_shared<FilterTarget>();
    CLI::App* modulesCommand =
        app.add_subcommand("modules", "List a buffer's modules with severity and flags");
    modulesCommand->add_option("buffer", modules->Buffer, "Buffer ID or subsystem name")->required();
    modulesCommand->add_option("--pid", modules->ProcessID, "Process of the buffer");
    modulesCommand->callback([&action, modules] {
        action = [modules] { return RunModules(modules->Buffer, modules->ProcessID); };
    });

    auto severityTarget = std::make_shared<FilterTarget>();
    auto severity = std::make_shared<std::string>();
    CLI::App* setSeverity =
        app.add_subcommand("set-severity", "Change a module's severity in a running producer");
    AddTarget(*setSeverity, *severityTarget);
    setSeverity
        ->add_option("severity", *severity, "None, Fatal, Error, Warning, Info, Verbose, Debug, Call or 0-7")
        ->required();
    setSeverity->callback([&action, severityTarget, severity] {
        action = [severityTarget, severity] { return RunSetSeverity(*severityTarget, *severity); };
    });

    auto flagTarget = std::make_shared<FilterTarget>();
    auto flag = std::make_shared<std::string>();
    auto state = std::make_shared<std::string>();
    CLI::App* setFlag = app.add_subcommand("set-flag", "Switch a module's flag in a running producer");
    AddTarget(*setFlag, *flagTarget);
    setFlag->add_option("flag", *flag, "Flag name or bit number")->required();
    setFlag->add_option("state", *state, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    setFlag->callback([&action, flagTarget, flag, state] {
        action = [flagTarget, flag, state] { return RunSetFlag(*flagTarget, *flag, *state == "on"); };
    });
}

}  // namespace Tracing::Tool
