#pragma once
// Where a console command's reply goes: the listener's newest connection, or a collector in tests and
// fuzzing.
#include <string>
#include <string_view>

namespace tdacli::listener {

// Log prefixes of the reply step when the peer has gone.
inline constexpr std::string_view kAgentExplorerPeer = "Cannot send response - AgentExplorer (IP = ";
inline constexpr std::string_view kServerPeer = "Cannot send response - Server (IP = ";

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

}  // namespace tdacli::listener
