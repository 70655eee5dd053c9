#include "common/local_host.h"

#include <algorithm>

#include "common/files.h"
#include "common/logging.h"
#include "common/text.h"

namespace tdacli {

std::string ParseIPMask(std::string_view text) {
  std::string value;
  for (const auto& line : SplitLines(text)) {
    auto p = line.find('=');
    if (p == std::string::npos || p + 1 >= line.size()) continue;
    if (line.compare(0, p, "IPMask") == 0) value = line.substr(p + 1);
  }
  return value;
}

std::string ReadIPMask(const std::string& path) {
  std::string text;
  if (!ReadTextFile(path, text)) return "";
  return ParseIPMask(text);
}

bool MatchesIPMask(const std::string& address, const std::string& mask) {
  if (mask.empty()) return false;
  std::vector<std::string> parts;
  int n = SplitString(mask, ",", parts);
  for (int i = 1; i <= n; ++i)
    if (!parts[i].empty() && Contains(address, parts[i])) return true;
  return false;
}

bool LooksLikeIPv4(const std::string& a) {
  for (size_t pos : {1u, 2u, 3u})
    if (a.size() > pos && a[pos] == '.') return true;
  return false;
}

void DetermineLocalIP(Workstation& agent) {
  std::string mask;
  const std::string mask_file = agent.AppPath("TDIPMASK.INI");
  if (FileExists(mask_file)) mask = ReadIPMask(mask_file);
  const std::string upper = Upper(mask);
  if (upper == "PC-NAME") {
    agent.local_ip = agent.computer_names[0];
    return;
  }
  if (upper == "PC-NAME-FQDN") {
    agent.local_ip = agent.computer_names[3];
    return;
  }
  // The adapters come from the platform's native adapter list (enabled adapters), the same data the
  // configuration query of the management interface returns, put in that query's order.
  std::string chosen = "(Unknown)", first;
  for (const auto& adapter : AdaptersInIndexOrder(agent.host().Adapters())) {
    for (const auto& entry : adapter.addresses) {
      if (entry == "0.0.0.0" || entry.empty() || entry == " ") continue;
      if (!LooksLikeIPv4(entry)) continue;
      if (first.empty()) first = entry;
      if (MatchesIPMask(entry, mask)) chosen = entry;  // the last match wins
    }
  }
  agent.local_ip = chosen;
  if (agent.local_ip.empty() || agent.local_ip == "(Unknown)") agent.local_ip = first;
  if (agent.local_ip.empty()) agent.local_ip = "(Unknown)";
  LogMessage(agent, "Set Local IP to: " + agent.local_ip, "Trace");
}

std::vector<platform::Adapter> AdaptersInIndexOrder(std::vector<platform::Adapter> adapters) {
  std::stable_sort(adapters.begin(), adapters.end(),
                   [](const platform::Adapter& a, const platform::Adapter& b) { return a.index < b.index; });
  return adapters;
}

void Workstation::EnsureLocalIP() {
  if (local_ip.empty()) DetermineLocalIP(*this);
}

void LoadComputerNames(Workstation& agent) {
  for (int i = 0; i < 8; ++i) agent.computer_names[i] = agent.host().ComputerNameEx(i);
}

void DetectOSVersion(Workstation& agent) {
  platform::OsVersion v = agent.host().Version();
  int code = 99;
  if (v.known) {
    if (v.major == 5 && v.minor <= 2) code = 50 + static_cast<int>(v.minor);
    else if (v.major == 6 && v.minor <= 3) code = 60 + static_cast<int>(v.minor);
    else if (v.major == 10) code = 10;
  }
  agent.os_code = code;
}

}  // namespace tdacli
