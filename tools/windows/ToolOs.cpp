#include "tools/ToolOs.h"

// Winsock before windows.h, which would otherwise pull in the old winsock.h (kept in its own
// block so that include sorting leaves the order alone).
#include <winsock2.h>
#include <ws2tcpip.h>

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <string>

namespace Tracing::Tool {

namespace {

std::atomic<bool> s_stopRequested{false};
std::atomic<HANDLE> s_stopEvent{nullptr};

struct Child {
    HANDLE Process = nullptr;
    HANDLE StopEvent = nullptr;
};

std::mutex s_childrenMutex;
std::map<long, Child> s_children;

std::wstring StopEventName(DWORD pid) {
    return L"Local\\paxltrace stop " + std::to_wstring(pid);
}

BOOL WINAPI OnConsoleControl(DWORD type) {
    s_stopRequested.store(true, std::memory_order_seq_cst);
    if (type == CTRL_CLOSE_EVENT || type == CTRL_LOGOFF_EVENT || type == CTRL_SHUTDOWN_EVENT) {
        // The system ends the process once this returns: give the main loop time to flush.
        ::Sleep(3000);
    }
    return TRUE;
}

// One argument as the C runtime splits command lines: quoted, backslashes doubled before quotes.
void AppendArgument(std::wstring& line, const std::wstring& argument) {
    line += L'"';
    size_t backslashes = 0;
    for (wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        line.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
        backslashes = 0;
        line += c;
    }
    line.append(2 * backslashes, L'\\');
    line += L'"';
}

std::wstring Wide(const std::string& text) {
    const int length =
        ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(length > 0 ? length : 0), L'\0');
    if (length > 0) {
        ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    }
    return wide;
}

}  // namespace

long CurrentProcess() {
    return static_cast<long>(::GetCurrentProcessId());
}

