#pragma once
// Requests of the service manager beyond start and stop: pause and continue are refused, and the
// user-defined codes are the suite's messages between its services.
namespace tdacli {

class Agent;

void Service_Pause(Agent& agent);
void Service_Continue(Agent& agent);
void Service_Control(Agent& agent, int code);
// Code 128: a user has logged on; the whole login chain.
void RunServiceMessageLogin(Agent& agent);

}  // namespace tdacli
