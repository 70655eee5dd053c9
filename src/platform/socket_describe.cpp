#include <map>

#include "platform/socket_api.h"

namespace tdacli::platform::sockapi {

// The same wording on every OS, so that log lines compare byte for byte.
std::string Describe(int number) {
  static const std::map<int, const char*> texts = {
      {10013, "Permission denied"},
      {10022, "Invalid argument"},
      {10024, "Too many open files"},
      {10035, "Resource temporarily unavailable"},
      {10036, "Operation now in progress"},
      {10037, "Operation already in progress"},
      {10038, "Socket operation on nonsocket"},
      {10048, "Address already in use"},
      {10049, "Cannot assign requested address"},
      {10050, "Network is down"},
      {10051, "Network is unreachable"},
      {10053, "Software caused connection abort"},
      {10054, "Connection reset by peer"},
      {10055, "No buffer space available"},
      {10056, "Socket is already connected"},
      {10057, "Socket is not connected"},
      {10060, "Connection timed out"},
      {10061, "Connection is forcefully rejected"},
      {10065, "No route to host"},
      {11001, "Authoritative answer: Host not found"},
  };
  auto it = texts.find(number);
  return it != texts.end() ? it->second : "Socket error " + std::to_string(number);
}

}  // namespace tdacli::platform::sockapi
