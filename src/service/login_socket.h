#pragma once
// The login socket's events as the main form receives them. The conversation handles each reply and
// returns what it learned; what of that belongs to the rooms above it (the console listener's move,
// the notice to the siblings) is done here, in the same event, so that it happens at the moment of
// the reply.
#include <cstddef>

#include "login/login_results.h"

namespace tdacli {

class Agent;

// Connects the login socket's error and data-arrival events. Once, when the agent's controls are set
// up (Form_Load).
void WireLoginSocket(Agent& agent);

// The top's part of one reply: the listener follows a saved `ListeningPorts` (the siblings hear of
// it) and the conversation reports the update; after a completed login, in user-session mode, the
// listener opens.
void ActOnLoginOutcome(Agent& agent, const LoginOutcome& learned);

}  // namespace tdacli
