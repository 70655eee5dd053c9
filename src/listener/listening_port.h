#pragma once
// Which port the console listener takes, and its moves: after a new `ListeningPorts` was saved, and
// in user-session mode once a user has logged in.
#include <cstdint>

namespace tdacli {
class Agent;
}

namespace tdacli::listener {

// The port element 0 listens on, from the second entry of the `ListeningPorts` setting.
int16_t GetListeningPort(Agent& agent);
// After a new `ListeningPorts` was saved: element 0 closes and listens on the port of the new list.
// When it cannot, the error is logged, the port it listened on before is opened again and false
// returned.
bool ListenOnSavedPort(Agent& agent);
// After a new `ListeningPorts` was saved: the listener moves (ListenOnSavedPort) and, when it has, the
// siblings that talk to it hear of the new port. False when the listener could not move.
bool FollowSavedListeningPorts(Agent& agent);
// The console's SETLISTEN: saves the setting, then the listener follows it. False when either failed.
bool SaveListeningPortsAndFollow(Agent& agent);
// In user-session mode the Agent Explorer listener is opened only once a user has logged in (tries
// again up to five times), and the siblings are told the port.
void ReopenListenerAfterLogin(Agent& agent);

}  // namespace tdacli::listener
