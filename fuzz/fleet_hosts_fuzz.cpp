// Feeds arbitrary bytes to the fleet console's host-list parser: the first line as the --hosts argument,
// the rest as the content of every host file it names. An accepted list gives each host once, within
// the bounds, and every host written back as an entry parses to itself; a refused one says why in one
// line without control characters.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "fleet/fleet.h"

using namespace tdacli::explorer::fleet;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const size_t nl = bytes.find('\n');
  const std::string_view hosts = bytes.substr(0, nl);
  const std::string file(nl == std::string_view::npos ? std::string_view() : bytes.substr(nl + 1));
  size_t reads = 0;
  const FileReader reader = [&](const std::string& path) -> std::optional<std::string> {
    ++reads;
    if (path == "missing") return std::nullopt;
    return file;
  };
  const HostSpec r = ParseHostSpec(hosts, reader);
  // A file cannot name another, so no more files are read than the host list names.
  if (reads > hosts.size()) __builtin_trap();
  if (!r.ok) {
    if (!r.hosts.empty() || r.error.rfind("--hosts: ", 0) != 0) __builtin_trap();
    if (r.error.size() > 400) __builtin_trap();
    for (char c : r.error)
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) __builtin_trap();
    return 0;
  }
  if (r.hosts.empty() || r.hosts.size() > kMaxHosts) __builtin_trap();
  std::set<std::pair<std::string, uint16_t>> seen;
  for (const Host& h : r.hosts) {
    if (h.port == 0 || h.name.empty() || !seen.insert({h.name, h.port}).second) __builtin_trap();
    for (char c : h.name)
      if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.')) __builtin_trap();
  }
  // Each host written back as an entry is that host (a sample, so that a /16 stays quick).
  for (size_t i = 0; i < r.hosts.size(); i += 1 + r.hosts.size() / 64) {
    const Host& h = r.hosts[i];
    const HostSpec again = ParseHostSpec(h.name + ":" + std::to_string(h.port), nullptr);
    if (!again.ok || again.hosts.size() != 1 || !(again.hosts[0] == h)) __builtin_trap();
  }
  return 0;
}
