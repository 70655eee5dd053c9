// "|LOGIN|" and "|GETTRACEFILE|": a login on the console's request, and the local trace file sent by
// TDACMT. Both wait with events flowing, so other connections are served meanwhile.
#include "listener/login_commands.h"

#include <exception>

#include "common/errors.h"
#include "common/files.h"
#include "common/logging.h"
#include "common/text.h"
#include "config/configuration.h"
#include "listener/command_replies.h"
#include "siblings/delivery.h"
#include "siblings/request_file.h"
#include "state/agent.h"
#include "triggers/logoff.h"
#include "triggers/post_login.h"

namespace tdacli::listener {

void PerformRequestedLogin(Agent& agent, CommandReplies& replies) {
  // An earlier login's capture parameters still in place: that user is logged off first.
  Ignoring([&] {
    if (FileExists(agent.AppPath("100ScreenParam.TXT"))) DoUserLogOff(agent);
  });
  if (agent.Ended()) return;
  Ignoring([&] { LoadConfiguration(agent); });
  Ignoring([&] {
    LogMessage(agent, "Received request from AgentExplorer at (" + replies.RemoteHostIP() + ") to perform a login.",
               "Trace");
  });
  Ignoring([&] { RunPostLoginSequence(agent); });
}

void HandleLogin(Agent& agent, const std::string&, CommandReplies& replies) {
  LogMessage(agent,
             "Received LOGIN command from Agent Explorer (IP = " + replies.RemoteHostIP() +
                 "), calling svcMain_Control()",
             "Trace");
  PerformRequestedLogin(agent, replies);
  if (agent.Ended()) return;
  replies.SendCommandReply("|LOGIN|<Status>" + agent.login().LastLoginResult, kAgentExplorerPeer);
}

void RequestTraceFile(Agent& agent) {
  Ignoring([&] {
    LogMessage(agent, "Agent Explorer Asked for Local Trace File, Calling TDACMT!", "Trace");
    agent.trace_file_reply.Expect();
    if (RuleSUsesFiles(agent))
      MakeRequestFile(agent, "TDACMT", "Code=140");
    else
      SendServiceControl(agent, "TDACMT", 140);
    // At most 11 one-second waits; the answer (code 141 or 142) arrives through the control handler
    // inside them and ends the current one at once.
    if (agent.trace_file_reply.Await(agent, 11))
      LogMessage(agent, "TDACMT Replied With: " + agent.trace_file_reply.Text(), "Trace");
    else
      LogMessage(agent, "No Response From TDACMT!", "Error");
  });
}

void HandleGetTraceFile(Agent& agent, const std::string&, CommandReplies& replies) {
  LogMessage(agent,
             "Received GETTRACEFILE command from Agent Explorer (IP = " + replies.RemoteHostIP() +
                 "), calling svcMain_Control()",
             "Trace");
  RequestTraceFile(agent);
  if (agent.Ended()) return;
  replies.SendCommandReply("|GETTRACEFILE|<Status>" + agent.trace_file_reply.Text(), kAgentExplorerPeer);
}

}  // namespace tdacli::listener
