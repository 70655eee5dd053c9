#pragma once
// Numbered messages to the sibling services of the suite, delivered as service control codes or as
// request files dropped in the application folder.
#include <cstdint>
#include <string>

namespace tdacli {

class Agent;

// Writes "<YYYYMMDDHHMMSS>.<service>" in the application folder holding the one line `message`.
// Failures are logged and swallowed.
void MakeRequestFile(Agent& agent, const std::string& service, const std::string& message);

// Tells TDACSC and then TDACLM (code 135) that this service now listens on a new port.
void NotifyNewListeningPort(Agent& agent);

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
// Checks that the agent can write to both temporary folders (the server one through TDACMT); sets and
// returns `TempAccessStatus` (+1 local, +2 server) and appends its findings to `LastLoginResult`.
int16_t CheckTempFolderAccess(Agent& agent);

}  // namespace tdacli
