#pragma once
// The agent as the program builds it: its state (state/agent.h) with the console listener, the one
// control only the top can build, in place. This folder is the only one that knows every room.
#include <memory>

#include "state/agent.h"

namespace tdacli {

// Builds the console listener and hands it to the agent. Once per agent, right after it is made.
void WireAgent(Agent& agent);

// A new agent, wired.
std::unique_ptr<Agent> NewAgent(AgentFacilities facilities, AgentOptions options);

}  // namespace tdacli
