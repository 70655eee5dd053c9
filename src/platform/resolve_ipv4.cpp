// Host names to IPv4 addresses, the same on every system: the resolver's calls carry the same names
// on both, only their headers differ.
#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#endif

#include "platform/socket_api.h"

namespace tdacli::platform::sockapi {

std::string ResolveIPv4(const std::string& host) {
  if (host.empty()) return "";
  Startup();
  in_addr a{};
  if (inet_pton(AF_INET, host.c_str(), &a) == 1) return host;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) return "";
  char buf[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr, buf, sizeof buf);
  freeaddrinfo(res);
  return buf;
}

}  // namespace tdacli::platform::sockapi
