#pragma once
// The commands of the listener: one received burst of text is one command, recognised by its keyword
// in a fixed order and answered through a reply step.
#include <string>

#include "listener/command_replies.h"

namespace tdacli {
class Agent;
}

namespace tdacli::listener {

// Handles one received text: the first keyword found in the dispatch order decides.
void DispatchCommand(Agent& agent, const std::string& data, CommandReplies& replies);

}  // namespace tdacli::listener
