#include "siblings/delivery.h"

#include "common/files.h"
#include "common/logging.h"
#include "common/paths.h"
#include "common/text.h"
#include "siblings/request_file.h"
#include "state/agent.h"

namespace tdacli {

bool RuleVUsesFiles(const Agent& agent) {
  switch (agent.os_code) {
    case 60: case 61: case 62: case 63: case 10: return true;
    default: return false;  // 50-52 and the unknown code 99 get control codes
  }
}

bool RuleSUsesFiles(const Agent& agent) {
  // Tested afresh each time, with the path the senders have always used (doubled separator).
  return FileExists(agent.app_folder + kSepStr + "thinterminal.dat");
}

unsigned long SendServiceControl(Agent& agent, const std::string& service, int code) {
  return agent.service_control().SendControl(service, code);
}

bool RequestServerTempCheck(Agent& agent) {
  agent.media_transfer_reply.Expect();
  LogMessage(agent, "Sending message 130 to TDACMT Service", "Trace");
  unsigned long error = 0;
  if (RuleSUsesFiles(agent))
    MakeRequestFile(agent, "TDACMT", "Code=130");
  else
    error = SendServiceControl(agent, "TDACMT", 130);
  if (error != 0) {
    LogMessage(agent, "Error Sending Message 130 to TDACMT: " + std::to_string(error), "Error");
    return false;
  }
  // At most 31 one-second waits; the answer arrives through the control handler inside them, and a
  // wait ends as soon as it has.
  agent.media_transfer_reply.Await(agent, 31, /*events_after_each=*/true);
  return agent.media_transfer_reply.value() == 1;
}

void RequestRemoteControlLoad(Agent& agent) {
  // The folder already ends in a separator; the doubled one is kept as the login detector knows it.
  const std::string path = agent.app_folder + kSepStr + FormatCompact(agent.Now()) + ".TDACLD";
  TrappedError error;
  if (!SaveWholeFile(agent, path, "LOAD=TDACVC\r\n", {}, error)) {
    LogMessage(agent,
               "Error creating message request file (" + path + "), MESSAGE=LOAD=TDACVC, ERROR=" +
                   std::to_string(error.number) + ", DESC=" + error.description,
               "Error");
    return;
  }
  LogMessage(agent, "Made request file (" + path + "), Message=LOAD=TDACVC", "Trace");
}

void NotifyMediaTransferLogin(Agent& agent) {
  if (RuleSUsesFiles(agent))
    MakeRequestFile(agent, "TDACMT", "Code=131");
  else
    SendServiceControl(agent, "TDACMT", 131);
}

}  // namespace tdacli
