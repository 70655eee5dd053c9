#pragma once
// Whether the user can write to both temporary folders, the server one as TDACMT finds it: part of the
// post-login work, reported to the server and to the console.
#include <cstdint>

namespace tdacli {

class Agent;

// Checks that the agent can write to both temporary folders (the server one through TDACMT); sets and
// returns `TempAccessStatus` (+1 local, +2 server) and appends its findings to `LastLoginResult`.
int16_t CheckTempFolderAccess(Agent& agent);

}  // namespace tdacli
