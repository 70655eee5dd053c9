#pragma once
// The commands of the listener: one received burst of text is one command, recognised by its keyword
// in a fixed order and answered through a reply step.
#include <string>
#include <string_view>

#include "platform/version_info.h"

namespace tdacli {
class Agent;
}

namespace tdacli::listener {

// Log prefixes of the reply step when the peer has gone.
inline constexpr std::string_view kAgentExplorerPeer = "Cannot send response - AgentExplorer (IP = ";
inline constexpr std::string_view kServerPeer = "Cannot send response - Server (IP = ";

// Where a command's reply goes: the listener's newest connection, or a collector in tests and fuzzing.
class CommandReplies {
 public:
  virtual ~CommandReplies() = default;
  // Sends the reply as one piece when the connection is up; otherwise logs prefix + IP +
  // ") already disconnected!" as a warning.
  virtual void SendCommandReply(const std::string& reply, std::string_view prefix) = 0;
  // Remote address of the connection the command came from.
  virtual std::string RemoteHostIP() = 0;
  // Whether the connection a reply would go to is up (state 7).
  virtual bool ReplyConnectionUp() { return true; }
};

// Handles one received text: the first keyword found in the dispatch order decides.
void DispatchCommand(Agent& agent, const std::string& data, CommandReplies& replies);

// Configuration commands.
void HandleGetInfo(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetExt(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetServer(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetNotify(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetListen(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetPop4Ext(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetPop4Win(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSetAll(Agent& agent, const std::string& data, CommandReplies& replies);

// Login, version, trace-file and send-frames commands.
void HandleLogin(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleGetVer(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleGetTraceFile(Agent& agent, const std::string& data, CommandReplies& replies);
void HandleSendFramesData(Agent& agent, const std::string& data, CommandReplies& replies);

// Workers of the login, trace-file and version commands.
void PerformRequestedLogin(Agent& agent, CommandReplies& replies);
void RequestTraceFile(Agent& agent);

// The component report: rebuilds `ComponentReportText`.
void BuildComponentReport(Agent& agent);
// The eight strings of a file's version resource (first translation); false without one.
bool ReadVersionInfo(const std::string& path, platform::VersionStrings& info);
// State word and account of a service of the suite; both empty (and an "Error" line) when it cannot be
// queried.
struct ServiceColumns {
  std::string state, account, description;
};
ServiceColumns GetWinServiceDetails(Agent& agent, const std::string& service);
// Version, date, time and size of a file ("Unavailable!" without a version resource).
std::string GetFileDetails(Agent& agent, const std::string& path);
// Thousands separators, at least one digit: 1234567 -> "1,234,567".
std::string FormatFileSize(unsigned long long size);
// The "ServerPort" value of "RC\TDACLM.INI", or "(Unknown)".
std::string ReadRemoteControlPort(Agent& agent);
// The same for the file's text: the last line "ServerPort=<value>" with a value wins.
std::string ParseRemoteControlPort(std::string_view content);

// A chopped send-frames transmission may not grow past this (far above any real job): the pending
// data would otherwise take the workstation's memory from any peer that never sends the end tag.
inline constexpr size_t kMaxPendingProtocolData = 1024 * 1024;

// The body of a "[BEGIN_PROTOCOL]" ... "[END_PROTOCOL]" block; never fails.
std::string ExtractProtocolBody(const std::string& text);

// Computer name and network user name as the system writes them, with their terminating NUL kept
// and only blanks trimmed; empty when the call fails.
std::string GetLocalComputerName(Agent& agent);
std::string GetNetworkUserName(Agent& agent);

}  // namespace tdacli::listener
