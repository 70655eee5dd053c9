// What the agent learns about its Windows host, and the program's own file.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <iphlpapi.h>
#include <winnetwk.h>

#include <vector>

#include "platform/host_identity.h"

namespace tdacli::platform {
namespace {

// The text of a fixed-size buffer of blanks after the system wrote into it, trimmed of blanks only:
// the terminating NUL the system wrote stays part of the text.
std::string TrimBlanksOnly(const std::string& s) {
  const size_t first = s.find_first_not_of(' ');
  if (first == std::string::npos) return "";
  const size_t last = s.find_last_not_of(' ');
  return s.substr(first, last - first + 1);
}

using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);

class Win32HostIdentity : public HostIdentity {
 public:
  std::string ComputerNameEx(int format) override {
    char buf[255] = {};
    DWORD len = sizeof buf;
    if (!GetComputerNameExA(static_cast<COMPUTER_NAME_FORMAT>(format), buf, &len) || len == 0) return "";
    return std::string(buf, len < sizeof buf ? len : sizeof buf);
  }

  std::string ComputerNameRaw() override {
    std::string buf(512, ' ');
    DWORD len = static_cast<DWORD>(buf.size());
    if (!GetComputerNameA(buf.data(), &len)) return "";
    return TrimBlanksOnly(buf);
  }

  std::string NetworkUserRaw() override {
    std::string buf(512, ' ');
    DWORD len = static_cast<DWORD>(buf.size());
    if (WNetGetUserA(nullptr, buf.data(), &len) != NO_ERROR) return "";
    return TrimBlanksOnly(buf);
  }

  // The native adapter list replaces the management-interface query of the network adapter
  // configurations (enabled adapters and their addresses): the same data, without COM and without the
  // start-up delay of that service. Adapters that are up with IPv4 enabled, their IPv4 unicast
  // addresses, with the adapter's interface index (the system's list is not in index order). The
  // loopback interface is not a network adapter there and is left out here as well.
  std::vector<Adapter> Adapters() override {
    std::vector<Adapter> out;
    const ULONG flags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
    ULONG size = 16 * 1024;
    std::vector<unsigned char> buf;
    ULONG rc = ERROR_BUFFER_OVERFLOW;
    for (int attempt = 0; attempt < 4 && rc == ERROR_BUFFER_OVERFLOW; ++attempt) {
      buf.resize(size);
      rc = GetAdaptersAddresses(AF_INET, flags, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.data()),
                                &size);
    }
    if (rc != NO_ERROR) return out;
    for (auto* a = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.data()); a; a = a->Next) {
      if (a->OperStatus != IfOperStatusUp || !(a->Flags & IP_ADAPTER_IPV4_ENABLED)) continue;
      if (a->IfType == IF_TYPE_SOFTWARE_LOOPBACK) continue;
      Adapter adapter;
      adapter.index = a->IfIndex;
      for (auto* u = a->FirstUnicastAddress; u; u = u->Next) {
        const sockaddr* sa = u->Address.lpSockaddr;
        if (!sa || sa->sa_family != AF_INET) continue;
        char text[INET_ADDRSTRLEN] = {};
        if (inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, text, sizeof text))
          adapter.addresses.push_back(text);
      }
      out.push_back(std::move(adapter));
    }
    return out;
  }

  // RtlGetVersion reports the true version whatever the executable's manifest declares; the
  // documented version call answers 6.2 on every later Windows unless the manifest names it.
  OsVersion Version() override {
    OsVersion v;
    HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    if (!ntdll) return v;
    auto fn = reinterpret_cast<RtlGetVersionFn>(reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlGetVersion")));
    if (!fn) return v;
    OSVERSIONINFOW info{};
    info.dwOSVersionInfoSize = sizeof info;
    if (fn(&info) != 0) return v;
    v.major = info.dwMajorVersion;
    v.minor = info.dwMinorVersion;
    v.known = true;
    return v;
  }

  std::string WindowsDirectory() override {
    char buf[255] = {};
    const UINT n = GetWindowsDirectoryA(buf, sizeof buf);
    if (n == 0 || n >= sizeof buf) return "";
    return std::string(buf, n);
  }
};

std::string ModulePath() {
  std::vector<char> buf(MAX_PATH);
  for (;;) {
    const DWORD n = GetModuleFileNameA(nullptr, buf.data(), static_cast<DWORD>(buf.size()));
    if (n == 0) return "";
    if (n < buf.size()) return std::string(buf.data(), n);
    buf.resize(buf.size() * 2);
  }
}

// Revision (the last of the four figures) of the file version in the file's own VERSIONINFO.
int FileRevision(const std::string& path) {
  DWORD ignored = 0;
  const DWORD size = GetFileVersionInfoSizeA(path.c_str(), &ignored);
  if (size == 0) return 0;
  std::vector<unsigned char> data(size);
  if (!GetFileVersionInfoA(path.c_str(), 0, size, data.data())) return 0;
  VS_FIXEDFILEINFO* info = nullptr;
  UINT len = 0;
  if (!VerQueryValueA(data.data(), "\\", reinterpret_cast<void**>(&info), &len) || !info ||
      len < sizeof(VS_FIXEDFILEINFO))
    return 0;
  return static_cast<int>(info->dwFileVersionLS & 0xffff);
}

}  // namespace

std::unique_ptr<HostIdentity> MakeSystemHostIdentity() { return std::make_unique<Win32HostIdentity>(); }

ProcessInfo CurrentProcess() {
  ProcessInfo p;
  p.exe_path = ModulePath();
  const auto slash = p.exe_path.find_last_of("\\/");
  p.exe_folder = slash == std::string::npos ? "." : p.exe_path.substr(0, slash);
  const std::string file = slash == std::string::npos ? p.exe_path : p.exe_path.substr(slash + 1);
  const auto dot = file.rfind('.');
  p.exe_base_name = dot == std::string::npos ? file : file.substr(0, dot);
  if (const char* cmd = GetCommandLineA()) p.command_line = cmd;
  p.file_revision = FileRevision(p.exe_path);
  return p;
}

}  // namespace tdacli::platform
