#include "triggers/post_login.h"

#include "common/files.h"
#include "login/drivers.h"
#include "siblings/delivery.h"
#include "state/agent.h"
#include "triggers/capture_files.h"
#include "triggers/frames.h"
#include "triggers/temp_access.h"


namespace tdacli {

void RunPostLoginSteps(Agent& agent) {
  if (agent.Ended()) return;
  if (agent.login().LoginSucceeded) {
    if (agent.settings.SvrTemp != "NoScreenCapture") {
      CheckTempFolderAccess(agent);
      LoginStatus(agent);
    }
    if (agent.login().LoginSucceeded) {
      if (!agent.login().HundredScreensParam.empty()) Make100ScreensParamFile(agent);
      HandleWebCamTrigger(agent);
    }
  }
  // Whatever the outcome: capture activity without parameters goes, and TDACMT hears of the login.
  if (!FileExists(agent.AppPath("100ScreenParam.TXT"))) WipeOut(agent);
  NotifyMediaTransferLogin(agent);
}

void RunPostLoginSequence(Agent& agent) {
  LoginUser(agent);
  RunPostLoginSteps(agent);
}

}  // namespace tdacli
