#include <windows.h>
#include <wincrypt.h>
#include <winhttp.h>

#include <vector>

#include "platform/win32/winhttp_client.h"

namespace tdacli::platform {

namespace win32 {

namespace {

std::wstring Wide(const std::string& s) {
  if (s.empty()) return {};
  const int n = MultiByteToWideChar(CP_ACP, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
  std::wstring w(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_ACP, 0, s.data(), static_cast<int>(s.size()), w.data(), n);
  return w;
}

std::string Describe(DWORD error) {
  char* text = nullptr;
  DWORD n = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_HMODULE |
                               FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                           GetModuleHandleA("winhttp.dll"), error, 0, reinterpret_cast<char*>(&text), 0, nullptr);
  std::string out = n && text ? std::string(text, n) : std::string();
  if (text) LocalFree(text);
  while (!out.empty() && (out.back() == '\r' || out.back() == '\n' || out.back() == ' ')) out.pop_back();
  if (out.empty()) out = "WinHTTP failure";
  return out + " (WinHTTP error " + std::to_string(error) + ")";
}

struct Handle {
  HINTERNET h = nullptr;
  ~Handle() {
    if (h) WinHttpCloseHandle(h);
  }
};

// Test seam only: the chain the server presented must end in the given CA.
bool ChainEndsInCa(HINTERNET request, const std::string& ca_pem, std::string& why) {
  DWORD der_size = 0;
  if (!CryptStringToBinaryA(ca_pem.c_str(), 0, CRYPT_STRING_BASE64HEADER, nullptr, &der_size, nullptr, nullptr)) {
    why = "the test CA is not PEM";
    return false;
  }
  std::vector<BYTE> der(der_size);
  CryptStringToBinaryA(ca_pem.c_str(), 0, CRYPT_STRING_BASE64HEADER, der.data(), &der_size, nullptr, nullptr);
  PCCERT_CONTEXT ca = CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), der_size);
  PCCERT_CONTEXT server = nullptr;
  DWORD size = sizeof server;
  if (!ca || !WinHttpQueryOption(request, WINHTTP_OPTION_SERVER_CERT_CONTEXT, &server, &size) || !server) {
    if (ca) CertFreeCertificateContext(ca);
    why = "no server certificate";
    return false;
  }
  HCERTSTORE extra = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
  CertAddCertificateContextToStore(extra, ca, CERT_STORE_ADD_ALWAYS, nullptr);
  CERT_CHAIN_PARA para = {};
  para.cbSize = sizeof para;
  PCCERT_CHAIN_CONTEXT chain = nullptr;
  bool ok = CertGetCertificateChain(nullptr, server, nullptr, extra, &para, 0, nullptr, &chain) && chain &&
            chain->cChain > 0;
  if (ok) {
    const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[0];
    const PCCERT_CONTEXT root = simple->rgpElement[simple->cElement - 1]->pCertContext;
    const DWORD allowed = CERT_TRUST_IS_UNTRUSTED_ROOT;
    ok = CertCompareCertificate(X509_ASN_ENCODING, root->pCertInfo, ca->pCertInfo) &&
         (chain->TrustStatus.dwErrorStatus & ~allowed) == 0;
  }
  if (!ok) why = "the server certificate was not issued by the test CA";
  if (chain) CertFreeCertificateChain(chain);
  CertCloseStore(extra, 0);
  CertFreeCertificateContext(server);
  CertFreeCertificateContext(ca);
  return ok;
}

}  // namespace

HttpResponse WinHttpClient::Get(const std::string& url) {
  HttpResponse response;
  const std::wstring wurl = Wide(url);
  URL_COMPONENTS parts = {};
  parts.dwStructSize = sizeof parts;
  parts.dwHostNameLength = static_cast<DWORD>(-1);
  parts.dwUrlPathLength = static_cast<DWORD>(-1);
  parts.dwExtraInfoLength = static_cast<DWORD>(-1);
  parts.dwSchemeLength = static_cast<DWORD>(-1);
  if (!WinHttpCrackUrl(wurl.c_str(), static_cast<DWORD>(wurl.size()), 0, &parts)) {
    response.error = Describe(GetLastError());
    return response;
  }
  const std::wstring host(parts.lpszHostName, parts.dwHostNameLength);
  std::wstring path(parts.lpszUrlPath, parts.dwUrlPathLength);
  path.append(parts.lpszExtraInfo, parts.dwExtraInfoLength);
  const bool secure = parts.nScheme == INTERNET_SCHEME_HTTPS;

  // A synchronous session with the default proxy settings.
  Handle session{WinHttpOpen(L"TDACLI", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, WINHTTP_NO_PROXY_NAME,
                             WINHTTP_NO_PROXY_BYPASS, 0)};
  if (!session.h) {
    response.error = Describe(GetLastError());
    return response;
  }
  const int ms = kHttpTimeoutSeconds * 1000;
  WinHttpSetTimeouts(session.h, ms, ms, ms, ms);
  Handle connection{WinHttpConnect(session.h, host.c_str(), parts.nPort, 0)};
  Handle request{connection.h ? WinHttpOpenRequest(connection.h, L"GET", path.c_str(), nullptr, WINHTTP_NO_REFERER,
                                                   WINHTTP_DEFAULT_ACCEPT_TYPES, secure ? WINHTTP_FLAG_SECURE : 0)
                              : nullptr};
  if (!request.h) {
    response.error = Describe(GetLastError());
    return response;
  }
  if (secure && !ca_pem_.empty()) {
    DWORD flags = SECURITY_FLAG_IGNORE_UNKNOWN_CA;
    WinHttpSetOption(request.h, WINHTTP_OPTION_SECURITY_FLAGS, &flags, sizeof flags);
  }
  if (!WinHttpSendRequest(request.h, WINHTTP_NO_ADDITIONAL_HEADERS, 0, WINHTTP_NO_REQUEST_DATA, 0, 0, 0)) {
    response.error = Describe(GetLastError());
    return response;
  }
  if (secure && !ca_pem_.empty()) {
    std::string why;
    if (!ChainEndsInCa(request.h, ca_pem_, why)) {
      response.error = why;
      return response;
    }
  }
  if (!WinHttpReceiveResponse(request.h, nullptr)) {
    response.error = Describe(GetLastError());
    return response;
  }
  DWORD status = 0, size = sizeof status;
  WinHttpQueryHeaders(request.h, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, WINHTTP_HEADER_NAME_BY_INDEX,
                      &status, &size, WINHTTP_NO_HEADER_INDEX);
  std::string body;
  for (;;) {
    DWORD available = 0;
    if (!WinHttpQueryDataAvailable(request.h, &available)) {
      response.error = Describe(GetLastError());
      return response;
    }
    if (available == 0) break;
    if (body.size() + available > kMaxResponseBytes) {
      response.error = "the response is larger than " + std::to_string(kMaxResponseBytes) + " bytes";
      return response;
    }
    const size_t at = body.size();
    body.resize(at + available);
    DWORD read = 0;
    if (!WinHttpReadData(request.h, body.data() + at, available, &read)) {
      response.error = Describe(GetLastError());
      return response;
    }
    body.resize(at + read);
  }
  response.received = true;
  response.status = static_cast<int>(status);
  response.body = std::move(body);
  return response;
}

}  // namespace win32

std::unique_ptr<HttpClient> MakeHttpClient() { return std::make_unique<win32::WinHttpClient>(); }

}  // namespace tdacli::platform
