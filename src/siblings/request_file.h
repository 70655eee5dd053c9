#pragma once
// Request files: numbered messages for a sibling dropped in the application folder.
#include <string>

namespace tdacli {

class Agent;

// Writes "<YYYYMMDDHHMMSS>.<service>" in the application folder holding the one line `message`.
// Failures are logged and swallowed.
void MakeRequestFile(Agent& agent, const std::string& service, const std::string& message);

}  // namespace tdacli
