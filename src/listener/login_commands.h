#pragma once
// "|LOGIN|" and "|GETTRACEFILE|": a login on the console's request, and the local trace file sent by
// TDACMT. Both wait with events flowing, so other connections are served meanwhile.
#include <string>

#include "listener/command_replies.h"

namespace tdacli {
class Agent;
}

namespace tdacli::listener {

void HandleLogin(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleGetTraceFile(Agent& agent, const std::string& data, CommandReplies& replies);

// The workers of the two commands.
void PerformRequestedLogin(Agent& agent, CommandReplies& replies);
void RequestTraceFile(Agent& agent);

}  // namespace tdacli::listener
