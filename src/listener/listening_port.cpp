#include "common/text.h"
#include "listener/listener.h"
#include "service/agent.h"

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

}  // namespace tdacli::listener
