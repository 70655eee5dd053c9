#pragma once
// The names the GETINFO reply gives for this workstation.
#include <string>

namespace tdacli {
class Agent;
}

namespace tdacli::listener {

// Computer name and network user name as the system writes them, with their terminating NUL kept
// and only blanks trimmed; empty when the call fails.
std::string GetLocalComputerName(Agent& agent);
std::string GetNetworkUserName(Agent& agent);

}  // namespace tdacli::listener
