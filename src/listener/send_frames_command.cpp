// Send-frames jobs from the TD Server: one reception, or a transmission chopped over several that is
// collected in `PendingProtocolData` until both protocol tags have arrived.
#include "listener/send_frames_command.h"

#include <string>

#include "common/logging.h"
#include "common/text.h"
#include "listener/command_replies.h"
#include "listener/listener.h"
#include "listener/protocol_body.h"
#include "state/agent.h"
#include "triggers/capture_files.h"

namespace tdacli::listener {

namespace {

constexpr std::string_view kBegin = "[BEGIN_PROTOCOL]";
constexpr std::string_view kEnd = "[END_PROTOCOL]";
constexpr std::string_view kChopped = "Chopped protocol saving data until all is received!";

bool HasBothTags(std::string_view s) { return Contains(s, kBegin) && Contains(s, kEnd); }

// The pending transmission would pass the bound: it is dropped whole, so that the next job starts
// clean, and the listener serves on.
void Discard(Agent& agent, std::string& pending, const std::string& ip, size_t size) {
  LogMessage(agent,
             "Discarded chopped SENDFRAMES data from Server (IP = " + ip + "): " + std::to_string(size) +
                 " bytes, more than " + std::to_string(kMaxPendingProtocolData) + " bytes allowed",
             "Error");
  pending.clear();
  pending.shrink_to_fit();
}

}  // namespace

void HandleSendFramesData(Agent& agent, const std::string& data, CommandReplies& replies) {
  std::string& pending = ListenerOf(agent).PendingProtocolData;
  std::string text = data;
  if (Contains(text, "|SENDFRAMES|") && !Contains(text, kBegin)) {
    text = std::string(kBegin) + text + std::string(kEnd);
    LogMessage(agent, "Received SENDFRAMES command without protocol tags, they were added!", "Trace");
  }
  auto received = [&](const std::string& ip) {
    LogMessage(agent, "Received SENDFRAMES command from Server (IP = " + ip + "), [DATA=" + text + "]", "Trace");
  };

  std::string body;
  if (!pending.empty()) {
    // A chopped transmission is in progress: whatever matched no other keyword belongs to it.
    const std::string ip = replies.RemoteHostIP();
    received(ip);
    if (text.size() > kMaxPendingProtocolData - pending.size()) {
      Discard(agent, pending, ip, pending.size() + text.size());
      return;
    }
    pending += text;
    if (!HasBothTags(pending)) {
      LogMessage(agent, kChopped, "Trace");
      return;
    }
    body = ExtractProtocolBody(pending);
  } else {
    if (!Contains(text, "|SENDFRAMES|")) return;  // unknown text, no job pending: dropped silently
    const std::string ip = replies.RemoteHostIP();
    received(ip);
    if (!HasBothTags(text)) {
      if (text.size() > kMaxPendingProtocolData) {
        Discard(agent, pending, ip, text.size());
        return;
      }
      LogMessage(agent, kChopped, "Trace");
      pending += text;
      return;
    }
    body = ExtractProtocolBody(text);
  }

  LogMessage(agent, "Have all data, calling SendFrames Routine() for [DATA=" + body + "]", "Trace");
  SendFrames(agent, body);
  pending.clear();
  if (pending.capacity() > 64 * 1024) pending.shrink_to_fit();  // a large job does not stay resident

  // "|OKAY|" only to a server that is still connected; otherwise the reply step's warning.
  if (replies.ReplyConnectionUp()) {
    replies.SendCommandReply("|OKAY|", kServerPeer);
    agent.DoEvents();
    LogMessage(agent, "Done with SENDFRAMES command, Sent |OKAY| to Server", "Trace");
  } else {
    replies.SendCommandReply("|OKAY|", kServerPeer);
  }
}

}  // namespace tdacli::listener
