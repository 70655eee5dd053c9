#pragma once
// The siblings that talk to this service's console port hear of a new one.
namespace tdacli {

class Agent;

// Tells TDACSC and then TDACLM (code 135) that this service now listens on a new port.
void NotifyNewListeningPort(Agent& agent);

}  // namespace tdacli
