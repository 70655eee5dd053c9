#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <map>

#include "platform/host_identity.h"

namespace tdacli::platform {
namespace {

std::string HostName() {
  char buf[256] = {};
  if (gethostname(buf, sizeof buf - 1) != 0) return "";
  return buf;
}

std::string CanonicalName(const std::string& host) {
  addrinfo hints{};
  hints.ai_flags = AI_CANONNAME;
  addrinfo* res = nullptr;
  std::string out;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &res) == 0 && res) {
    if (res->ai_canonname) out = res->ai_canonname;
    freeaddrinfo(res);
  }
  return out.empty() ? host : out;
}

class PosixHostIdentity : public HostIdentity {
 public:
  // The formats follow the Windows numbering: 0 NetBIOS, 1 DNS host, 2 DNS domain, 3 fully qualified
  // DNS name, 4-7 the same for the physical machine. Here the host name and the resolver's canonical
  // name stand in for them.
  std::string ComputerNameEx(int format) override {
    std::string host = HostName();
    std::string shortname = host.substr(0, host.find('.'));
    std::string fqdn = CanonicalName(host);
    std::string domain = fqdn.find('.') != std::string::npos ? fqdn.substr(fqdn.find('.') + 1) : "";
    switch (format % 4) {
      case 0: {
        std::string n = shortname.substr(0, 15);
        for (auto& c : n) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        return n;
      }
      case 1: return shortname;
      case 2: return domain;
      default: return fqdn;
    }
  }
  std::string ComputerNameRaw() override {
    std::string n = ComputerNameEx(0);
    return n.empty() ? n : n + std::string(1, '\0');
  }
  std::string NetworkUserRaw() override {
    const passwd* pw = getpwuid(geteuid());
    if (!pw || !pw->pw_name) return "";
    return std::string(pw->pw_name) + std::string(1, '\0');
  }
  std::vector<Adapter> Adapters() override {
    std::vector<Adapter> out;
    std::map<std::string, size_t> index;
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return out;
    for (ifaddrs* a = list; a; a = a->ifa_next) {
      if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET) continue;
      if (!(a->ifa_flags & IFF_UP) || (a->ifa_flags & IFF_LOOPBACK)) continue;
      char buf[INET_ADDRSTRLEN] = {};
      inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr, buf, sizeof buf);
      auto it = index.find(a->ifa_name);
      if (it == index.end()) {
        index[a->ifa_name] = out.size();
        out.push_back({if_nametoindex(a->ifa_name), {buf}});
      } else {
        out[it->second].addresses.push_back(buf);
      }
    }
    freeifaddrs(list);
    return out;
  }
  OsVersion Version() override { return {}; }
  std::string WindowsDirectory() override { return ""; }
};

}  // namespace

std::unique_ptr<HostIdentity> MakeSystemHostIdentity() { return std::make_unique<PosixHostIdentity>(); }

ProcessInfo CurrentProcess() {
  ProcessInfo p;
  char buf[4096] = {};
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n > 0) p.exe_path.assign(buf, static_cast<size_t>(n));
  auto slash = p.exe_path.rfind('/');
  p.exe_folder = slash == std::string::npos ? "." : p.exe_path.substr(0, slash);
  std::string file = slash == std::string::npos ? p.exe_path : p.exe_path.substr(slash + 1);
  auto dot = file.rfind('.');
  p.exe_base_name = dot == std::string::npos ? file : file.substr(0, dot);
  FILE* f = fopen("/proc/self/cmdline", "rb");
  if (f) {
    std::string all;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, f)) > 0) all.append(chunk, got);
    fclose(f);
    for (auto& c : all)
      if (c == '\0') c = ' ';
    while (!all.empty() && all.back() == ' ') all.pop_back();
    p.command_line = all;
  }
  p.file_revision = TDACLI_REVISION;
  return p;
}

}  // namespace tdacli::platform
