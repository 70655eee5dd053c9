#include "service/control.h"

#include <string>

#include "common/errors.h"
#include "common/logging.h"
#include "config/configuration.h"
#include "state/agent.h"
#include "triggers/logoff.h"
#include "triggers/post_login.h"


namespace tdacli {

void Service_Pause(Agent& agent) {
  LogMessage(agent,
             "The service received, and discarded, a 'Pause' request. This service does not accept "
             "pause/continue requests.",
             "Warning");
}

void Service_Continue(Agent& agent) {
  LogMessage(agent,
             "The service received, and discarded, a 'Continue' request. This service does not accept "
             "pause/continue requests.",
             "Warning");
}

void RunServiceMessageLogin(Agent& agent) {
  LoadConfiguration(agent);
  LogMessage(agent,
             "Received notification user (" + agent.settings.CurrentUser +
                 ") just logged in, updating TD Server via SERVICE MESSAGE login.",
             "Trace");
  RunPostLoginSequence(agent);
}

void Service_Control(Agent& agent, int code) {
  TrapAndLog(agent, "Service_Control", [&] {
    switch (code) {
      case 128: RunServiceMessageLogin(agent); break;
      case 133: DoUserLogOff(agent); break;
      case 131: agent.media_transfer_reply.Resolve(1); break;
      case 132: agent.media_transfer_reply.Resolve(2); break;
      case 141: agent.trace_file_reply.Resolve(1); break;
      case 142: agent.trace_file_reply.Resolve(2); break;
      default:
        LogMessage(agent,
                   "The message (" + std::to_string(code) +
                       ") was recevied and discarded. The service does not recognize that request",
                   "Warning");
    }
  });
}

}  // namespace tdacli
