#include "Trace/Engine/TraceConfigurationPrivate.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <ostream>

#include "Trace/Buffer/TraceBufferData.h"
#include "Trace/Diagnostics/TraceDiagnostics.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Registry/TraceRegistry.h"
#include "Trace/Registry/TraceRegistryData.h"
#include "platform/ExecutablePath.h"
#include "platform/Process.h"
#include "platform/TextFile.h"

namespace Tracing {

namespace {

constexpr std::string_view Blanks = " \t\r\n";

std::string_view Trim(std::string_view text) {
    const size_t first = text.find_first_not_of(Blanks);
    if (first == std::string_view::npos)
        return {};
    const size_t last = text.find_last_not_of(Blanks);
    return text.substr(first, last - first + 1);
}

void CopyName(char (&target)[TraceConfigurationPrivate::MaxNameLength + 1], const char* source) {
    size_t length = 0;
    while (length < TraceConfigurationPrivate::MaxNameLength && source[length] != '\0')
        ++length;
    std::memcpy(target, source, length);
    target[length] = '\0';
}

// True when one "%u" number was converted: leading white space is skipped, the number ends at the
// first non-digit, and a leading minus wraps modulo 2^32, exactly as the C runtime scans it.
bool ParseUnsigned(const std::string& value, unsigned& number) {
    return std::sscanf(value.c_str(), "%u", &number) == 1;
}

// TRACE_STREAM_SIZE as "%u" reads it, but checked: below the smallest ring the smallest one is
// taken, and what cannot be meant (negative, above the largest ring, no number) gives the default
// rather than a wrapped value or a 2 GB ring per buffer. 0 quietly means the default.
uint32_t StreamSizeFrom(const std::string& value, std::string& problem) {
    constexpr uint32_t Min = TraceConfigurationPrivate::MinTraceStreamSize;
    constexpr uint32_t Max = TraceConfigurationPrivate::MaxTraceStreamSize;
    constexpr uint32_t Default = TraceConfigurationPrivate::DefaultTraceStreamSize;
    const std::string_view text = Trim(value);
    size_t i = text.starts_with('+') || text.starts_with('-') ? 1 : 0;
    uint64_t number = 0;
    const size_t digitsStart = i;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
        number = std::min<uint64_t>(number * 10 + static_cast<uint64_t>(text[i] - '0'), uint64_t{1} << 40);
    const std::string range = " (" + std::to_string(Min) + " to " + std::to_string(Max) + " bytes)";
    if (i == digitsStart) {
        problem = "is not a number of bytes" + range + "; the default of " + std::to_string(Default) +
                  " bytes is used";
        return Default;
    }
    if (number == 0)
        return Default;
    if (text.starts_with('-') || number > Max) {
        problem =
            "is out of range" + range + "; the default of " + std::to_string(Default) + " bytes is used";
        return Default;
    }
    if (number < Min) {
        problem =
            "is out of range" + range + "; the smallest ring of " + std::to_string(Min) + " bytes is used";
        return Min;
    }
    return static_cast<uint32_t>(number);
}

[[gnu::cold]] void WarnAboutSetting(const char* name, const std::string& value, const std::string& problem) {
    const std::string text = std::string(name) + "=" + value + " " + problem + ".";
    // Straight to the stream: the configuration is being made, so nothing that asks for it may run.
    std::cerr << "WARNING: (" << Platform::CurrentProcessId() << ") " << text << std::endl;
    TraceDiagnostics::GetInstance().Warning(TraceMessage("%1").Add(text));
}

std::map<std::string, std::string> ReadConfigurationFile(const std::string& path) {
    std::string text;
    if (path.empty() || !Platform::ReadWholeFile(path, text))
        return {};
    return Internal::ParseConfigurationText(text);
}

std::atomic<void (*)()> namesChangedHandler{nullptr};

// Buffers created before a name change carry the new name from now on. Before the registry
// exists there are none, and a name set that early must not make it with the default size.
void PropagateNames() {
    if (void (*handler)() = namesChangedHandler.load(std::memory_order_acquire))
        handler();
}

}  // namespace

namespace Internal {

std::map<std::string, std::string> ParseConfigurationText(std::string_view text) {
    std::map<std::string, std::string> values;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        const size_t equals = line.find('=');
        if (equals == std::string_view::npos)
            continue;
        values[std::string(Trim(line.substr(0, equals)))] = std::string(Trim(line.substr(equals + 1)));
    }
    return values;
}

std::string ConfigurationFilePathFor(std::string_view executablePath) {
    const size_t separator = executablePath.rfind(Platform::PathSeparator);
    std::string path(separator == std::string_view::npos ? executablePath
                                                         : executablePath.substr(0, separator));
    path += Platform::PathSeparator;
    path += TraceConfigurationPrivate::ConfigurationFileName;
    return path;
}

std::string ExecutableNameFromPath(std::string_view path) {
    const size_t separator = path.rfind(Platform::PathSeparator);
    std::string_view name = separator == std::string_view::npos ? path : path.substr(separator + 1);
    const size_t dot = name.rfind('.');
    if (dot != std::string_view::npos && dot != 0)
        name = name.substr(0, dot);
    return std::string(name);
}

}  // namespace Internal

