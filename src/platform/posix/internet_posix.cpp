#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include "platform/posix/curl_http_client.h"

#ifdef TDACLI_HAVE_CURL
#include <curl/curl.h>
#endif

namespace tdacli::platform {

namespace posix {

#ifdef TDACLI_HAVE_CURL
namespace {

struct Sink {
  std::string body;
  bool too_large = false;
};

size_t Collect(char* data, size_t size, size_t count, void* user) {
  auto* sink = static_cast<Sink*>(user);
  const size_t n = size * count;
  if (sink->body.size() + n > kMaxResponseBytes) {
    sink->too_large = true;
    return 0;  // makes libcurl abort the transfer
  }
  sink->body.append(data, n);
  return n;
}

}  // namespace

HttpResponse CurlHttpClient::Get(const std::string& url) {
  HttpResponse response;
  CURL* curl = curl_easy_init();
  if (!curl) {
    response.error = "libcurl could not start a transfer";
    return response;
  }
  Sink sink;
  char detail[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, static_cast<long>(kHttpTimeoutSeconds));
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, static_cast<long>(kHttpTimeoutSeconds));
  // Certificates and host names are always checked; there is no switch to turn that off.
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  if (!ca_file_.empty()) {
    curl_easy_setopt(curl, CURLOPT_CAINFO, ca_file_.c_str());
    curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
  }
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, detail);
  const CURLcode code = curl_easy_perform(curl);
  if (code == CURLE_OK) {
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    response.received = true;
    response.status = static_cast<int>(status);
    response.body = std::move(sink.body);
  } else if (sink.too_large) {
    response.error = "the response is larger than " + std::to_string(kMaxResponseBytes) + " bytes";
  } else {
    response.error = std::string(detail[0] ? detail : curl_easy_strerror(code)) + " (libcurl error " +
                     std::to_string(static_cast<int>(code)) + ")";
  }
  curl_easy_cleanup(curl);
  return response;
}
#else
HttpResponse CurlHttpClient::Get(const std::string&) {
  HttpResponse response;
  response.error = "this build has no HTTP client (libcurl was not found)";
  return response;
}
#endif

}  // namespace posix

namespace {

// Connected when an interface other than the loopback is up with an IPv4 address.
class InterfaceConnection : public InternetConnection {
 public:
  bool Connected(std::string& kind) override {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return false;
    bool found = false;
    for (ifaddrs* i = list; i && !found; i = i->ifa_next) {
      if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET) continue;
      if ((i->ifa_flags & IFF_UP) && !(i->ifa_flags & IFF_LOOPBACK)) found = true;
    }
    freeifaddrs(list);
    if (found) kind = "LAN";
    return found;
  }
};

}  // namespace

std::unique_ptr<HttpClient> MakeHttpClient() { return std::make_unique<posix::CurlHttpClient>(); }
std::unique_ptr<InternetConnection> MakeInternetConnection() { return std::make_unique<InterfaceConnection>(); }

}  // namespace tdacli::platform
