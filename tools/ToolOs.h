// The few operating-system services the tool needs beyond the library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tracing::Tool {

long CurrentProcess();

// Whether standard output is a terminal (colours are only written to one).
bool StdoutIsTerminal();

// A request to stop sets a flag instead of ending the process, so output can be flushed: SIGINT
// and SIGTERM; on Windows the console's Ctrl-C, Ctrl-Break and close, and the event
// "Local\paxltrace stop <process ID>" being set (how StopChild and scripts stop a process that
// has no console).
void InstallStopHandler();
bool StopRequested();
// Sleeps up to milliseconds, returning early once a stop was requested.
void SleepUnlessStopped(unsigned milliseconds);

// Starts this executable again with the arguments; returns the process ID, or -1.
long StartSelf(const std::vector<std::string>& arguments);
// Asks a child started by StartSelf to stop.
void StopChild(long pid);
// Waits for the child; its exit code, or 128 + signal number.
int WaitChild(long pid);

// The machine's name; empty when unknown.
std::string MachineName();

// Stream (TCP) and datagram (UDP) sockets for sending to a server; nothing here waits longer than
// the time it is given.
using SocketHandle = intptr_t;
constexpr SocketHandle NoSocket = -1;
// Resolves host and connects; NoSocket with the reason in error.
SocketHandle ConnectSocket(const std::string& host, const std::string& port, bool tcp, unsigned timeoutMs,
                           std::string& error);
// Sends all of data; false with the reason when the peer is gone or the time ran out.
bool SendAll(SocketHandle socket, std::string_view data, unsigned timeoutMs, std::string& error);
// True when a stream peer that never sends anything closed its end or reset the connection.
bool PeerClosed(SocketHandle socket);
void CloseSocket(SocketHandle socket);

}  // namespace Tracing::Tool
