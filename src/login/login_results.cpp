#include "login/login_results.h"

#include <vector>

#include "common/files.h"
#include "common/logging.h"
#include "common/text.h"
#include "config/configuration.h"
#include "config/result_files.h"
#include "state/agent.h"

namespace tdacli {

// The live id fields: id, repeater address, repeater port and the peer-to-peer flag separated by ":".
// Fields that are missing leave their values as they were.
void StoreLiveIdFields(Agent& agent, std::string_view fields) {
  LoginState& l = agent.WriteLogin();
  std::vector<std::string> field;
  const int n = SplitString(fields, ":", field);
  if (n >= 1) l.TDLiveID = field[1];
  if (n >= 2) l.RepeaterIP = field[2];
  if (n >= 3) l.RepeaterPort = field[3];
  if (n >= 4) {
    l.PeerToPeerCapable = false;
    l.PeerToPeerCapable = field[4] == "T";
  }
}

void CutReceivedValues(Agent& agent, std::initializer_list<ReceivedValue> values) {
  LoginState& l = agent.WriteLogin();
  for (const ReceivedValue& v : values) CutAtLineBreak(agent, l.*v.field, v.name);
}

void AppendToLoginResult(Agent& agent, const std::string& text) { agent.WriteLogin().LastLoginResult += text; }

void StoreLoginResults(Agent& agent) {
  LoginState& l = agent.WriteLogin();
  const std::string ftp_file = agent.AppPath("TDACFTP.INI");
  if (FileExists(ftp_file)) DeleteFile(agent, ftp_file);
  SaveFtpCredentials(agent);
  const std::string mask_file = agent.AppPath("TDIPMASK.INI");
  if (l.ValidIPMask.empty()) {
    if (FileExists(mask_file)) DeleteFile(agent, mask_file);
  } else {
    SaveValidIPMask(agent, l.ValidIPMask);
  }
  SaveConfiguration(agent);
}

}  // namespace tdacli
