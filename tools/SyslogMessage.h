// Traces as syslog messages: the header fields, structured data and framing of the syslog
// protocol, and the server address of `forward`.
#pragma once

#include <string>
#include <string_view>

namespace Tracing {
class Trace;
}

namespace Tracing::Tool {

struct SyslogTarget {
    bool Tcp = true;
    std::string Host;
    std::string Port;
};

// "tcp://HOST:PORT" or "udp://HOST:PORT", HOST a name, an IPv4 address or [an IPv6 address].
bool ParseSyslogTarget(const std::string& url, SyslogTarget& target, std::string& error);

// Facility code of kern, user, mail, daemon, auth, syslog, lpr, news, uucp, cron, authpriv, ftp
// and local0..local7; -1 for anything else.
int SyslogFacility(const std::string& name);

// Fatal crit, Error err, Warning warning, Info info, Verbose/Debug/Call debug, None notice.
int SyslogSeverity(unsigned traceSeverity);

// One message: PRI from facility and severity, the trace's time with microseconds, its host (the
// machine's when the trace has none), application, process, module, structured data with the
// trace's details, and the formatted text as UTF-8 marked by a byte-order mark.
std::string FormatSyslogMessage(const Trace& trace, int facility, const std::string& machineName);

// A structured-data parameter value: '"', '\' and ']' escaped with a backslash.
std::string EscapeSdValue(std::string_view value);

// Octet-counting frame for stream transports: the length in decimal, a space, the message.
std::string FrameOctetCounted(std::string_view message);

}  // namespace Tracing::Tool
