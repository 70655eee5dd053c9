#include "service/wiring.h"

#include "listener/listener.h"
#include "listener/listening_port.h"
#include "triggers/capture_files.h"


namespace tdacli {

void WireAgent(Agent& agent) {
  agent.SetListener(std::make_shared<listener::CommandListener>(agent));
  agent.hooks.ListenOnSavedPort = [](Agent& a) { return listener::ListenOnSavedPort(a); };
  agent.hooks.ReopenListenerAfterLogin = [](Agent& a) { listener::ReopenListenerAfterLogin(a); };
  agent.hooks.SendFramesForGrabberTask = [](Agent& a, const std::string& task) { SendFramesForGrabberTask(a, task); };
}

std::unique_ptr<Agent> NewAgent(AgentFacilities facilities, AgentOptions options) {
  auto agent = std::make_unique<Agent>(facilities, std::move(options));
  WireAgent(*agent);
  return agent;
}

}  // namespace tdacli
