#include "tools/ProfileFile.h"

#include <toml++/toml.h>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <limits>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Records/Severity.h"
#include "Trace/Time/TimestampMode.h"

namespace Tracing::Tool {

std::string ProfileError::Format(const std::string& source) const {
    std::string text = source;
    if (Line != 0) {
        text += ':' + std::to_string(Line) + ':' + std::to_string(Column);
    }
    return text + ": " + Message;
}

namespace {

// The deepest sensible path is host.H.application.A.subsystem.S.module.M.flags.F (10 parts);
// the parser recurses per level, so far deeper nesting is refused before it runs.
constexpr unsigned MaxNesting = 32;
// What one buffer holds: 28 flag slots per module, and as many modules as max_modules allows.
constexpr size_t MaxFlagsPerModule = 28;
constexpr size_t MaxModulesPerSubSystem = std::numeric_limits<uint16_t>::max();

// Finds the first place where keys have more parts, or arrays and tables lie deeper within each
// other, than MaxNesting. Strings and comments are skipped; dots are counted per key run.
bool CheckNesting(std::string_view text, ProfileError& error) {
    unsigned line = 1;
    size_t lineStart = 0;
    unsigned depth = 0;
    unsigned dots = 0;
    const auto fail = [&](size_t at, const char* what) {
        error = {std::string(what) + " nest deeper than " + std::to_string(MaxNesting) + " levels", line,
                 static_cast<unsigned>(at - lineStart + 1)};
        return false;
    };
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\n') {
            ++line;
            lineStart = i + 1;
            dots = 0;
        } else if (c == '#') {
            while (i + 1 < text.size() && text[i + 1] != '\n')
                ++i;
        } else if (c == '"' || c == '\'') {
            const bool triple = text.substr(i, 3) == std::string_view(c == '"' ? "\"\"\"" : "'''");
            const std::string_view close = triple ? text.substr(i, 3) : text.substr(i, 1);
            for (i += close.size(); i < text.size() && text.substr(i, close.size()) != close; ++i) {
                if (c == '"' && text[i] == '\\' && i + 1 < text.size())
                    ++i;  // an escaped character, perhaps a line break
                if (text[i] == '\n') {
                    ++line;
                    lineStart = i + 1;
                }
            }
            i += close.size() - 1;
        } else if (c == '[' || c == '{') {
            if (++depth > MaxNesting)
                return fail(i, "arrays and tables");
            dots = 0;
        } else if (c == ']' || c == '}') {
            depth = depth > 0 ? depth - 1 : 0;
        } else if (c == '=' || c == ',') {
            dots = 0;
        } else if (c == '.' && ++dots >= MaxNesting) {
            return fail(i, "dotted keys");
        }
    }
    return true;
}

const char* const SeverityHint = "a severity name (Fatal, Error, Warning, Info, Verbose, Debug, Call) or 1-7";

class Parser {
public:
    explicit Parser(std::vector<ProfileError>& errors) : m_errors(errors) {}

    void Root(const toml::table& root, TraceProfile& profile) {
        for (auto&& [key, node] : root) {
            if (key.str() != "host") {
                Unknown(key, "at the top level (expected [host.\"name\"])");
                continue;
            }
            ForEachChild(key, node, [&](const toml::key& name, const toml::table& table) {
                HostTable(table, *profile.CreateHost(std::string(name.str())));
            });
        }
    }

private:
    using ChildHandler = std::function<void(const toml::key&, const toml::table&)>;

    void Error(const toml::source_region& where, std::string message) {
        m_errors.push_back({std::move(message), where.begin.line, where.begin.column});
    }
    void Unknown(const toml::key& key, const char* where) {
        Error(key.source(), "unknown key '" + std::string(key.str()) + "' " + where);
    }

