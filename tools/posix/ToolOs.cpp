#include "tools/ToolOs.h"

#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>

namespace Tracing::Tool {

namespace {

std::atomic<bool> s_stopRequested{false};

void OnStopSignal(int) {
    s_stopRequested.store(true, std::memory_order_seq_cst);
}

std::string SelfPath() {
    char path[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

}  // namespace

long CurrentProcess() {
    return static_cast<long>(getpid());
}

bool StdoutIsTerminal() {
    return isatty(STDOUT_FILENO) == 1;
}

void InstallStopHandler() {
    struct sigaction action = {};
    action.sa_handler = OnStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool StopRequested() {
    return s_stopRequested.load(std::memory_order_seq_cst);
}

long StartSelf(const std::vector<std::string>& arguments) {
    const std::string self = SelfPath();
    if (self.empty()) {
        return -1;
    }
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(self.c_str()));
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        execv(self.c_str(), argv.data());
        _exit(127);
    }
    return pid;
}

void StopChild(long pid) {
    if (pid > 0) {
        kill(static_cast<pid_t>(pid), SIGTERM);
    }
}

int WaitChild(long pid) {
    int status = 0;
    while (waitpid(static_cast<pid_t>(pid), &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace Tracing::Tool

namespace Tracing::Tool {

namespace {

bool WaitSocket(int fd, short events, unsigned timeoutMs) {
    pollfd entry{fd, events, 0};
    int result;
    do {
        result = poll(&entry, 1, static_cast<int>(timeoutMs));
    } while (result < 0 && errno == EINTR);
    return result > 0;
}

}  // namespace

std::string MachineName() {
    char name[256] = {};
    return gethostname(name, sizeof name - 1) == 0 ? std::string(name) : std::string();
}

SocketHandle ConnectSocket(const std::string& host, const std::string& port, bool tcp, unsigned timeoutMs,
                           std::string& error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = tcp ? SOCK_STREAM : SOCK_DGRAM;
    addrinfo* addresses = nullptr;
    if (int result = getaddrinfo(host.c_str(), port.c_str(), &hints, &addresses); result != 0) {
        error = gai_strerror(result);
        return NoSocket;
    }
    error = "no address";
    int fd = -1;
    for (addrinfo* address = addresses; address != nullptr && fd < 0; address = address->ai_next) {
        fd = socket(address->ai_family, address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                    address->ai_protocol);
        if (fd < 0) {
            error = std::strerror(errno);
            continue;
        }
        int result = connect(fd, address->ai_addr, address->ai_addrlen);
        if (result < 0 && errno == EINPROGRESS) {
            int socketError = ETIMEDOUT;
            socklen_t length = sizeof socketError;
            if (WaitSocket(fd, POLLOUT, timeoutMs)) {
                getsockopt(fd, SOL_SOCKET, SO_ERROR, &socketError, &length);
            }
            errno = socketError;
            result = socketError == 0 ? 0 : -1;
        }
        if (result < 0) {
            error = std::strerror(errno);
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(addresses);
    return fd < 0 ? NoSocket : static_cast<SocketHandle>(fd);
}

bool SendAll(SocketHandle socket, std::string_view data, unsigned timeoutMs, std::string& error) {
    const int fd = static_cast<int>(socket);
    while (!data.empty()) {
        const ssize_t sent = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            data.remove_prefix(static_cast<size_t>(sent));
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (!WaitSocket(fd, POLLOUT, timeoutMs)) {
                error = "send timed out";
                return false;
            }
        } else if (errno != EINTR) {
            error = std::strerror(errno);
            return false;
        }
    }
    return true;
}

bool PeerClosed(SocketHandle socket) {
    char byte;
    const ssize_t result = recv(static_cast<int>(socket), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return result == 0 || (result < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

void CloseSocket(SocketHandle socket) {
    if (socket != NoSocket) {
        close(static_cast<int>(socket));
    }
}

}  // namespace Tracing::Tool
