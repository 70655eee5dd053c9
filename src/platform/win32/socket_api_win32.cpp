// Winsock calls behind the socket control. Error numbers are the WSAGetLastError() values as they are.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <climits>
#include <mutex>

#include "platform/socket_api.h"

namespace tdacli::platform::sockapi {

namespace {

SOCKET S(SocketHandle h) { return static_cast<SOCKET>(h); }
int Last() { return WSAGetLastError(); }

// Non-blocking, not inherited by programs the agent starts, and without Nagle's delay: the agent's
// messages are small and answered at once.
void Prepare(SOCKET s) {
  u_long on = 1;
  ioctlsocket(s, FIONBIO, &on);
  SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
  BOOL nodelay = TRUE;
  setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&nodelay), sizeof nodelay);
}

// Whether the end of a connection was a reset rather than an orderly close. Windows' recv reports a
// reset itself; under Wine the select() that found the socket readable has already taken the error out
// of it, and recv then reads an orderly end. WSAPoll still tells them apart: a reset is POLLERR with
// POLLHUP, an orderly close POLLHUP alone.
bool ResetByPeer(SOCKET s) {
  WSAPOLLFD p{};
  p.fd = s;
  p.events = POLLRDNORM;
  return WSAPoll(&p, 1, 0) == 1 && (p.revents & POLLERR) != 0;
}

}  // namespace

void Startup() {
  // Winsock is initialised once for the whole process and stays up until it ends.
  static std::once_flag once;
  std::call_once(once, [] {
    WSADATA data{};
    WSAStartup(MAKEWORD(2, 2), &data);
  });
}

SocketHandle CreateTcp(int* error) {
  Startup();
  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) {
    *error = Last();
    return kInvalidSocket;
  }
  Prepare(s);
  return static_cast<SocketHandle>(s);
}

void CloseSocket(SocketHandle h) { closesocket(S(h)); }

void SetAbortiveClose(SocketHandle h) {
  linger l{};
  l.l_onoff = 1;
  l.l_linger = 0;
  setsockopt(S(h), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&l), sizeof l);
}

void ShutdownSend(SocketHandle h) { shutdown(S(h), SD_SEND); }

int Bind(SocketHandle h, uint16_t port) {
  // No SO_REUSEADDR here: on Windows it lets a second listener take a port that is already in use
  // instead of failing with "address in use", which the start-up retries depend on.
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_ANY);
  return bind(S(h), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? 0 : Last();
}

int BindTo(SocketHandle h, const std::string& ipv4, uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  if (inet_pton(AF_INET, ipv4.c_str(), &a.sin_addr) != 1) return kInvalidArg;
  return bind(S(h), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? 0 : Last();
}

int ListenOn(SocketHandle h) { return listen(S(h), SOMAXCONN) == 0 ? 0 : Last(); }

SocketHandle Accept(SocketHandle listener, int* error) {
  SOCKET s = accept(S(listener), nullptr, nullptr);
  if (s == INVALID_SOCKET) {
    *error = Last();
    return kInvalidSocket;
  }
  Prepare(s);
  return static_cast<SocketHandle>(s);
}

int ConnectStart(SocketHandle h, const std::string& ipv4, uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  if (inet_pton(AF_INET, ipv4.c_str(), &a.sin_addr) != 1) return kInvalidArg;
  if (connect(S(h), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return 0;
  return Last();  // WSAEWOULDBLOCK while the connection is under way
}

int PendingError(SocketHandle h) {
  int e = 0;
  int len = sizeof e;
  if (getsockopt(S(h), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&e), &len) != 0) return Last();
  return e;
}

long Send(SocketHandle h, std::string_view data, int* error) {
  const int len = data.size() > INT_MAX ? INT_MAX : static_cast<int>(data.size());
  int n = send(S(h), data.data(), len, 0);
  if (n == SOCKET_ERROR) {
    *error = Last();
    return -1;
  }
  return n;
}

long Recv(SocketHandle h, char* buf, long len, bool peek, int* error) {
  int n = recv(S(h), buf, static_cast<int>(len), peek ? MSG_PEEK : 0);
  if (n == SOCKET_ERROR) {
    *error = Last();
    return -1;
  }
  if (n == 0 && len > 0 && ResetByPeer(S(h))) {
    *error = WSAECONNRESET;
    return -1;
  }
  return n;
}

std::string PeerAddress(SocketHandle h) {
  sockaddr_in a{};
  int len = sizeof a;
  if (getpeername(S(h), reinterpret_cast<sockaddr*>(&a), &len) != 0) return "";
  char buf[INET_ADDRSTRLEN] = {};
  if (!inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf)) return "";
  return buf;
}

uint16_t LocalPort(SocketHandle h) {
  sockaddr_in a{};
  int len = sizeof a;
  if (getsockname(S(h), reinterpret_cast<sockaddr*>(&a), &len) != 0) return 0;
  return ntohs(a.sin_port);
}

}  // namespace tdacli::platform::sockapi
