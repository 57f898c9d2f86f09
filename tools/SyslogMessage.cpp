#include "tools/SyslogMessage.h"

#include <algorithm>
#include <cstdio>

#include "Trace/Records/Severity.h"
#include "Trace/Records/Trace.h"
#include "tools/TraceText.h"

namespace Tracing::Tool {

namespace {

// Header fields are printable ASCII without spaces, each with its own maximum length; "-" is
// the value for none.
std::string HeaderField(std::string_view text, size_t maxLength) {
    std::string out;
    for (char c : text.substr(0, maxLength)) {
        out += c > ' ' && c < 127 ? c : '_';
    }
    return out.empty() ? "-" : out;
}

void AddParam(std::string& out, const char* name, std::string_view value) {
    out += ' ';
    out += name;
    out += "=\"";
    out += EscapeSdValue(ValidUtf8(value));
    out += '"';
}

}  // namespace

bool ParseSyslogTarget(const std::string& url, SyslogTarget& target, std::string& error) {
    const size_t scheme = url.find("://");
    const std::string protocol = scheme == std::string::npos ? "" : url.substr(0, scheme);
    if (protocol != "tcp" && protocol != "udp") {
        error = "syslog server '" + url + "' must be tcp://HOST:PORT or udp://HOST:PORT";
        return false;
    }
    target.Tcp = protocol == "tcp";
    std::string rest = url.substr(scheme + 3);
    size_t colon = rest.rfind(':');
    if (!rest.empty() && rest.front() == '[') {
        const size_t close = rest.find(']');
        colon = close != std::string::npos && close + 1 < rest.size() && rest[close + 1] == ':'
                    ? close + 1
                    : std::string::npos;
        target.Host = colon == std::string::npos ? "" : rest.substr(1, close - 1);
    } else {
        target.Host = colon == std::string::npos ? "" : rest.substr(0, colon);
    }
    target.Port = colon == std::string::npos ? "" : rest.substr(colon + 1);
    const bool portValid = !target.Port.empty() && target.Port.size() <= 5 &&
                           std::all_of(target.Port.begin(), target.Port.end(), ::isdigit) &&
                           std::stoi(target.Port) > 0 && std::stoi(target.Port) < 65536;
    if (target.Host.empty() || !portValid) {
        error = "syslog server '" + url + "' needs a host and a port from 1 to 65535";
        return false;
    }
    return true;
}

int SyslogFacility(const std::string& name) {
    static const char* const names[] = {"kern", "user", "mail", "daemon", "auth",     "syslog",
                                        "lpr",  "news", "uucp", "cron",   "authpriv", "ftp"};
    for (int i = 0; i < 12; ++i) {
        if (name == names[i]) {
            return i;
        }
    }
    if (name.size() == 6 && name.compare(0, 5, "local") == 0 && name[5] >= '0' && name[5] <= '7') {
        return 16 + (name[5] - '0');
    }
    return -1;
}

int SyslogSeverity(unsigned traceSeverity) {
    switch (traceSeverity) {
        case Severity::Fatal:
            return 2;
        case Severity::Error:
            return 3;
        case Severity::Warning:
            return 4;
        case Severity::Info:
            return 6;
        case Severity::None:
            return 5;
        default:
            return 7;
    }
}

std::string FormatSyslogMessage(const Trace& trace, int facility, const std::string& machineName) {
    std::string out = "<" + std::to_string(facility * 8 + SyslogSeverity(trace.GetSeverity())) + ">1 ";
    const auto time = UnixMicroseconds(trace);
    out += time ? Rfc3339(static_cast<uint64_t>(*time)) : "-";
    out += ' ';
    out += HeaderField(trace.GetHostName().empty() ? machineName : trace.GetHostName(), 255);
    out += ' ';
    out += HeaderField(trace.GetApplicationName(), 48);
    out += ' ';
    out += HeaderField(trace.GetProcessID() != 0 ? std::to_string(trace.GetProcessID()) : "", 128);
    out += ' ';
    out += HeaderField(trace.GetModuleName(), 32);
    out += " [paxltrace@32473";
    AddParam(out, "id", std::to_string(trace.GetID()));
    AddParam(out, "buffer", trace.GetSubSystemName());
    AddParam(out, "module", trace.GetModuleName());
    AddParam(out, "severity", trace.GetSeverityText());
    AddParam(out, "tid", std::to_string(trace.GetThreadID()));
    AddParam(out, "flags", trace.GetFlags());
    if (!trace.GetFileName().empty()) {
        AddParam(out, "file", trace.GetFileName());
        AddParam(out, "line", std::to_string(trace.GetLineNumber()));
    }
    out += "] \xEF\xBB\xBF";
    out += ValidUtf8(trace.GetFormattedMessage());
    return out;
}

std::string EscapeSdValue(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (char c : value) {
        if (c == '"' || c == '\\' || c == ']') {
            out += '\\';
        }
        out += c;
    }
    return out;
}

std::string FrameOctetCounted(std::string_view message) {
    std::string out = std::to_string(message.size());
    out += ' ';
    out += message;
    return out;
}

}  // namespace Tracing::Tool
