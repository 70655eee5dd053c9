#include "platform/posix/curl_http_client.h"
#include "seams/test_ca.h"

namespace tdacli::platform::testing {

std::unique_ptr<HttpClient> MakeHttpClientTrustingOnly(const std::string& ca_pem_file) {
  return std::make_unique<posix::CurlHttpClient>(ca_pem_file);
}

}  // namespace tdacli::platform::testing
