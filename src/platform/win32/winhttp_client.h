#pragma once
// WinHTTP behind HttpClient. `ca_pem` empty: the system's certificate validation (production);
// otherwise the server's chain must end in exactly that CA (reachable only through the test seam in
// seams/test_ca.h).
#include <string>

#include "platform/internet.h"

namespace tdacli::platform::win32 {

class WinHttpClient : public HttpClient {
 public:
  explicit WinHttpClient(std::string ca_pem = {}) : ca_pem_(std::move(ca_pem)) {}
  HttpResponse Get(const std::string& url) override;

 private:
  std::string ca_pem_;
};

}  // namespace tdacli::platform::win32
