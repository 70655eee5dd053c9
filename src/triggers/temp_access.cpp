#include "triggers/temp_access.h"

#include "common/files.h"
#include "common/logging.h"
#include "login/login_results.h"
#include "siblings/delivery.h"
#include "state/agent.h"

namespace tdacli {

int16_t CheckTempFolderAccess(Agent& agent) {
  agent.temp_access_status = 0;
  if (agent.settings.SvrTemp == "N/A") return 0;
  std::string& local = agent.settings.LocalTemp;
  if (!FolderExists(local)) EnsureFolder(agent, local);
  // The report text keeps "{CRLF}" markers; the console turns them into line breaks.
  if (!CanWriteToFolder(agent, local)) {
    agent.temp_access_status += 1;
    LogMessage(agent, "TD Agent Client Can't Write to Local Temp of: " + local, "Error");
    AppendToLoginResult(agent, "{CRLF}{CRLF}[ERROR]User Can't Write to Local Temp of: " + local);
  }
  if (!RequestServerTempCheck(agent)) {
    agent.temp_access_status += 2;
    AppendToLoginResult(agent, "{CRLF}{CRLF}[ERROR]User Can't Write to Server Temp of: " + agent.settings.SvrTemp);
  }
  if (agent.temp_access_status != 0) return agent.temp_access_status;
  LogMessage(agent, "User has proper access to both temp folders", "Trace");
  AppendToLoginResult(agent, "{CRLF}{CRLF}User has proper access to both temp folders.");
  return 0;
}

}  // namespace tdacli
