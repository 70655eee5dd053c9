#include "siblings/notify_new_listening_port.h"

#include "common/logging.h"
#include "siblings/delivery.h"
#include "siblings/request_file.h"
#include "state/agent.h"

namespace tdacli {

namespace {

void SendNewPort(Agent& agent, const std::string& service, const std::string& description) {
  if (RuleVUsesFiles(agent)) {
    MakeRequestFile(agent, service, "Code=135");
    agent.DoEvents();
    LogMessage(agent, "Sent Message [135] to " + service + "!", "Trace");
    return;
  }
  LogMessage(agent, "Contacting the " + description + " for New Listening Port", "Trace");
  const unsigned long result = SendServiceControl(agent, service, 135);
  if (result != 0) LogMessage(agent, "Error Sending Message to " + service + ": " + std::to_string(result), "Error");
}

}  // namespace

void NotifyNewListeningPort(Agent& agent) {
  SendNewPort(agent, "TDACSC", "TD Agent Client Screen Capture Service");
  SendNewPort(agent, "TDACLM", "TD Agent Client Live Monitor Service");
  agent.DoEvents();
}

}  // namespace tdacli
