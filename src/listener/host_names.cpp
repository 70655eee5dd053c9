#include "listener/host_names.h"

#include "common/text.h"
#include "state/agent.h"

namespace tdacli::listener {

// The system writes the name and its terminating NUL into a buffer of blanks; only the blanks are
// trimmed, so the NUL stays part of the value, which is how the console expects these fields.
std::string GetLocalComputerName(Agent& agent) { return TrimBlanks(agent.host().ComputerNameRaw()); }

std::string GetNetworkUserName(Agent& agent) { return TrimBlanks(agent.host().NetworkUserRaw()); }

}  // namespace tdacli::listener
