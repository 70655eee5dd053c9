#pragma once
// The agent as the program builds it: its state (state/agent.h) with the console listener built and
// the hooks of the lower rooms registered. This folder is the only one that knows every room.
#include <memory>

#include "state/agent.h"

namespace tdacli {

// Builds the console listener and registers the hooks through which lower rooms start the work of
// higher ones. Once per agent, right after it is made.
void WireAgent(Agent& agent);

// A new agent, wired.
std::unique_ptr<Agent> NewAgent(AgentFacilities facilities, AgentOptions options);

}  // namespace tdacli
