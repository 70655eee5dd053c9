#pragma once
// Who this host is to the rest of the suite: computer names, OS code, and the "local IP" text that
// names the log files and is reported to the login server.
#include <string>

namespace tdacli {

class Agent;

void DetermineLocalIP(Agent& agent);
void LoadComputerNames(Agent& agent);
void DetectOSVersion(Agent& agent);
std::string ReadIPMask(const std::string& path);
bool MatchesIPMask(const std::string& address, const std::string& mask);
bool LooksLikeIPv4(const std::string& address);

}  // namespace tdacli
