// forward: sends the machine's traces to a syslog server as they are written.
//
// The reading thread only formats and queues; a sender thread owns the connection, so a slow or
// vanished server never holds up reading the rings. While the server is away the queue keeps up
// to its bound, and what passes the bound is dropped and counted.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

#include "Trace/Records/Trace.h"
#include "tools/Commands.h"
#include "tools/SyslogMessage.h"
#include "tools/ToolOs.h"
#include "tools/TraceFollower.h"

namespace Tracing::Tool {

namespace {

constexpr unsigned ConnectTimeoutMs = 3000;
constexpr unsigned SendTimeoutMs = 5000;
constexpr unsigned MaxBackoffMs = 2000;
// How long the queue may take to empty once a stop was requested.
constexpr auto DrainTime = std::chrono::seconds(5);
// Most messages one write to a stream takes.
constexpr size_t BatchSize = 256;

struct ForwardOptions : TraceSelection {
    std::string Server;
    std::string Facility = "local0";
    size_t QueueLimit = 10000;
    double Duration = 0;
};

class SyslogForwarder : public ITraceReaderEventListener {
public:
    SyslogForwarder(const ForwardOptions& options, const SyslogTarget& target, const TraceFilter& filter,
                    int facility, SocketHandle connected)
        : m_options(options),
          m_target(target),
          m_filter(filter),
          m_facility(facility),
          m_machine(MachineName()),
          m_socket(connected) {}

    void Start() {
        m_sender = std::thread([this] { Send(); });
    }

    // Empties the queue while the server takes messages, for a limited time; the rest is dropped.
    void Finish() {
        {
            std::lock_guard lock(m_mutex);
            m_stopping = true;
            m_drainEnd = std::chrono::steady_clock::now() + DrainTime;
        }
        m_wake.notify_all();
        m_sender.join();
        CloseSocket(m_socket);
        std::lock_guard lock(m_mutex);
        m_dropped += m_queue.size();
        std::cerr << "paxltrace: forwarded " << m_sent << " traces to " << m_options.Server << ", dropped "
                  << m_dropped << std::endl;
    }

    void OnNewTraces(std::vector<std::unique_ptr<Trace>>& traces) override {
        std::vector<std::string> messages;
        for (const auto& trace : traces) {
            trace->ExtractOverrideValuesFromMessage();
            if (IsOverflowReport(*trace) || m_filter.Passes(*trace)) {
                messages.push_back(FormatSyslogMessage(*trace, m_facility, m_machine));
            }
        }
        if (messages.empty()) {
            return;
        }
        {
            std::lock_guard lock(m_mutex);
            for (std::string& message : messages) {
                if (m_queue.size() < m_options.QueueLimit) {
                    m_queue.push_back(std::move(message));
                    continue;
                }
                if (m_droppedSinceReport++ == 0) {
                    std::cerr << "paxltrace: " << m_options.Server << " is not taking traces and "
                              << m_options.QueueLimit << " are waiting: dropping new ones" << std::endl;
                }
                ++m_dropped;
            }
        }
        m_wake.notify_all();
    }

private:
    void Send() {
        unsigned backoffMs = 100;
        std::string error;
        for (;;) {
            std::vector<std::string> batch;
            {
                std::unique_lock lock(m_mutex);
                m_wake.wait_for(lock, std::chrono::milliseconds(100), [this] { return !m_queue.empty(); });
                if (m_stopping && (m_queue.empty() || std::chrono::steady_clock::now() >= m_drainEnd)) {
                    return;
                }
                for (size_t i = 0; i < m_queue.size() && i < BatchSize; ++i) {
                    batch.push_back(m_queue[i]);
                }
            }
            if (batch.empty()) {
                continue;
            }
            if (m_socket == NoSocket) {
                m_socket = ConnectSocket(m_target.Host, m_target.Port, m_target.Tcp, ConnectTimeoutMs, error);
                if (m_socket == NoSocket) {
                    Backoff(backoffMs);
                    backoffMs = std::min(backoffMs * 2, MaxBackoffMs);
                    continue;
                }
                backoffMs = 100;
                std::lock_guard lock(m_mutex);
                std::cerr << "paxltrace: connected to " << m_options.Server << " again";
                if (m_droppedSinceReport > 0) {
                    std::cerr << "; " << m_droppedSinceReport << " traces dropped while it was away";
                }
                std::cerr << std::endl;
                m_droppedSinceReport = 0;
            }
            // A server that went away gracefully is noticed before anything is written into the void.
            if (!(m_target.Tcp && PeerClosed(m_socket)) && Write(batch, error)) {
                std::lock_guard lock(m_mutex);
                m_queue.erase(m_queue.begin(), m_queue.begin() + static_cast<std::ptrdiff_t>(batch.size()));
                m_sent += batch.size();
                continue;
            }
            if (error.empty()) {
                error = "closed by the server";
            }
            std::cerr << "paxltrace: connection to " << m_options.Server << " lost (" << error
                      << "); reconnecting" << std::endl;
            error.clear();
            CloseSocket(m_socket);
            m_socket = NoSocket;
        }
    }