bool StdoutIsTerminal() {
    // A console that understands colour sequences (Windows 10 and later), not just any console.
    HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    return out != INVALID_HANDLE_VALUE && ::GetConsoleMode(out, &mode) &&
           ::SetConsoleMode(out, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

void InstallStopHandler() {
    static std::once_flag once;
    std::call_once(once, [] {
        ::SetConsoleCtrlHandler(OnConsoleControl, TRUE);
        // A parent that started us through StartSelf created the event already; this opens it.
        s_stopEvent.store(
            ::CreateEventW(nullptr, TRUE, FALSE, StopEventName(::GetCurrentProcessId()).c_str()));
    });
}

bool StopRequested() {
    if (s_stopRequested.load(std::memory_order_seq_cst)) {
        return true;
    }
    HANDLE event = s_stopEvent.load();
    if (event != nullptr && ::WaitForSingleObject(event, 0) == WAIT_OBJECT_0) {
        s_stopRequested.store(true, std::memory_order_seq_cst);
        return true;
    }
    return false;
}

long StartSelf(const std::vector<std::string>& arguments) {
    std::wstring self(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = ::GetModuleFileNameW(nullptr, self.data(), static_cast<DWORD>(self.size()));
        if (length == 0) {
            return -1;
        }
        if (length < self.size()) {
            self.resize(length);
            break;
        }
        self.resize(self.size() * 2);
    }
    std::wstring commandLine;
    AppendArgument(commandLine, self);
    for (const std::string& argument : arguments) {
        commandLine += L' ';
        AppendArgument(commandLine, Wide(argument));
    }
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info{};
    // Suspended until its stop event exists, so that a stop requested at once is not lost.
    if (!::CreateProcessW(self.c_str(), commandLine.data(), nullptr, nullptr, FALSE, CREATE_SUSPENDED,
                          nullptr, nullptr, &startup, &info)) {
        return -1;
    }
    Child child{info.hProcess, ::CreateEventW(nullptr, TRUE, FALSE, StopEventName(info.dwProcessId).c_str())};
    ::ResumeThread(info.hThread);
    ::CloseHandle(info.hThread);
    const long pid = static_cast<long>(info.dwProcessId);
    std::lock_guard<std::mutex> lock(s_childrenMutex);
    s_children[pid] = child;
    return pid;
}

void StopChild(long pid) {
    std::lock_guard<std::mutex> lock(s_childrenMutex);
    auto it = s_children.find(pid);
    if (it != s_children.end() && it->second.StopEvent != nullptr) {
        ::SetEvent(it->second.StopEvent);
    }
}

int WaitChild(long pid) {
    Child child;
    {
        std::lock_guard<std::mutex> lock(s_childrenMutex);
        auto it = s_children.find(pid);
        if (it == s_children.end()) {
            return -1;
        }
        child = it->second;
        s_children.erase(it);
    }
    DWORD code = 0;
    const bool ended = ::WaitForSingleObject(child.Process, INFINITE) == WAIT_OBJECT_0 &&
                       ::GetExitCodeProcess(child.Process, &code);
    ::CloseHandle(child.Process);
    if (child.StopEvent != nullptr) {
        ::CloseHandle(child.StopEvent);
    }
    return ended ? static_cast<int>(code) : -1;
}

namespace {

bool StartWinsock() {
    static const bool started = [] {
        WSADATA data;
        return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }();
    return started;
}

std::string SocketErrorText(int code) {
    char text[256] = {};
    const DWORD length = ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                          static_cast<DWORD>(code), 0, text, sizeof text, nullptr);
    std::string result(text, length);
    while (!result.empty() && static_cast<unsigned char>(result.back()) <= ' ') {
        result.pop_back();
    }
    return result.empty() ? "socket error " + std::to_string(code) : result;
}

// select rather than WSAPoll, which older Windows headers leave out; a failed connect shows up
// in the error set.
bool WaitSocket(SOCKET socket, bool forWriting, unsigned timeoutMs) {
    fd_set ready, failed;
    FD_ZERO(&ready);
    FD_ZERO(&failed);
    FD_SET(socket, &ready);
    FD_SET(socket, &failed);
    timeval timeout{static_cast<long>(timeoutMs / 1000), static_cast<long>(timeoutMs % 1000) * 1000};
    return ::select(0, forWriting ? nullptr : &ready, forWriting ? &ready : nullptr, &failed, &timeout) > 0;
}

}  // namespace

std::string MachineName() {
    char name[256] = {};
    DWORD size = sizeof name;
    return ::GetComputerNameA(name, &size) ? std::string(name, size) : std::string();
}

SocketHandle ConnectSocket(const std::string& host, const std::string& port, bool tcp, unsigned timeoutMs,
                           std::string& error) {
    if (!StartWinsock()) {
        error = "Winsock did not start";
        return NoSocket;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = tcp ? SOCK_STREAM : SOCK_DGRAM;
    addrinfo* addresses = nullptr;
    if (int result = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &addresses); result != 0) {
        error = SocketErrorText(result);
        return NoSocket;
    }
    error = "no address";
    SOCKET socket = INVALID_SOCKET;
    for (addrinfo* address = addresses; address != nullptr && socket == INVALID_SOCKET;
         address = address->ai_next) {
        socket = ::socket(address->ai_family, address->ai_socktype, address->ai_protocol);
        if (socket == INVALID_SOCKET) {
            error = SocketErrorText(::WSAGetLastError());
            continue;
        }
        u_long nonBlocking = 1;
        ::ioctlsocket(socket, FIONBIO, &nonBlocking);
        int result = ::connect(socket, address->ai_addr, static_cast<int>(address->ai_addrlen));
        int code = result == 0 ? 0 : ::WSAGetLastError();
        if (code == WSAEWOULDBLOCK) {
            code = WSAETIMEDOUT;
            if (WaitSocket(socket, true, timeoutMs)) {
                int length = sizeof code;
                ::getsockopt(socket, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&code), &length);
            }
        }
        if (code != 0) {
            error = SocketErrorText(code);
            ::closesocket(socket);
            socket = INVALID_SOCKET;
        }
    }
    ::freeaddrinfo(addresses);
    return socket == INVALID_SOCKET ? NoSocket : static_cast<SocketHandle>(socket);
}

bool SendAll(SocketHandle handle, std::string_view data, unsigned timeoutMs, std::string& error) {
    const SOCKET socket = static_cast<SOCKET>(handle);
    while (!data.empty()) {
        const int sent =
            ::send(socket, data.data(), static_cast<int>(std::min<size_t>(data.size(), 1 << 20)), 0);
        if (sent >= 0) {
            data.remove_prefix(static_cast<size_t>(sent));
            continue;
        }
        const int code = ::WSAGetLastError();
        if (code != WSAEWOULDBLOCK) {
            error = SocketErrorText(code);
            return false;
        }
        if (!WaitSocket(socket, true, timeoutMs)) {
            error = "send timed out";
            return false;
        }
    }
    return true;
}

bool PeerClosed(SocketHandle handle) {
    char byte;
    const int result = ::recv(static_cast<SOCKET>(handle), &byte, 1, MSG_PEEK);
    return result == 0 || (result < 0 && ::WSAGetLastError() != WSAEWOULDBLOCK);
}

void CloseSocket(SocketHandle handle) {
    if (handle != NoSocket) {
        ::closesocket(static_cast<SOCKET>(handle));
    }
}

}  // namespace Tracing::Tool
