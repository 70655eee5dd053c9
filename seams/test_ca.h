#pragma once
// Test seam: an HTTP client that trusts only the given CA certificate (PEM) instead of the system's
// roots, for tests and benchmarks that serve HTTPS with a CA made at test time. Lives in the library
// `tdacli_seams`, which the agent itself never links.
#include <memory>
#include <string>

#include "platform/internet.h"

namespace tdacli::platform::testing {

std::unique_ptr<HttpClient> MakeHttpClientTrustingOnly(const std::string& ca_pem_file);

}  // namespace tdacli::platform::testing
