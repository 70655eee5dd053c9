#pragma once
// Send-frames jobs from the TD Server: one reception, or a transmission chopped over several that is
// collected until both protocol tags have arrived. Every text no other keyword claims comes here.
#include <cstddef>
#include <string>

#include "listener/command_replies.h"

namespace tdacli {
class Agent;
}

namespace tdacli::listener {

// A chopped send-frames transmission may not grow past this (far above any real job): the pending
// data would otherwise take the workstation's memory from any peer that never sends the end tag.
inline constexpr size_t kMaxPendingProtocolData = 1024 * 1024;

void HandleSendFramesData(Agent& agent, const std::string& data, CommandReplies& replies);

}  // namespace tdacli::listener
