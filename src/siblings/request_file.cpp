#include "siblings/request_file.h"

#include "common/files.h"
#include "common/logging.h"
#include "common/text.h"
#include "state/agent.h"

namespace tdacli {

void MakeRequestFile(Agent& agent, const std::string& service, const std::string& message) {
  // Two messages to one target within the same second share a name: the later one replaces the first.
  const std::string path = agent.app_folder + FormatCompact(agent.Now()) + "." + service;
  TrappedError error;
  if (!SaveWholeFile(agent, path, message + "\r\n", {}, error)) {
    LogMessage(agent,
               "Error creating message request file (" + path + "), MESSAGE=" + message +
                   ", ERROR=" + std::to_string(error.number) + ", DESC=" + error.description,
               "Error");
    return;
  }
  LogMessage(agent, "Made request file (" + path + "), Message=" + message, "Trace");
}

}  // namespace tdacli
