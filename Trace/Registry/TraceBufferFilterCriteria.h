// Which buffers a browse of the registry returns: optionally those of one host (the empty name
// selects this host's buffers) and optionally those of one process.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Tracing {

class TraceBuffer;

class TraceBufferFilterCriteria {
public:
    // Matches every buffer.
    TraceBufferFilterCriteria() = default;
    // A null host sets no host condition.
    explicit TraceBufferFilterCriteria(const char* hostName);
    explicit TraceBufferFilterCriteria(const std::string& hostName) : m_hostName(hostName) {}
    // 0 matches any process.
    explicit TraceBufferFilterCriteria(int64_t processID) : m_processID(processID) {}

    const std::optional<std::string>& GetHostName() const { return m_hostName; }
    int64_t GetProcessID() const { return m_processID; }

    bool Matches(const TraceBuffer& buffer) const;

private:
    std::optional<std::string> m_hostName;
    int64_t m_processID = 0;
};

}  // namespace Tracing
