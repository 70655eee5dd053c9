#pragma once
// Numbered messages to the sibling services of the suite, delivered as service control codes or as
// request files dropped in the application folder.
#include <string>

namespace tdacli {

class Agent;

// Writes "<YYYYMMDDHHMMSS>.<service>" in the application folder holding the one line `message`.
// Failures are logged and swallowed.
void MakeRequestFile(Agent& agent, const std::string& service, const std::string& message);

// Tells TDACSC and then TDACLM (code 135) that this service now listens on a new port.
void NotifyNewListeningPort(Agent& agent);

}  // namespace tdacli
