#include "TestSupport.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>

extern char** environ;

namespace Tracing::Test {
namespace {

constexpr const char* kRoleVariable = "PAXLTRACE_TEST_CHILD_ROLE";

std::map<std::string, ChildRole>& Roles() {
    static std::map<std::string, ChildRole> roles;
    return roles;
}

std::string& PrefixStorage() {
    static std::string prefix;
    return prefix;
}

}  // namespace

const std::string& ShmPrefix() {
    return PrefixStorage();
}

bool RegisterChildRole(const char* name, ChildRole role) {
    Roles()[name] = std::move(role);
    return true;
}

pid_t SpawnChild(const std::string& role, const std::vector<std::string>& args) {
    return SpawnChildExecutable("/proc/self/exe", role, args);
}

pid_t SpawnChildExecutable(const std::string& executable, const std::string& role,
                           const std::vector<std::string>& args) {
    std::vector<std::string> argvStrings{executable};
    argvStrings.insert(argvStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argvStrings)
        argv.push_back(a.data());
    argv.push_back(nullptr);

    std::vector<std::string> envStrings;
    for (char** e = environ; *e != nullptr; ++e) {
        if (std::string(*e).rfind(kRoleVariable, 0) != 0)
            envStrings.emplace_back(*e);
    }
    envStrings.push_back(std::string(kRoleVariable) + "=" + role);
    std::vector<char*> envp;
    for (auto& e : envStrings)
        envp.push_back(e.data());
    envp.push_back(nullptr);

    pid_t pid = -1;
    if (posix_spawn(&pid, executable.c_str(), nullptr, nullptr, argv.data(), envp.data()) != 0)
        return -1;
    return pid;
}

int WaitChild(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

bool WaitFor(const std::function<bool()>& condition, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace Tracing::Test

int main(int argc, char** argv) {
    using namespace Tracing::Test;
    if (const char* role = std::getenv(kRoleVariable)) {
        // A child shares its parent's prefix, which it inherits through the environment.
        const char* prefix = std::getenv("TRACE_PREFIX");
        PrefixStorage() = prefix != nullptr ? prefix : "";
        auto it = Roles().find(role);
        if (it == Roles().end()) {
            std::fprintf(stderr, "unknown child role '%s'\n", role);
            return 125;
        }
        std::vector<std::string> args(argv + 1, argv + argc);
        return it->second(args);
    }
    // Set before anything reads the configuration, so no test meets another's shared memory.
    PrefixStorage() = std::string(PAXLTRACE_TEST_PREFIX) + std::to_string(getpid());
    setenv("TRACE_PREFIX", PrefixStorage().c_str(), 1);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
