#include "listener/dispatch.h"

#include "common/text.h"
#include "listener/command_replies.h"
#include "listener/component_report.h"
#include "listener/config_commands.h"
#include "listener/login_commands.h"
#include "listener/send_frames_command.h"
#include "state/agent.h"

namespace tdacli::listener {

void DispatchCommand(Agent& agent, const std::string& data, CommandReplies& replies) {
  // A read that brought nothing (the newest connection is already closed) ends the handling: it is
  // never a continuation piece of a pending send-frames job.
  if (data.empty()) return;
  // The first keyword found in this order decides, wherever it stands in the text.
  if (Contains(data, "|GETINFO|")) {
    HandleGetInfo(agent, data, replies);
  } else if (Contains(data, "|SETEXT|")) {
    HandleSetExt(agent, data, replies);
  } else if (Contains(data, "|SETSERVER|")) {
    HandleSetServer(agent, data, replies);
  } else if (Contains(data, "|SETNOTIFY|")) {
    HandleSetNotify(agent, data, replies);
  } else if (Contains(data, "|SETLISTEN|")) {
    HandleSetListen(agent, data, replies);
  } else if (Contains(data, "|SETPOP4EXT|")) {
    HandleSetPop4Ext(agent, data, replies);
  } else if (Contains(data, "|SETPOP4WIN|")) {
    HandleSetPop4Win(agent, data, replies);
  } else if (Contains(data, "|SETALL||EXT|")) {
    HandleSetAll(agent, data, replies);
  } else if (Contains(data, "|LOGIN|")) {
    HandleLogin(agent, data, replies);
  } else if (Contains(data, "|GETVER|")) {
    HandleGetVer(agent, data, replies);
  } else if (Contains(data, "|GETTRACEFILE|")) {
    HandleGetTraceFile(agent, data, replies);
  } else {
    HandleSendFramesData(agent, data, replies);
  }
}

}  // namespace tdacli::listener