    // A table whose entries are named child tables (host, application, subsystem, module).
    void ForEachChild(const toml::key& key, const toml::node& node, const ChildHandler& handler) {
        const toml::table* children = node.as_table();
        if (children == nullptr) {
            Error(node.source(), "'" + std::string(key.str()) + "' must be a table of named entries");
            return;
        }
        for (auto&& [name, child] : *children) {
            const toml::table* table = child.as_table();
            if (table == nullptr) {
                Error(child.source(),
                      "'" + std::string(key.str()) + "." + std::string(name.str()) + "' must be a table");
                continue;
            }
            handler(name, *table);
        }
    }

    bool Unsigned(const toml::key& key, const toml::node& node, uint64_t min, uint64_t max, uint32_t& out) {
        auto value = node.value_exact<int64_t>();
        if (!value || *value < 0 || static_cast<uint64_t>(*value) < min ||
            static_cast<uint64_t>(*value) > max) {
            Error(node.source(), "'" + std::string(key.str()) + "' must be an integer from " +
                                     std::to_string(min) + " to " + std::to_string(max));
            return false;
        }
        out = static_cast<uint32_t>(*value);
        return true;
    }

    bool SeverityValue(const toml::node& node, uint32_t& out) {
        if (auto number = node.value_exact<int64_t>()) {
            if (*number >= Severity::Fatal && *number <= Severity::Call) {
                out = static_cast<uint32_t>(*number);
                return true;
            }
        } else if (auto name = node.value_exact<std::string>()) {
            for (uint32_t value = Severity::Fatal; value <= Severity::Call; ++value) {
                if (EqualsIgnoreCase(*name, Severity::Name(value))) {
                    out = value;
                    return true;
                }
            }
        }
        Error(node.source(), std::string("'severity' must be ") + SeverityHint);
        return false;
    }

    bool Switch(const toml::key& key, const toml::node& node, uint32_t& out) {
        auto value = node.value_exact<bool>();
        if (!value) {
            Error(node.source(), "'" + std::string(key.str()) + "' must be true or false");
            return false;
        }
        out = *value ? TraceProfile::Host::SwitchOn : TraceProfile::Host::SwitchOff;
        return true;
    }

    // The four settings every level above the modules has; false when the key is not one of them.
    bool Setting(const toml::key& key, const toml::node& node, TraceProfile::Settings& settings) {
        uint32_t value = 0;
        if (key.str() == "severity") {
            if (SeverityValue(node, value)) {
                settings.SetSeverity(value);
            }
        } else if (key.str() == "max_modules") {
            if (Unsigned(key, node, 1, std::numeric_limits<uint16_t>::max(), value)) {
                settings.SetMaxModules(value);
            }
        } else if (key.str() == "stream_size") {
            if (Unsigned(key, node, TraceBuffer::MinStreamSize, TraceBuffer::MaxStreamSize, value)) {
                settings.SetTraceStreamSize(value);
            }
        } else if (key.str() == "timestamp_mode") {
            auto name = node.value_exact<std::string>();
            auto mode = name ? TimestampMode::FromString(name->c_str()) : TimestampMode::NotSet;
            if (mode == TimestampMode::NotSet) {
                Error(node.source(), "'timestamp_mode' must be SEQ_ID, FAST, PRECISE or OPTIMAL");
            } else {
                settings.SetTimestampMode(mode);
            }
        } else {
            return false;
        }
        return true;
    }

    void HostTable(const toml::table& table, TraceProfile::Host& host) {
        for (auto&& [key, node] : table) {
            uint32_t value = 0;
            if (Setting(key, node, host)) {
                continue;
            }
            if (key.str() == "resync_period") {
                if (Unsigned(key, node, 1, std::numeric_limits<uint32_t>::max(), value)) {
                    host.SetResynchronizationPeriod(value);
                }
            } else if (key.str() == "trace_location") {
                if (Switch(key, node, value)) {
                    host.SetWriteTraceLocation(value);
                }
            } else if (key.str() == "event_log") {
                if (Switch(key, node, value)) {
                    host.SetWriteToEventLog(value);
                }
            } else if (key.str() == "global_trace_id") {
                if (Switch(key, node, value)) {
                    host.SetGlobalTraceID(value);
                }
            } else if (key.str() == "application") {
                ForEachChild(key, node, [&](const toml::key& name, const toml::table& child) {
                    ApplicationTable(child, *host.CreateApplication(std::string(name.str())));
                });
            } else {
                Unknown(key, "in a host");
            }
        }
    }

