#include "service/login_socket.h"

#include "listener/listening_port.h"
#include "login/conversation.h"
#include "login/drivers.h"
#include "state/agent.h"

namespace tdacli {

void WireLoginSocket(Agent& agent) {
  agent.login_socket.on_error = [&agent](int number, const std::string& description) {
    Broadcast_Error(agent, number, description);
  };
  agent.login_socket.on_data_arrival = [&agent](size_t bytes) {
    ActOnLoginOutcome(agent, Broadcast_DataArrival(agent, bytes));
  };
}

void ActOnLoginOutcome(Agent& agent, const LoginOutcome& learned) {
  if (learned.saved_listening_ports)
    ReportListeningPortsUpdate(agent, *learned.saved_listening_ports, listener::FollowSavedListeningPorts(agent));
  if (learned.logged_in) listener::ReopenListenerAfterLogin(agent);
}

}  // namespace tdacli
