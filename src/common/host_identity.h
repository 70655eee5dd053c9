#pragma once
// Who this host is to the rest of the suite: computer names, OS code, and the "local IP" text that
// names the log files and is reported to the login server.
#include <string>
#include <string_view>
#include <vector>

#include "platform/host_identity.h"

namespace tdacli {

class Agent;

void DetermineLocalIP(Agent& agent);
void LoadComputerNames(Agent& agent);
void DetectOSVersion(Agent& agent);
std::string ReadIPMask(const std::string& path);
// The value of the last "IPMask=" line of a mask file's text (exact key, nothing trimmed), or empty.
std::string ParseIPMask(std::string_view text);
bool MatchesIPMask(const std::string& address, const std::string& mask);
bool LooksLikeIPv4(const std::string& address);
// The enabled adapters in the order the adapter configuration query returns them: by interface index
// (adapters of equal index keep the system's order).
std::vector<platform::Adapter> AdaptersInIndexOrder(std::vector<platform::Adapter> adapters);

}  // namespace tdacli