TraceConfigurationPrivate& TraceConfigurationPrivate::GetInstance() {
    // Never destroyed: everything that runs at exit still reads it.
    static TraceConfigurationPrivate* const instance = new TraceConfigurationPrivate;
    return *instance;
}

TraceConfigurationPrivate::TraceConfigurationPrivate()
    : TraceConfigurationPrivate(
          [](const char* name) -> const char* { return std::getenv(name); },
          [] {
              const std::string executable = GetExecutableFileName();
              return executable.empty() ? std::string{} : Internal::ConfigurationFilePathFor(executable);
          }()) {}

TraceConfigurationPrivate::TraceConfigurationPrivate(const EnvironmentLookup& environment,
                                                     const std::string& configurationFilePath) {
    CopyName(m_applicationName, GetExecutableName().c_str());
    ApplyVariables(environment, ReadConfigurationFile(configurationFilePath));
}

void TraceConfigurationPrivate::ApplyVariables(const EnvironmentLookup& environment,
                                               const std::map<std::string, std::string>& file) {
    // The environment hides the file even when the variable is set to nothing.
    const auto lookup = [&](const char* name) -> std::string {
        if (const char* value = environment(name))
            return value;
        const auto it = file.find(name);
        return it != file.end() ? it->second : std::string{};
    };
    unsigned number = 0;

    if (const std::string value = lookup("TRACE_PREFIX"); !value.empty())
        m_shmPrefix = value + "_";
    if (const std::string value = lookup("TRACE_SEVERITY"); !value.empty()) {
        if (const Severity::Type severity = Severity::FromName(value.c_str()); severity != Severity::None)
            m_severityFilter.store(severity, std::memory_order_relaxed);
    }
    if (const std::string value = lookup("TRACE_TIMESTAMP_MODE"); !value.empty()) {
        if (const TimestampMode::Type mode = TimestampMode::FromString(value.c_str());
            mode != TimestampMode::NotSet)
            m_timestampMode.store(mode, std::memory_order_relaxed);
    }
    // Sizes and counts keep their defaults on 0 or garbage; the close wait and the switches below
    // honour an explicit 0.
    if (const std::string value = lookup("TRACE_STREAM_SIZE"); !value.empty()) {
        std::string problem;
        m_traceStreamSize.store(StreamSizeFrom(value, problem), std::memory_order_relaxed);
        if (!problem.empty())
            WarnAboutSetting("TRACE_STREAM_SIZE", value, problem);
    }
    if (ParseUnsigned(lookup("TRACE_MAX_BUFFERS"), number) && number != 0)
        m_maxNumberOfBuffers.store(number, std::memory_order_relaxed);
    if (ParseUnsigned(lookup("TRACE_MAX_MODULES"), number) && number != 0)
        m_maxNumberOfModules.store(number, std::memory_order_relaxed);
    if (ParseUnsigned(lookup("TRACE_BUFFER_CLOSE_WAIT_MS"), number))
        m_bufferCloseWaitMs.store(number, std::memory_order_relaxed);
    if (ParseUnsigned(lookup("TRACE_GLOBAL_ID"), number))
        m_globalTraceID.store(number != 0, std::memory_order_relaxed);
    if (ParseUnsigned(lookup("TRACE_LOCATION"), number))
        m_traceLocation = number != 0;
    if (const std::string value = lookup("TRACE_USERGROUP"); !value.empty())
        m_shmUserGroupPrefix = value + " ";
    if (ParseUnsigned(lookup("TRACE_NO_WINSVC"), number))
        m_noWinSvc = number != 0;
    if (const std::string value = lookup("TRACE_FTOK_DIR"); !value.empty())
        m_ftokDir = value;
}

