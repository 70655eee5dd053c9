#pragma once
// Raw non-blocking TCP calls; errors are reported as Winsock error numbers on every OS so that the
// socket control and its log lines behave the same on Linux and Windows.
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/poller.h"

namespace tdacli::platform::sockapi {

constexpr int kWouldBlock = 10035;      // WSAEWOULDBLOCK
constexpr int kInProgress = 10036;      // WSAEINPROGRESS (also used for POSIX EINPROGRESS)
constexpr int kAddrInUse = 10048;       // WSAEADDRINUSE
constexpr int kConnRefused = 10061;     // WSAECONNREFUSED
constexpr int kConnReset = 10054;       // WSAECONNRESET
constexpr int kHostNotFound = 11001;    // WSAHOST_NOT_FOUND
constexpr int kInvalidArg = 10022;      // WSAEINVAL

void Startup();  // once per process (WSAStartup on Windows)
SocketHandle CreateTcp(int* error);
void CloseSocket(SocketHandle h);
// A zero linger time (SO_LINGER {1, 0}): closing the socket then resets the connection.
void SetAbortiveClose(SocketHandle h);
// Ends the sending side only (the peer reads the end of the data); receiving goes on.
void ShutdownSend(SocketHandle h);
int Bind(SocketHandle h, uint16_t port);  // any address; returns 0 or error number
// One local IPv4 address only (several servers can share a port on different loopback addresses).
int BindTo(SocketHandle h, const std::string& ipv4, uint16_t port);
int ListenOn(SocketHandle h);
SocketHandle Accept(SocketHandle listener, int* error);
// Starts a connect; 0 when connected at once, kInProgress when pending, else an error number.
int ConnectStart(SocketHandle h, const std::string& ipv4, uint16_t port);
int PendingError(SocketHandle h);  // SO_ERROR as a Winsock number
// >0 bytes, 0 on orderly close, -1 with *error set (kWouldBlock when nothing is there).
long Send(SocketHandle h, std::string_view data, int* error);
long Recv(SocketHandle h, char* buf, long len, bool peek, int* error);
std::string PeerAddress(SocketHandle h);
uint16_t LocalPort(SocketHandle h);
// Name or dotted address to a dotted IPv4 address; empty when it cannot be resolved.
std::string ResolveIPv4(const std::string& host);
// Winsock-style description of an error number.
std::string Describe(int number);

}  // namespace tdacli::platform::sockapi
