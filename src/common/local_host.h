#pragma once
// Who this host is to the rest of the suite: computer names, OS code, and the "local IP" text that
// names the log files and is reported to the login server.
#include <string>
#include <string_view>
#include <vector>

#include "common/workstation.h"
#include "platform/host_identity.h"

namespace tdacli {

void DetermineLocalIP(Workstation& agent);
void LoadComputerNames(Workstation& agent);
void DetectOSVersion(Workstation& agent);
std::string ReadIPMask(const std::string& path);
// The value of the last "IPMask=" line of a mask file's text (exact key, nothing trimmed), or empty.
std::string ParseIPMask(std::string_view text);
bool MatchesIPMask(const std::string& address, const std::string& mask);
bool LooksLikeIPv4(const std::string& address);
// The enabled adapters in the order the adapter configuration query returns them: by interface index
// (adapters of equal index keep the system's order).
std::vector<platform::Adapter> AdaptersInIndexOrder(std::vector<platform::Adapter> adapters);

}  // namespace tdacli
