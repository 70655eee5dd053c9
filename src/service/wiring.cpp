#include "service/wiring.h"

#include "listener/listener.h"

namespace tdacli {

void WireAgent(Agent& agent) { agent.SetConsoleListener(std::make_unique<listener::CommandListener>(agent)); }

std::unique_ptr<Agent> NewAgent(AgentFacilities facilities, AgentOptions options) {
  auto agent = std::make_unique<Agent>(facilities, std::move(options));
  WireAgent(*agent);
  return agent;
}

}  // namespace tdacli
