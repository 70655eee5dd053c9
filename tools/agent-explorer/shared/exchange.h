#pragma once
// What every mode of agent-explorer shares: one exchange with an agent's command listener (greeting,
// one command, its reply) and the program's exit codes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/event_loop.h"

namespace tdacli::explorer {

// A login runs the whole login conversation and the post-login work on the agent (up to three
// 30-second stages and the 31-second temp-folder check): its reply takes longer than any other.
inline constexpr double kLoginTimeoutSeconds = 180;

// An agent's close event closes its newest console connection, whichever connection closed. A console
// that connects again before the agent has taken in the close of its last connection would have the
// new one closed under it. So a console that got its answer ends its sending side and waits, at most
// this long, for the agent to close in return (its close event closed the connection it served)
// before it lets the connection go.
inline constexpr int kAgentCloseWaitMs = 2000;

// What one exchange keeps of what a peer sends, the greeting and the reply together. An agent's longest
// reply, its component report, holds a few kilobytes; a peer that sends without end is cut off here
// instead of filling the console's memory.
inline constexpr size_t kMaxExchangeBytes = size_t{1} << 20;

// One exchange with a listener on `loop`.
struct Exchange {
  enum Status {
    kReplied,        // greeting seen, command sent, reply received
    kConnectFailed,  // the connection could not be made
    kNoGreeting,     // no "|READY|" within the time-out
    kNoReply,        // no reply within the time-out
    kTooLong,        // the peer sent more than kMaxExchangeBytes: the connection was closed
  };
  Status status = kConnectFailed;
  std::string reply;
  std::string error;  // connect failure: Winsock number and description
};

// Connects to host:port, waits for "|READY|", sends `command` and collects the reply: everything that
// arrives until `settle_ms` pass without more data or the peer closes. Each stage waits at most
// `timeout_seconds` on the loop's clock.
Exchange RunExchange(platform::EventLoop& loop, const std::string& host, uint16_t port, const std::string& command,
                     double timeout_seconds, int settle_ms = 250);
// The same with the command sent in pieces, `gap_ms` apart, so that each one arrives on its own.
Exchange RunExchange(platform::EventLoop& loop, const std::string& host, uint16_t port,
                     const std::vector<std::string>& pieces, double timeout_seconds, int gap_ms, int settle_ms = 250);

// Exit codes of the program.
inline constexpr int kExitOk = 0;
inline constexpr int kExitNoReply = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitConnect = 3;

}  // namespace tdacli::explorer
