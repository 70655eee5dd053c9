// Version resources through the version API and service details through the service control
// manager; every handle is closed on every path.
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/version_info.h"
#include "platform/win32/sc_handle.h"

namespace tdacli::platform {

namespace {

using win32::ScHandle;

std::string Failed(const char* call, DWORD error) { return std::string(call) + " failed (" + std::to_string(error) + ")"; }

}  // namespace

bool ReadFileVersionStrings(const std::string& path, VersionStrings& out) {
  out = VersionStrings{};
  DWORD handle = 0;
  const DWORD size = GetFileVersionInfoSizeA(path.c_str(), &handle);
  if (size == 0) return false;
  std::vector<char> data(size);
  if (!GetFileVersionInfoA(path.c_str(), 0, size, data.data())) return false;
  void* value = nullptr;
  UINT length = 0;
  char translation_path[] = "\\VarFileInfo\\Translation";
  if (!VerQueryValueA(data.data(), translation_path, &value, &length) || !value || length < 4) return false;
  const auto* pair = static_cast<const WORD*>(value);
  char prefix[32];
  std::snprintf(prefix, sizeof prefix, "\\StringFileInfo\\%04X%04X\\", pair[0], pair[1]);
  const std::pair<const char*, std::string*> keys[] = {
      {"CompanyName", &out.CompanyName},       {"FileDescription", &out.FileDescription},
      {"FileVersion", &out.FileVersion},       {"InternalName", &out.InternalName},
      {"LegalCopyright", &out.LegalCopyright}, {"OriginalFilename", &out.OriginalFilename},
      {"ProductName", &out.ProductName},       {"ProductVersion", &out.ProductVersion}};
  for (const auto& [key, field] : keys) {
    std::string sub = std::string(prefix) + key;
    void* text = nullptr;
    UINT chars = 0;
    if (VerQueryValueA(data.data(), sub.data(), &text, &chars) && text) {
      const char* p = static_cast<const char*>(text);
      // The text ends at its NUL, and never past the length the API reported.
      size_t n = 0;
      while (n < chars && p[n] != '\0') ++n;
      field->assign(p, n);
    }
  }
  return true;
}

ServiceDetails QueryServiceDetails(const std::string& /*app_folder*/, const std::string& service) {
  ServiceDetails d;
  ScHandle scm(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  if (!scm) {
    d.error = Failed("OpenSCManagerA", GetLastError());
    return d;
  }
  ScHandle svc(OpenServiceA(scm.get(), service.c_str(), SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG));
  if (!svc) {
    d.error = Failed("OpenServiceA", GetLastError()) + " for " + service;
    return d;
  }
  SERVICE_STATUS status{};
  if (!QueryServiceStatus(svc.get(), &status)) {
    d.error = Failed("QueryServiceStatus", GetLastError()) + " for " + service;
    return d;
  }
  DWORD needed = 0;
  QueryServiceConfigA(svc.get(), nullptr, 0, &needed);
  if (needed == 0 || needed > 8 * 1024) needed = 8 * 1024;  // the documented maximum size
  std::vector<char> buffer(needed);
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(buffer.data());
  if (!QueryServiceConfigA(svc.get(), config, needed, &needed)) {
    d.error = Failed("QueryServiceConfigA", GetLastError()) + " for " + service;
    return d;
  }
  static const char* const kStates[] = {"STOPPED", "START_PENDING", "STOP_PENDING", "RUNNING",
                                        "CONTINUE_PENDING", "PAUSE_PENDING", "PAUSED"};
  if (status.dwCurrentState >= 1 && status.dwCurrentState <= 7) d.state = kStates[status.dwCurrentState - 1];
  d.account = config->lpServiceStartName ? config->lpServiceStartName : "";
  d.description = "Service " + service + " [" + (config->lpDisplayName ? config->lpDisplayName : "") + "], " +
                  "Path=" + (config->lpBinaryPathName ? config->lpBinaryPathName : "") + ", State=" + d.state +
                  ", Account=" + d.account;
  d.ok = true;
  return d;
}

std::string ResolvePathNoCase(const std::string& path) { return path; }

}  // namespace tdacli::platform
