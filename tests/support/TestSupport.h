// Test support: every test process gets its own shared-memory prefix, and multi-process tests
// re-run the test binary itself as a child whose role an environment variable selects.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "WindowsCompat.h"

namespace Tracing::Test {

// The TRACE_PREFIX of this test process (parent and its children share it).
const std::string& ShmPrefix();

using ChildRole = std::function<int(const std::vector<std::string>& args)>;

// Registers a role that a child started by SpawnChild can take; use PAXLTRACE_CHILD_ROLE.
bool RegisterChildRole(const char* name, ChildRole role);

// True when a block of shared memory with this key exists on the system.
bool ShmExists(const std::string& key);

// The size an opener of a block created with `size` bytes maps: the size itself, or whole pages
// where the system keeps no exact size (Windows).
uint64_t MappedSize(uint64_t size);

// The full path of this test binary.
std::string SelfExecutable();

// Starts this test binary again as a child running `role` with `args`; returns its pid.
pid_t SpawnChild(const std::string& role, const std::vector<std::string>& args = {});

// As SpawnChild, but starts `executable` (a copy of this test binary, for instance) instead.
pid_t SpawnChildExecutable(const std::string& executable, const std::string& role,
                           const std::vector<std::string>& args = {});

// How StartProcess starts a program.
struct ProcessOptions {
    std::vector<std::string> environment;  // "NAME=value" entries set over this process's
    std::string output, error;             // files for standard output and error; empty: ours
    bool withInput = false;                // a pipe to standard input; else the null device
};

// Starts `executable` with `args`; returns its pid, or -1. With options.withInput, *input is the
// write end of the child's standard input (close it to end the input). The child inherits nothing
// else of this process's files.
pid_t StartProcess(const std::string& executable, const std::vector<std::string>& args,
                   const ProcessOptions& options = {}, int* input = nullptr);

// Waits for a child; returns its exit code, or 128 + signal number when it was killed.
int WaitChild(pid_t pid);

// Removes a file, waiting while another process still has it open (Windows refuses to remove an
// open file, and a marker left behind would fool the next test process given the same ID).
// True once the file is gone.
bool RemoveFile(const std::string& path, int timeoutMs = 10000);

// Waits up to timeoutMs for `condition`, polling every millisecond.
bool WaitFor(const std::function<bool()>& condition, int timeoutMs);

}  // namespace Tracing::Test

#define PAXLTRACE_CHILD_ROLE_CONCAT2(a, b) a##b
#define PAXLTRACE_CHILD_ROLE_CONCAT(a, b) PAXLTRACE_CHILD_ROLE_CONCAT2(a, b)
// Defines a child role: PAXLTRACE_CHILD_ROLE(HoldLock) { ...; return 0; } — `args` holds the arguments.
#define PAXLTRACE_CHILD_ROLE(name)                                                                  \
    static int PAXLTRACE_CHILD_ROLE_CONCAT(ChildRole_, name)(const std::vector<std::string>& args); \
    static const bool PAXLTRACE_CHILD_ROLE_CONCAT(childRoleRegistered_, name) =                     \
        ::Tracing::Test::RegisterChildRole(#name, &PAXLTRACE_CHILD_ROLE_CONCAT(ChildRole_, name));  \
    static int PAXLTRACE_CHILD_ROLE_CONCAT(ChildRole_,                                              \
                                           name)([[maybe_unused]] const std::vector<std::string>& args)