    bool Write(const std::vector<std::string>& batch, std::string& error) {
        if (!m_target.Tcp) {
            for (const std::string& message : batch) {
                if (!SendAll(m_socket, message, SendTimeoutMs, error)) {
                    return false;
                }
            }
            return true;
        }
        std::string frames;
        for (const std::string& message : batch) {
            frames += FrameOctetCounted(message);
        }
        return SendAll(m_socket, frames, SendTimeoutMs, error);
    }

    void Backoff(unsigned milliseconds) {
        std::unique_lock lock(m_mutex);
        m_wake.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return m_stopping; });
    }

    const ForwardOptions& m_options;
    const SyslogTarget& m_target;
    const TraceFilter& m_filter;
    const int m_facility;
    const std::string m_machine;
    SocketHandle m_socket;  // sender thread only
    std::thread m_sender;

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::string> m_queue;
    uint64_t m_sent = 0;
    uint64_t m_dropped = 0;
    uint64_t m_droppedSinceReport = 0;
    bool m_stopping = false;
    std::chrono::steady_clock::time_point m_drainEnd;
};

int RunForward(const ForwardOptions& options) {
    TraceFilter filter;
    SyslogTarget target;
    std::string error;
    const int facility = SyslogFacility(options.Facility);
    if (!filter.Init(options)) {
        return ExitUsage;
    }
    if (!ParseSyslogTarget(options.Server, target, error)) {
        std::cerr << "paxltrace: " << error << '\n';
        return ExitUsage;
    }
    if (facility < 0) {
        std::cerr << "paxltrace: unknown facility '" << options.Facility
                  << "' (kern .. ftp, local0 .. local7)\n";
        return ExitUsage;
    }
    // A server that is not there at the start is a mistake to report, not to wait out.
    SocketHandle socket = ConnectSocket(target.Host, target.Port, target.Tcp, ConnectTimeoutMs, error);
    if (socket == NoSocket) {
        std::cerr << "paxltrace: cannot reach " << options.Server << ": " << error << '\n';
        return ExitFailure;
    }
    SyslogForwarder forwarder(options, target, filter, facility, socket);
    forwarder.Start();
    FollowOptions follow;
    follow.Duration = options.Duration;
    FollowTraces(options, follow, forwarder);
    forwarder.Finish();
    return ExitOk;
}

}  // namespace

void AddForwardCommand(CLI::App& app, Action& action) {
    auto options = std::make_shared<ForwardOptions>();
    CLI::App* forward = app.add_subcommand(
        "forward", "Send new traces of all or selected buffers to a syslog server (RFC 5424)");
    forward->add_option("--syslog", options->Server, "Server as tcp://HOST:PORT or udp://HOST:PORT")
        ->required();
    forward->add_option("--facility", options->Facility, "Syslog facility (default local0)");
    forward
        ->add_option("--queue", options->QueueLimit,
                     "Traces kept while the server is unreachable; newer ones are dropped and counted "
                     "(default 10000)")
        ->check(CLI::PositiveNumber);
    AddSelectionOptions(*forward, *options);
    forward->add_option("--duration,-d", options->Duration, "Stop after this many seconds (default: Ctrl-C)")
        ->check(CLI::NonNegativeNumber);
    forward->footer(
        "Messages carry [paxltrace@32473 id buffer module severity tid flags file line] as structured data "
        "and "
        "the text as UTF-8 with a byte-order mark. TCP uses octet-counting framing.");
    forward->callback([&action, options] { action = [options] { return RunForward(*options); }; });
}

}  // namespace Tracing::Tool
