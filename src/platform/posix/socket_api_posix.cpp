#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "platform/socket_api.h"

namespace tdacli::platform::sockapi {

namespace {
int ToWinsock(int e) {
  switch (e) {
    case EWOULDBLOCK: return kWouldBlock;
#if EAGAIN != EWOULDBLOCK
    case EAGAIN: return kWouldBlock;
#endif
    case EINPROGRESS: return kInProgress;
    case EALREADY: return 10037;
    case ENOTSOCK: return 10038;
    case EADDRINUSE: return kAddrInUse;
    case EADDRNOTAVAIL: return 10049;
    case ENETDOWN: return 10050;
    case ENETUNREACH: return 10051;
    case ECONNABORTED: return 10053;
    case ECONNRESET: return kConnReset;
    case EPIPE: return kConnReset;
    case ENOBUFS: return 10055;
    case EISCONN: return 10056;
    case ENOTCONN: return 10057;
    case ETIMEDOUT: return 10060;
    case ECONNREFUSED: return kConnRefused;
    case EHOSTUNREACH: return 10065;
    case EMFILE: return 10024;
    case EACCES: return 10013;
    case EINVAL: return kInvalidArg;
    default: return 10000 + e;
  }
}
int Last() { return ToWinsock(errno); }
}  // namespace

void Startup() {}

SocketHandle CreateTcp(int* error) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = Last();
    return kInvalidSocket;
  }
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return fd;
}

void CloseSocket(SocketHandle h) { close(static_cast<int>(h)); }

void SetAbortiveClose(SocketHandle h) {
  linger l{};
  l.l_onoff = 1;
  l.l_linger = 0;
  setsockopt(static_cast<int>(h), SOL_SOCKET, SO_LINGER, &l, sizeof l);
}

void ShutdownSend(SocketHandle h) { shutdown(static_cast<int>(h), SHUT_WR); }

int Bind(SocketHandle h, uint16_t port) {
  // Lets a restarted agent take its port back from connections in TIME_WAIT; a port that another
  // program listens on still fails with "address in use".
  int one = 1;
  setsockopt(static_cast<int>(h), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_ANY);
  return bind(static_cast<int>(h), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? 0 : Last();
}

int BindTo(SocketHandle h, const std::string& ipv4, uint16_t port) {
  int one = 1;
  setsockopt(static_cast<int>(h), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  if (inet_pton(AF_INET, ipv4.c_str(), &a.sin_addr) != 1) return kInvalidArg;
  return bind(static_cast<int>(h), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 ? 0 : Last();
}

int ListenOn(SocketHandle h) { return listen(static_cast<int>(h), SOMAXCONN) == 0 ? 0 : Last(); }

SocketHandle Accept(SocketHandle listener, int* error) {
  int fd = accept4(static_cast<int>(listener), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    *error = Last();
    return kInvalidSocket;
  }
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return fd;
}

int ConnectStart(SocketHandle h, const std::string& ipv4, uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  if (inet_pton(AF_INET, ipv4.c_str(), &a.sin_addr) != 1) return kInvalidArg;
  if (connect(static_cast<int>(h), reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return 0;
  return Last();
}

int PendingError(SocketHandle h) {
  int e = 0;
  socklen_t len = sizeof e;
  if (getsockopt(static_cast<int>(h), SOL_SOCKET, SO_ERROR, &e, &len) != 0) return Last();
  return e == 0 ? 0 : ToWinsock(e);
}

long Send(SocketHandle h, std::string_view data, int* error) {
  ssize_t n = send(static_cast<int>(h), data.data(), data.size(), MSG_NOSIGNAL);
  if (n < 0) *error = Last();
  return static_cast<long>(n);
}

long Recv(SocketHandle h, char* buf, long len, bool peek, int* error) {
  ssize_t n = recv(static_cast<int>(h), buf, static_cast<size_t>(len), peek ? MSG_PEEK : 0);
  if (n < 0) *error = Last();
  return static_cast<long>(n);
}

std::string PeerAddress(SocketHandle h) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  if (getpeername(static_cast<int>(h), reinterpret_cast<sockaddr*>(&a), &len) != 0) return "";
  char buf[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &a.sin_addr, buf, sizeof buf);
  return buf;
}

uint16_t LocalPort(SocketHandle h) {
  sockaddr_in a{};
  socklen_t len = sizeof a;
  if (getsockname(static_cast<int>(h), reinterpret_cast<sockaddr*>(&a), &len) != 0) return 0;
  return ntohs(a.sin_port);
}

}  // namespace tdacli::platform::sockapi