void TraceConfigurationPrivate::Initialize(const char* systemName, const char* applicationName,
                                           TimestampMode::Type mode, unsigned streamSize, unsigned maxBuffers,
                                           unsigned maxModules) {
    // Exactly one caller gets through, even when two race.
    if (m_initialized.exchange(true, std::memory_order_seq_cst))
        return;
    bool renamed = false;
    if (m_systemName[0] == '\0' && systemName != nullptr) {
        CopyName(m_systemName, systemName);
        renamed = true;
    }
    if (applicationName != nullptr && applicationName[0] != '\0') {
        CopyName(m_applicationName, applicationName);
        renamed = true;
    }
    m_timestampMode.store(mode, std::memory_order_relaxed);
    if (streamSize != 0)
        m_traceStreamSize.store(streamSize, std::memory_order_relaxed);
    if (maxBuffers != 0)
        m_maxNumberOfBuffers.store(maxBuffers, std::memory_order_relaxed);
    if (maxModules != 0)
        m_maxNumberOfModules.store(maxModules, std::memory_order_relaxed);
    // Last, so that buffers renamed now see every other setting already in place.
    if (renamed)
        PropagateNames();
}

void TraceConfigurationPrivate::SetSystemName(const char* name) {
    CopyName(m_systemName, name != nullptr ? name : "");
    PropagateNames();
}

void TraceConfigurationPrivate::SetApplicationName(const char* name) {
    CopyName(m_applicationName, name != nullptr ? name : "");
    PropagateNames();
}

void TraceConfigurationPrivate::SetTraceStreamSize(unsigned size) {
    m_traceStreamSize.store(size != 0 ? size : DefaultTraceStreamSize, std::memory_order_relaxed);
}

void TraceConfigurationPrivate::SetMaxNumberOfBuffers(unsigned count) {
    m_maxNumberOfBuffers.store(count != 0 ? count : DefaultMaxNumberOfBuffers, std::memory_order_relaxed);
}

void TraceConfigurationPrivate::SetMaxNumberOfModules(unsigned count) {
    m_maxNumberOfModules.store(count != 0 ? count : DefaultMaxNumberOfModules, std::memory_order_relaxed);
}

void TraceConfigurationPrivate::SetNamesChangedHandler(void (*handler)()) {
    namesChangedHandler.store(handler, std::memory_order_release);
}

bool TraceConfigurationPrivate::IsService() {
    static const bool service = Platform::IsServiceProcess();
    return service;
}

std::string TraceConfigurationPrivate::GetExecutableFileName() {
    return Platform::ExecutableFilePath();
}

std::string TraceConfigurationPrivate::GetExecutableName() {
    return Internal::ExecutableNameFromPath(GetExecutableFileName());
}

void TraceConfigurationPrivate::PrintSHMConsumption(std::ostream& out) {
    const unsigned items = TraceRegistry::GetInstance().GetSizeOfBufferArray();
    const unsigned modules = GetInstance().GetMaxNumberOfModules();
    out << "The size of an entry in the trace registry is " << sizeof(TraceRegistryDataItem) << " bytes."
        << std::endl;
    out << "The size of the trace registry (" << items << " items) is " << TraceRegistryData::GetSize(items)
        << " bytes." << std::endl;
    out << std::endl;
    out << "The size of a trace flag is " << sizeof(TraceFlagData) << " bytes." << std::endl;
    out << "The size of a trace module (" << TraceModuleData::FlagCount << " flags) is "
        << sizeof(TraceModuleData) << " bytes." << std::endl;
    out << "The size of a trace buffer (" << modules << " modules) is " << TraceBufferData::GetSize(modules)
        << " bytes." << std::endl;
    out << std::endl;
}

}  // namespace Tracing
