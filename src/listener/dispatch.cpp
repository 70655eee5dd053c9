#include "common/text.h"
#include "listener/commands.h"
#include "service/agent.h"

namespace tdacli::listener {

void DispatchCommand(Agent& agent, const std::string& data, CommandReplies& replies) {
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

// Login on request needs the login drivers and the post-login work; not part of this build yet.
void HandleLogin(Agent&, const std::string&, CommandReplies&) {}

// The component report is built with the version report; not part of this build yet.
void HandleGetVer(Agent&, const std::string&, CommandReplies&) {}

// The trace-file request needs the sibling messaging to TDACMT; not part of this build yet.
void HandleGetTraceFile(Agent&, const std::string&, CommandReplies&) {}

// Send-frames jobs and their continuation pieces need the send-frames file writer; not part of this
// build yet, so such data is dropped like any text without a keyword.
void HandleSendFramesData(Agent&, const std::string&, CommandReplies&) {}

}  // namespace tdacli::listener
