// The paxltrace binary run as a real process: started, stopped as Ctrl-C would, and its output read.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>
#ifdef _WIN32
#include <windows.h>
#endif

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace Tracing::Tool {

class ToolTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (pid_t pid : m_running) {
            kill(pid, SIGTERM);
            Tracing::Test::WaitChild(pid);
        }
        for (const std::string& file : m_files) {
            std::error_code error;
            std::filesystem::remove_all(file, error);
        }
    }

    // A path removed at the end of the test, with everything below it.
    std::string TempFile(const std::string& name) {
        std::string path = ::testing::TempDir() + "paxltrace_" + std::to_string(getpid()) + "_" + name;
        m_files.push_back(path);
        return path;
    }

    // Starts the tool with stdout and stderr in files; it is stopped at the end of the test.
    pid_t Start(const std::vector<std::string>& args, const std::string& outPath,
                const std::string& executable = PAXLTRACE_TOOL_PATH) {
        Tracing::Test::ProcessOptions options;
        options.output = outPath;
        options.error = outPath + ".err";
        m_files.push_back(options.error);
        const pid_t pid = Tracing::Test::StartProcess(executable, args, options);
        EXPECT_GT(pid, 0);
        m_running.insert(pid);
        return pid;
    }

    // Asks the tool to stop as Ctrl-C would; it then flushes and exits normally.
    static void RequestStop(pid_t pid) {
#ifdef _WIN32
        const std::wstring name = L"Local\\paxltrace stop " + std::to_wstring(pid);
        HANDLE event = ::OpenEventW(EVENT_MODIFY_STATE, FALSE, name.c_str());
        ASSERT_NE(event, nullptr);
        ::SetEvent(event);
        ::CloseHandle(event);
#else
        kill(pid, SIGTERM);
#endif
    }

    int Wait(pid_t pid) {
        m_running.erase(pid);
        return Tracing::Test::WaitChild(pid);
    }

    // Runs the tool to its end; its standard output (and error) in out.
    int Run(const std::vector<std::string>& args, std::string* out = nullptr) {
        const std::string path = TempFile("run");
        int code = Wait(Start(args, path));
        if (out != nullptr) {
            *out = Read(path) + Read(path + ".err");
        }
        return code;
    }

    pid_t StartProducer(const std::string& name) {
        const std::string out = TempFile("producer_" + name);
        pid_t pid = Start({"demo-producer", name, "--duration", "60"}, out);
        EXPECT_TRUE(
            Tracing::Test::WaitFor([&] { return Read(out).find("ready") != std::string::npos; }, 20000))
            << Read(out + ".err");
        return pid;
    }

    static std::string Read(const std::string& path) {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

private:
    std::set<pid_t> m_running;
    std::vector<std::string> m_files;
};

}  // namespace Tracing::Tool
