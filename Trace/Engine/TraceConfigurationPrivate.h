// The process-wide configuration of the tracing library.
//
// Filled once, when first used: built-in defaults, then the file "paxltrace.conf" beside the
// executable, then the environment (which wins, even with an empty value). Nothing is ever written
// back. Callers are expected to configure the library before they create engines; the numeric
// settings are relaxed atomics so that a late change is at worst seen late, while the two names are
// plain character arrays whose addresses are handed out.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>

#include "Trace/Records/Severity.h"
#include "Trace/Time/TimestampMode.h"

namespace Tracing {

class TraceConfigurationPrivate {
public:
    static constexpr bool DefaultGlobalTraceID = true;
    static constexpr uint32_t MinTraceStreamSize = 16384;
    static constexpr uint32_t MaxTraceStreamSize = 0x80000000u;
    // Carried by every shared-memory name and recorded in the buffer header.
    static constexpr uint32_t ShmVersion = 1;
    static constexpr uint32_t DefaultTraceStreamSize = 0x100000;
    static constexpr uint32_t DefaultMaxNumberOfBuffers = 1000;
    static constexpr uint32_t DefaultMaxNumberOfModules = 20;
    static constexpr Severity::Type DefaultSeverityMask = Severity::Info;
    static constexpr uint32_t DefaultBufferCloseWaitMs = 150;
    static constexpr TimestampMode::Type DefaultTimestampMode = TimestampMode::OPTIMAL;
    static constexpr const char* DefaultShmUserGroupPrefix = "PAXL ";
    static constexpr const char* ConfigurationFileName = "paxltrace.conf";
    // Names are stored in 33-byte fields, like the shared-memory name fields.
    static constexpr size_t MaxNameLength = 32;

    // Returns the variable's value, or null when the environment does not define it.
    using EnvironmentLookup = std::function<const char*(const char* name)>;

    static TraceConfigurationPrivate& GetInstance();

    // Builds a configuration from the given sources; GetInstance uses the process environment and
    // the file beside the executable. A path that cannot be opened counts as an empty file.
    TraceConfigurationPrivate(const EnvironmentLookup& environment, const std::string& configurationFilePath);

    TraceConfigurationPrivate(const TraceConfigurationPrivate&) = delete;
    TraceConfigurationPrivate& operator=(const TraceConfigurationPrivate&) = delete;

    // Only the first call has effect. A system name set before is kept; zero sizes keep the
    // current ones; the mode is taken as given, also 0.
    void Initialize(const char* systemName, const char* applicationName, TimestampMode::Type mode,
                    unsigned streamSize, unsigned maxBuffers, unsigned maxModules);

    // Truncate to MaxNameLength and carry the new name into the buffers this process created.
    void SetSystemName(const char* name);
    void SetApplicationName(const char* name);
    // Called after every name change; the registry hands it over when it is made, so that the
    // buffers it created carry the new names.
    static void SetNamesChangedHandler(void (*handler)());
    const char* GetSystemName() const { return m_systemName; }
    const char* GetApplicationName() const { return m_applicationName; }

    const std::string& GetShmPrefix() const { return m_shmPrefix; }
    const std::string& GetShmUserGroupPrefix() const { return m_shmUserGroupPrefix; }
    const std::string& GetFtokDir() const { return m_ftokDir; }

    // Plain accessors: the setters store unchecked.
    Severity::Type GetSeverityFilter() const { return m_severityFilter.load(std::memory_order_relaxed); }
    void SetSeverityFilter(Severity::Type severity) {
        m_severityFilter.store(severity, std::memory_order_relaxed);
    }
    TimestampMode::Type GetTimestampMode() const { return m_timestampMode.load(std::memory_order_relaxed); }
    void SetTimestampMode(TimestampMode::Type mode) {
        m_timestampMode.store(mode, std::memory_order_relaxed);
    }
    unsigned GetBufferCloseWaitMs() const { return m_bufferCloseWaitMs.load(std::memory_order_relaxed); }
    void SetBufferCloseWaitMs(unsigned ms) { m_bufferCloseWaitMs.store(ms, std::memory_order_relaxed); }
    bool GetGlobalTraceID() const { return m_globalTraceID.load(std::memory_order_relaxed); }
    void SetGlobalTraceID(bool global) { m_globalTraceID.store(global, std::memory_order_relaxed); }

    // A setter given 0 stores the class default. The stream size is clamped only when a buffer is
    // created.
    unsigned GetTraceStreamSize() const { return m_traceStreamSize.load(std::memory_order_relaxed); }
    void SetTraceStreamSize(unsigned size);
    unsigned GetMaxNumberOfBuffers() const { return m_maxNumberOfBuffers.load(std::memory_order_relaxed); }
    void SetMaxNumberOfBuffers(unsigned count);
    unsigned GetMaxNumberOfModules() const { return m_maxNumberOfModules.load(std::memory_order_relaxed); }
    void SetMaxNumberOfModules(unsigned count);

    bool GetTraceLocation() const { return m_traceLocation; }
    bool GetNoWinSvc() const { return m_noWinSvc; }

    // True when this process runs as a system service; computed once.
    static bool IsService();
    // Full path of the executable (UTF-8); empty when it cannot be determined.
    static std::string GetExecutableFileName();
    // The executable's file name without its last extension ("a.b.exe" -> "a.b", ".hidden" stays).
    static std::string GetExecutableName();
    // Shared-memory sizes of the registry and of a buffer with the configured module count.
    static void PrintSHMConsumption(std::ostream& out);

private:
    TraceConfigurationPrivate();

    void ApplyVariables(const EnvironmentLookup& environment, const std::map<std::string, std::string>& file);

    std::atomic<bool> m_initialized{false};
    char m_systemName[MaxNameLength + 1] = {};
    char m_applicationName[MaxNameLength + 1] = {};
    std::string m_shmPrefix;
    std::atomic<Severity::Type> m_severityFilter{DefaultSeverityMask};
    std::atomic<TimestampMode::Type> m_timestampMode{DefaultTimestampMode};
    std::atomic<uint32_t> m_traceStreamSize{DefaultTraceStreamSize};
    std::atomic<uint32_t> m_maxNumberOfBuffers{DefaultMaxNumberOfBuffers};
    std::atomic<uint32_t> m_maxNumberOfModules{DefaultMaxNumberOfModules};
    std::atomic<uint32_t> m_bufferCloseWaitMs{DefaultBufferCloseWaitMs};
    std::atomic<bool> m_globalTraceID{DefaultGlobalTraceID};
    bool m_traceLocation = false;
    bool m_noWinSvc = false;
    std::string m_shmUserGroupPrefix{DefaultShmUserGroupPrefix};
    std::string m_ftokDir;
};

namespace Internal {

// Key/value lines "key = value"; both sides trimmed of blanks, tabs, CR and LF; lines without '='
// are skipped; a later key replaces an earlier one. No comments, no sections.
std::map<std::string, std::string> ParseConfigurationText(std::string_view text);

// The configuration file's path: the executable's directory plus the file name (the whole path
// when it holds no separator).
std::string ConfigurationFilePathFor(std::string_view executablePath);

// The file name of `path` without its last extension, unless that dot starts the name.
std::string ExecutableNameFromPath(std::string_view path);

}  // namespace Internal

}  // namespace Tracing
