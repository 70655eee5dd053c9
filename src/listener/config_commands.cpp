// The configuration commands of Agent Explorer: GETINFO, the single SET commands and SETALL.
#include "listener/config_commands.h"

#include <optional>

#include "common/logging.h"
#include "common/text.h"
#include "config/configuration.h"
#include "listener/command_replies.h"
#include "listener/host_names.h"
#include "listener/listening_port.h"
#include "state/agent.h"

namespace tdacli::listener {

namespace {

// The value behind a keyword found at `at`: from the end of the keyword up to the first ";". A value
// without its ";" cannot be cut: nothing is returned and the command's handling ends there.
std::optional<std::string> ValueAfter(const std::string& data, size_t at, size_t keyword_length) {
  if (at == std::string::npos) return std::nullopt;
  const size_t from = at + keyword_length;
  const size_t semi = data.find(';', from);
  if (semi == std::string::npos) return std::nullopt;
  return data.substr(from, semi - from);
}

// One setting as the commands see it.
struct SettingCommand {
  std::string Settings::*setting;
  bool (*save)(Agent&);
  const char* keyword;  // of the single command and of its reply segments
  const char* tag;      // "<Extension>" ...
};

const SettingCommand kExt{&Settings::Ext, &SaveExt, "|SETEXT|", "<Extension>"};
const SettingCommand kServer{&Settings::Server, &SaveServer, "|SETSERVER|", "<TD Server>"};
const SettingCommand kNotify{&Settings::NotificationMethod, &SaveNotificationMethod, "|SETNOTIFY|",
                             "<Notification Method>"};
const SettingCommand kListen{&Settings::ListeningPorts, &SaveListeningPortsAndFollow, "|SETLISTEN|", "<Listening Ports>"};
const SettingCommand kPop4Ext{&Settings::PopEx, &SavePopEx, "|SETPOP4EXT|", "<Pop4Ext>"};
const SettingCommand kPop4Win{&Settings::PopWinName, &SavePopWinName, "|SETPOP4WIN|", "<Pop4Win>"};

std::string SuccessSegment(Agent& agent, const SettingCommand& c) {
  return std::string(c.keyword) + c.tag + agent.settings.*(c.setting) + ";";
}

std::string FailedSegment(const SettingCommand& c) { return std::string(c.keyword) + c.tag + "Failed;"; }

// Puts `value` into the setting and saves it; a failed save restores the old value, which the reply
// then shows as if it had been set (the save has logged the error).
void StoreSetting(Agent& agent, const SettingCommand& c, const std::string& value) {
  std::string& setting = agent.settings.*(c.setting);
  const std::string old = setting;
  setting = value;
  if (!c.save(agent)) agent.settings.*(c.setting) = old;
}

// A single SET command. `receipt` is the receipt log line; `empty_line` the log line for an empty
// value (none for the commands that log nothing then).
void HandleSingleSet(Agent& agent, const std::string& data, CommandReplies& replies, const SettingCommand& c,
                     const std::string& receipt, const std::optional<std::string>& empty_line) {
  LogMessage(agent, receipt, "Trace");
  const std::string keyword(c.keyword);
  const auto value = ValueAfter(data, data.find(keyword), keyword.size());
  if (!value) return;
  std::string reply;
  if (!value->empty()) {
    StoreSetting(agent, c, *value);
    reply += SuccessSegment(agent, c);
  } else {
    if (empty_line) LogMessage(agent, *empty_line, "Trace");
    reply += FailedSegment(c);
  }
  replies.SendCommandReply(reply, kAgentExplorerPeer);
}

std::string Quoted(const char* head, const std::string& data, const char* tail) {
  return std::string(head) + data + tail;
}

}  // namespace

void HandleGetInfo(Agent& agent, const std::string& /*data*/, CommandReplies& replies) {
  LogMessage(agent, "Received GETINFO command from Agent Explorer.", "Trace");
  LoadConfiguration(agent);
  const Settings& s = agent.settings;
  std::string reply = "|GETINFO|<PCName>";
  reply += GetLocalComputerName(agent);
  reply += ";<NETUsername>";
  reply += GetNetworkUserName(agent);
  reply += ";<WinName>" + s.CurrentUser + ";";
  reply += "<Extension>" + s.Ext + ";<TD Server>" + s.Server + ";";
  reply += "<Notification Method>" + s.NotificationMethod + ";";
  reply += "<Listening Ports>" + s.ListeningPorts + ";";
  reply += "<Pop4Ext>" + s.PopEx + ";";
  reply += "<Pop4Win>" + s.PopWinName + ";";
  replies.SendCommandReply(reply, kAgentExplorerPeer);
}

void HandleSetExt(Agent& agent, const std::string& data, CommandReplies& replies) {
  HandleSingleSet(agent, data, replies, kExt, "Received SETEXT command from Agent Explorer.",
                  Quoted("Extension extracted from command (", data, ") is empty. SETEXT command ignored."));
}

void HandleSetServer(Agent& agent, const std::string& data, CommandReplies& replies) {
  // The empty-value line of SETSERVER speaks of the extension too; that is its wording.
  HandleSingleSet(agent, data, replies, kServer, "Received SETSERVER command from Agent Explorer.",
                  Quoted("Extension extracted from command (", data, ") is empty. SETSERVER command ignored."));
}

void HandleSetNotify(Agent& agent, const std::string& data, CommandReplies& replies) {
  HandleSingleSet(agent, data, replies, kNotify, Quoted("Received SETNOTIFY command (", data, ")from Agent Explorer."),
                  std::nullopt);
}

void HandleSetListen(Agent& agent, const std::string& data, CommandReplies& replies) {
  HandleSingleSet(agent, data, replies, kListen, Quoted("Received SETLISTEN command (", data, ")from Agent Explorer."),
                  std::nullopt);
}

void HandleSetPop4Ext(Agent& agent, const std::string& data, CommandReplies& replies) {
  HandleSingleSet(
      agent, data, replies, kPop4Ext, "Received SETPOP4EXT command from Agent Explorer.",
      Quoted("Popup-For-Extension extracted from command (", data, ") is empty. SETPOP4EXT command ignored."));
}

void HandleSetPop4Win(Agent& agent, const std::string& data, CommandReplies& replies) {
  HandleSingleSet(
      agent, data, replies, kPop4Win, "Received SETPOP4WIN command from Agent Explorer.",
      Quoted("Popup-For-WinName extracted from command (", data, ") is empty. SETPOP4WIN command ignored."));
}

void HandleSetAll(Agent& agent, const std::string& data, CommandReplies& replies) {
  std::string reply;
  LogMessage(agent, Quoted("Received SETALL command (", data, ")from Agent Explorer."), "Trace");

  const auto ext = ValueAfter(data, data.find("|SETALL||EXT|"), 13);
  if (!ext) return;
  if (!ext->empty()) {
    StoreSetting(agent, kExt, *ext);
    reply += "|SETALL|<Extension>" + agent.settings.Ext + ";";
  } else {
    LogMessage(agent, Quoted("Extension extracted from command (", data, ") is empty. SETALL - EXT command ignored."),
               "Trace");
    reply += "|SETALL|<Extension>Failed;";
  }

  struct SubTag {
    const char* tag;
    const SettingCommand* command;
    const char* empty_head;
    const char* empty_tail;
    bool takes_value;  // only the server takes the sent value; the others are saved again unchanged
  };
  static const SubTag kSubTags[] = {
      {"|SERVER|", &kServer, "Server extracted from command (", ") is empty. SETALL - SERVER command ignored.", true},
      {"|NOTIFICATIONMETHOD|", &kNotify, "Notification extracted from command (",
       ") is empty. SETALL - NOTIFY command ignored.", false},
      {"|LISTENINGPORTS|", &kListen, "Listening Ports extracted from command (",
       ") is empty. SETALL - LISTEN command ignored.", false},
      {"|POP4EXT|", &kPop4Ext, "Popup-For-Extension extracted from command (",
       ") is empty. SETALL - POP4EXT command ignored.", false},
      {"|POP4WIN|", &kPop4Win, "Popup-For-WinName extracted from command (",
       ") is empty. SETALL - POP4WIN command ignored.", false},
  };
  for (const SubTag& sub : kSubTags) {
    const std::string tag(sub.tag);
    const size_t at = data.find(tag);
    if (at == std::string::npos) continue;
    const auto value = ValueAfter(data, at, tag.size());
    if (!value) return;
    const SettingCommand& c = *sub.command;
    if (!value->empty()) {
      StoreSetting(agent, c, sub.takes_value ? *value : agent.settings.*(c.setting));
      reply += SuccessSegment(agent, c);
    } else {
      LogMessage(agent, Quoted(sub.empty_head, data, sub.empty_tail), "Trace");
      reply += FailedSegment(c) + SuccessSegment(agent, c);
    }
  }
  replies.SendCommandReply(reply, kAgentExplorerPeer);
}

}  // namespace tdacli::listener
