#pragma once
// How a numbered message reaches a sibling service (a control code or a request file, by rule), and
// the exchanges with TDACMT and the login detector that go through them.
#include <string>

namespace tdacli {

class Agent;

// Delivery rules. V: by Windows version (Vista and later get request files). S: by run mode
// (user-session mode gets request files). The third rule, F, always writes a file.
bool RuleVUsesFiles(const Agent& agent);
bool RuleSUsesFiles(const Agent& agent);

// Sends one user-defined control code to an installed service: 0, or the Windows error number of the
// step that failed.
unsigned long SendServiceControl(Agent& agent, const std::string& service, int code);

// Asks TDACMT (130) whether it can write to the server temp folder; true only on its 131 answer.
bool RequestServerTempCheck(Agent& agent);
// Asks the login detector to start the remote-control program.
void RequestRemoteControlLoad(Agent& agent);
// Tells TDACMT (131) that a login sequence has finished.
void NotifyMediaTransferLogin(Agent& agent);

}  // namespace tdacli
