#pragma once
// The configuration commands: "|GETINFO|" and the SET commands, each answered with the values as
// saved.
#include <string>

#include "listener/command_replies.h"

namespace tdacli {
class Agent;
}

namespace tdacli::listener {

void HandleGetInfo(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetExt(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetServer(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetNotify(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetListen(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetPop4Ext(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetPop4Win(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetAll(Agent& agent, const std::string& data, CommandReplies& replies);

}  // namespace tdacli::listener
