#include "triggers/logoff.h"

#include "common/logging.h"
#include "login/drivers.h"
#include "siblings/delivery.h"
#include "siblings/request_file.h"
#include "state/agent.h"
#include "triggers/capture_files.h"
#include "triggers/frames.h"


namespace tdacli {

void DoUserLogOff(Agent& agent) {
  LogMessage(agent, "Received notification user (" + agent.settings.CurrentUser + ") just logged off.", "Trace");
  LogOffUser(agent);
  if (agent.Ended()) return;

  // The screen-capture service learns that the user has gone (by Windows version).
  if (RuleVUsesFiles(agent)) {
    MakeRequestFile(agent, "TDACSC", "Code=130");
    agent.DoEvents();
    LogMessage(agent, "Sent Message [130] to TDACSC!", "Trace");
  } else {
    const unsigned long result = SendServiceControl(agent, "TDACSC", 130);
    if (result != 0)
      LogMessage(agent, "Error Sending Message [130] to TDACSC: " + std::to_string(result), "Error");
    else
      LogMessage(agent, "Successfully Sent Message [130] to TDACSC!", "Trace");
  }

  LoadScreenParams(agent);
  if (agent.screen().line == "NOTSET") return;
  if (agent.screen().schedule == "AT-LOGIN")
    agent.DoEvents();
  else if (agent.screen().schedule == "ATLOGOUT")
    CleanupFrames(agent, "Log Off");
}

}  // namespace tdacli
