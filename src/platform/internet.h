#pragma once
// The internet transfer facility of the web-service login client: one blocking GET through the
// platform's own HTTP client (WinHTTP on Windows, libcurl elsewhere) and the connection check.
#include <cstddef>
#include <memory>
#include <string>

namespace tdacli::platform {

// Web answers cross networks we do not control: a body larger than this is refused as a whole (the
// fetch counts as failed) rather than read into memory without end. Login and task replies are a few
// hundred bytes.
inline constexpr size_t kMaxResponseBytes = 64 * 1024;
// Resolve, connect, send and receive each give up after this long.
inline constexpr int kHttpTimeoutSeconds = 10;

struct HttpResponse {
  bool received = false;  // an HTTP answer arrived (any status)
  int status = 0;         // its status code
  std::string body;       // the bytes as received, no charset conversion
  std::string error;      // when nothing was received: why (refused, time-out, certificate, too large)
};

class HttpClient {
 public:
  virtual ~HttpClient() = default;
  // One GET of `url` ("http://" or "https://"), blocking until the answer or a time-out. HTTPS
  // certificates and host names are always verified against the system's trusted roots.
  virtual HttpResponse Get(const std::string& url) = 0;
};

class InternetConnection {
 public:
  virtual ~InternetConnection() = default;
  // True when the workstation is connected; `kind` then names the connection: "LAN", "Modem", "Proxy"
  // or "Configured".
  virtual bool Connected(std::string& kind) = 0;
};

std::unique_ptr<HttpClient> MakeHttpClient();
std::unique_ptr<InternetConnection> MakeInternetConnection();

}  // namespace tdacli::platform
