#pragma once
// libcurl behind HttpClient. `ca_file` empty: the system's CA store (production); otherwise only that
// CA is trusted (reachable only through the test seam in seams/test_ca.h).
#include <string>

#include "platform/internet.h"

namespace tdacli::platform::posix {

class CurlHttpClient : public HttpClient {
 public:
  explicit CurlHttpClient(std::string ca_file = {}) : ca_file_(std::move(ca_file)) {}
  HttpResponse Get(const std::string& url) override;

 private:
  std::string ca_file_;
};

}  // namespace tdacli::platform::posix
