#pragma once
// The post-login sequence that every login trigger runs the same way: the code-128 service message,
// the trigger-file poller and the console's LOGIN command.
namespace tdacli {

class Agent;

// The sequence after `LoginUser` has run: temp-folder check and status report, capture parameter and
// web-cam files, the wipe-out when no parameter file exists, and code 131 to TDACMT.
void RunPostLoginSteps(Agent& agent);

// `LoginUser`, then the steps above.
void RunPostLoginSequence(Agent& agent);

}  // namespace tdacli