    void ApplicationTable(const toml::table& table, TraceProfile::Application& application) {
        for (auto&& [key, node] : table) {
            if (Setting(key, node, application)) {
                continue;
            }
            if (key.str() == "subsystem") {
                ForEachChild(key, node, [&](const toml::key& name, const toml::table& child) {
                    SubSystemTable(child, *application.CreateSubSystem(std::string(name.str())));
                });
            } else {
                Unknown(key, "in an application");
            }
        }
    }

    void SubSystemTable(const toml::table& table, TraceProfile::SubSystem& subSystem) {
        for (auto&& [key, node] : table) {
            if (Setting(key, node, subSystem)) {
                continue;
            }
            if (key.str() != "module") {
                Unknown(key, "in a subsystem");
                continue;
            }
            if (const toml::table* modules = node.as_table();
                modules != nullptr && modules->size() > MaxModulesPerSubSystem) {
                Error(key.source(), "a subsystem holds at most " + std::to_string(MaxModulesPerSubSystem) +
                                        " modules, not " + std::to_string(modules->size()));
                continue;
            }
            ForEachChild(key, node, [&](const toml::key& name, const toml::table& child) {
                TraceProfile::Module* module = subSystem.CreateModule(std::string(name.str()));
                if (module == nullptr) {
                    Error(name.source(), "a module needs a name");
                    return;
                }
                ModuleTable(child, *module);
            });
        }
    }

    void ModuleTable(const toml::table& table, TraceProfile::Module& module) {
        for (auto&& [key, node] : table) {
            uint32_t severity = 0;
            if (key.str() == "severity") {
                if (SeverityValue(node, severity)) {
                    module.SetSeverity(severity);
                }
            } else if (key.str() == "flags") {
                const toml::table* flags = node.as_table();
                if (flags == nullptr) {
                    Error(node.source(), "'flags' must be a table of name = true|false");
                    continue;
                }
                if (flags->size() > MaxFlagsPerModule) {
                    Error(node.source(), "a module holds at most " + std::to_string(MaxFlagsPerModule) +
                                             " flags, not " + std::to_string(flags->size()));
                    continue;
                }
                for (auto&& [name, value] : *flags) {
                    auto enabled = value.value_exact<bool>();
                    TraceProfile::Flag* flag = enabled ? module.CreateFlag(std::string(name.str())) : nullptr;
                    if (!enabled) {
                        Error(value.source(), "flag '" + std::string(name.str()) + "' must be true or false");
                    } else if (flag == nullptr) {
                        Error(name.source(), "a flag needs a name");
                    } else {
                        flag->SetEnabled(*enabled);
                    }
                }
            } else {
                Unknown(key, "in a module");
            }
        }
    }

    static bool EqualsIgnoreCase(const std::string& left, const char* right) {
        size_t i = 0;
        for (; i < left.size() && right[i] != '\0'; ++i) {
            if (std::tolower(static_cast<unsigned char>(left[i])) !=
                std::tolower(static_cast<unsigned char>(right[i]))) {
                return false;
            }
        }
        return i == left.size() && right[i] == '\0';
    }

    std::vector<ProfileError>& m_errors;
};

// A bare key where TOML allows one, else a quoted one.
std::string Key(const std::string& name) {
    bool bare = !name.empty();
    for (unsigned char c : name) {
        bare = bare && (std::isalnum(c) || c == '_' || c == '-');
    }
    if (bare) {
        return name;
    }
    std::string quoted = "\"";
    for (unsigned char c : name) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7F) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04X", c);
            quoted += escape;
        } else {
            quoted += static_cast<char>(c);
        }
    }
    return quoted + '"';
}

void PrintSeverity(std::ostream& out, uint32_t severity) {
    if (severity >= Severity::Fatal && severity <= Severity::Call) {
        out << "severity = \"" << Severity::Name(severity) << "\"\n";
    } else {
        out << "severity = " << severity << '\n';
    }
}

