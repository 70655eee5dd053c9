// The connection check. Kept apart from the HTTP client: the WinINet and WinHTTP headers cannot be
// included together.
#include <windows.h>
#include <wininet.h>

#include "platform/internet.h"

namespace tdacli::platform {

namespace {

class Win32InternetConnection : public InternetConnection {
 public:
  bool Connected(std::string& kind) override {
    DWORD flags = 0;
    if (!InternetGetConnectedState(&flags, 0)) return false;
    if (flags & INTERNET_CONNECTION_LAN) kind = "LAN";
    else if (flags & INTERNET_CONNECTION_MODEM) kind = "Modem";
    else if (flags & INTERNET_CONNECTION_PROXY) kind = "Proxy";
    else if (flags & INTERNET_CONNECTION_CONFIGURED) kind = "Configured";
    else kind.clear();
    return true;
  }
};

}  // namespace

std::unique_ptr<InternetConnection> MakeInternetConnection() { return std::make_unique<Win32InternetConnection>(); }

}  // namespace tdacli::platform
