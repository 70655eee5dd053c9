#include "listener/listening_port.h"

#include "common/logging.h"
#include "common/text.h"
#include "config/configuration.h"
#include "listener/listener.h"
#include "siblings/notify_new_listening_port.h"
#include "siblings/request_file.h"
#include "state/agent.h"

namespace tdacli::listener {

int16_t GetListeningPort(Agent& agent) {
  int16_t port = 5002;
  const std::string& list = agent.settings.ListeningPorts;
  if (list == "w,x,y,z") return 5002;
  std::vector<std::string> parts;
  if (SplitString(list, ",", parts) >= 2) {
    if (auto v = ToInt16(parts[2])) port = *v;  // a conversion fault keeps 5002
  }
  if (port <= 0) port = 0;
  return port;
}


bool ListenOnSavedPort(Agent& agent) {
  auto& listener = ListenerOf(agent);
  const bool was_listening = listener.Listener().State() == platform::TcpSocket::kListening;
  const uint16_t old_port = listener.Listener().LocalPort();
  listener.CloseListener();
  const int16_t port = GetListeningPort(agent);
  if (platform::SocketError error = listener.Listen(static_cast<uint16_t>(port))) {
    // The saved list stays in the file and takes effect at the next start. Until then the console
    // must still reach the agent: the port it used a moment ago is opened again (and, should that
    // fail too, tried again quietly).
    LogMessage(agent, "Error saving settings: " + error.description + " (Port: " + std::to_string(port) + ")",
               "Error");
    if (was_listening && listener.Listen(old_port)) listener.KeepTryingToListen(old_port);
    return false;
  }
  return true;
}

bool FollowSavedListeningPorts(Agent& agent) {
  if (!ListenOnSavedPort(agent)) return false;
  NotifyNewListeningPort(agent);
  return true;
}

bool SaveListeningPortsAndFollow(Agent& agent) {
  return SaveListeningPorts(agent) && FollowSavedListeningPorts(agent);
}

// In user-session mode the Agent Explorer listener is opened only once a user has logged in.
void ReopenListenerAfterLogin(Agent& agent) {
  auto& listener = ListenerOf(agent);
  int tries = 0;
  for (;;) {
    if (!agent.UserSessionMode()) return;
    listener.CloseListener();
    agent.DoEvents();
    const platform::SocketError error =
        listener.Listen(static_cast<uint16_t>(GetListeningPort(agent)));
    if (!error || tries >= 5) break;
    ++tries;
    LogMessage(agent,
               "Error opening listening socket [Port=" + std::to_string(listener.Listener().LocalPort()) +
                   "], attempting again [Tries=" + std::to_string(tries) + "], [Error=" + error.description + "]",
               "Warning!");
    agent.WaitSeconds(2);
    if (agent.Ended()) return;
  }
  // Written after the last failed try as well: the siblings are told in any case.
  LogMessage(agent, "Service is Now Listening on Port (" + std::to_string(listener.Listener().LocalPort()) + ")",
             "Trace");
  MakeRequestFile(agent, "TDACSC", "Code=135");
  MakeRequestFile(agent, "TDACLM", "Code=135");
}

}  // namespace tdacli::listener