void PrintSettings(std::ostream& out, const TraceProfile::Settings& settings) {
    if (settings.GetSeverity() != 0) {
        PrintSeverity(out, settings.GetSeverity());
    }
    if (settings.GetMaxModules() != 0) {
        out << "max_modules = " << settings.GetMaxModules() << '\n';
    }
    if (settings.GetTraceStreamSize() != 0) {
        out << "stream_size = " << settings.GetTraceStreamSize() << '\n';
    }
    const char* mode = TimestampMode::ToString(static_cast<TimestampMode::Type>(settings.GetTimestampMode()));
    if (mode != nullptr) {
        out << "timestamp_mode = \"" << mode << "\"\n";
    }
}

void PrintSwitch(std::ostream& out, const char* key, uint32_t value) {
    if (value != TraceProfile::Host::SwitchNotSet) {
        out << key << " = " << (value == TraceProfile::Host::SwitchOn ? "true" : "false") << '\n';
    }
}

}  // namespace

bool ParseProfile(std::string_view text, TraceProfile& profile, std::vector<ProfileError>& errors) {
    profile.Clear();
    const size_t errorsBefore = errors.size();
    if (ProfileError nesting; !CheckNesting(text, nesting)) {
        errors.push_back(std::move(nesting));
        return false;
    }
    try {
        toml::table root = toml::parse(text);
        Parser(errors).Root(root, profile);
    } catch (const toml::parse_error& error) {
        errors.push_back(
            {std::string(error.description()), error.source().begin.line, error.source().begin.column});
    }
    if (errors.size() != errorsBefore) {
        // Tables iterate by key; people read files top to bottom.
        std::stable_sort(errors.begin() + static_cast<std::ptrdiff_t>(errorsBefore), errors.end(),
                         [](const ProfileError& a, const ProfileError& b) {
                             return a.Line != b.Line ? a.Line < b.Line : a.Column < b.Column;
                         });
        profile.Clear();
        return false;
    }
    return true;
}

void PrintProfile(std::ostream& out, const TraceProfile& profile) {
    bool first = true;
    auto header = [&](const std::string& path) {
        out << (first ? "" : "\n") << '[' << path << "]\n";
        first = false;
    };
    for (const auto& [hostName, host] : profile.GetHosts()) {
        const std::string hostPath = "host." + Key(hostName);
        header(hostPath);
        if (host.GetResynchronizationPeriod() != TraceProfile::Host::DefaultResynchronizationPeriod ||
            hostName.empty()) {
            out << "resync_period = " << host.GetResynchronizationPeriod() << '\n';
        }
        PrintSwitch(out, "trace_location", host.GetWriteTraceLocation());
        PrintSwitch(out, "event_log", host.GetWriteToEventLog());
        PrintSwitch(out, "global_trace_id", host.GetGlobalTraceID());
        PrintSettings(out, host);
        for (const auto& [applicationName, application] : host.GetApplications()) {
            const std::string applicationPath = hostPath + ".application." + Key(applicationName);
            header(applicationPath);
            PrintSettings(out, application);
            for (const auto& [subSystemName, subSystem] : application.GetSubSystems()) {
                const std::string subSystemPath = applicationPath + ".subsystem." + Key(subSystemName);
                header(subSystemPath);
                PrintSettings(out, subSystem);
                for (const auto& [moduleName, module] : subSystem.GetModules()) {
                    header(subSystemPath + ".module." + Key(moduleName));
                    if (module.GetSeverity() != 0) {
                        PrintSeverity(out, module.GetSeverity());
                    }
                    if (module.GetFlags().empty()) {
                        continue;
                    }
                    out << "flags = {";
                    const char* separator = " ";
                    for (const auto& [flagName, flag] : module.GetFlags()) {
                        out << separator << Key(flagName) << " = " << (flag.IsEnabled() ? "true" : "false");
                        separator = ", ";
                    }
                    out << " }\n";
                }
            }
        }
    }
}

}  // namespace Tracing::Tool
