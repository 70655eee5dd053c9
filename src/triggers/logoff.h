#pragma once
// The logoff routine, run by the control handler (133), the trigger-file poller and the console's
// login command.
namespace tdacli {

class Agent;

// The logoff routine: the server, the screen-capture service, and the cleanup the schedule asks for.
void DoUserLogOff(Agent& agent);

}  // namespace tdacli
