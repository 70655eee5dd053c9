#include <fstream>
#include <iterator>

#include "platform/win32/winhttp_client.h"
#include "seams/test_ca.h"

namespace tdacli::platform::testing {

std::unique_ptr<HttpClient> MakeHttpClientTrustingOnly(const std::string& ca_pem_file) {
  std::ifstream f(ca_pem_file, std::ios::binary);
  std::string pem((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  return std::make_unique<win32::WinHttpClient>(pem);
}

}  // namespace tdacli::platform::testing
