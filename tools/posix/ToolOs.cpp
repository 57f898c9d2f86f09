#include "tools/ToolOs.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>

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
