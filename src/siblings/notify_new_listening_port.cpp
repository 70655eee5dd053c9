#include "common/logging.h"
#include "service/agent.h"
#include "siblings/messaging.h"

namespace tdacli {

namespace {

// By Windows version: from Vista on the siblings are told through request files; older systems and an
// unknown version get the service control code.
bool UsesRequestFiles(int os_code) {
  switch (os_code) {
    case 60: case 61: case 62: case 63: case 10: return true;
    default: return false;
  }
}

void SendNewPort(Agent& agent, const std::string& service, const std::string& description) {
  if (UsesRequestFiles(agent.os_code)) {
    MakeRequestFile(agent, service, "Code=135");
    agent.DoEvents();
    LogMessage(agent, "Sent Message [135] to " + service + "!", "Trace");
    return;
  }
  LogMessage(agent, "Contacting the " + description + " for New Listening Port", "Trace");
  const unsigned long result = agent.service_control().SendControl(service, 135);
  if (result != 0) LogMessage(agent, "Error Sending Message to " + service + ": " + std::to_string(result), "Error");
}

}  // namespace

void NotifyNewListeningPort(Agent& agent) {
  SendNewPort(agent, "TDACSC", "TD Agent Client Screen Capture Service");
  SendNewPort(agent, "TDACLM", "TD Agent Client Live Monitor Service");
  agent.DoEvents();
}

}  // namespace tdacli
