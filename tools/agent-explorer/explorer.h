#pragma once
// Agent Explorer on the command line: talks to an agent's command listener (greeting "|READY|", one
// command, one reply) and sends service control codes. The parsing, the exchange and the formatting
// live here so that tests can drive them without the program.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/event_loop.h"

namespace tdacli::explorer {

enum class Action {
  kHelp,     // print the usage text
  kCommand,  // send one listener command
  kControl,  // send a service control code
};

struct Options {
  Action action = Action::kHelp;
  std::string host;
  uint16_t port = 5002;
  std::string name;            // sub-command as typed: "getinfo", "set ext", "raw" ...
  std::string command;         // the text sent to the listener (empty for sendframes until read)
  std::string sendframes_file; // sendframes: the file whose content is sent
  int pieces = 1;              // sendframes: receptions the job is chopped into
  int gap_ms = 200;            // sendframes: pause between two pieces
  bool raw = false;
  double timeout_seconds = 15;  // login waits longer unless --timeout is given (kLoginTimeoutSeconds)
  std::string app_dir = ".";
  std::string service;         // control
  int code = 0;                // control
};

struct ParseResult {
  bool ok = false;
  Options options;
  std::string error;  // why the command line was refused
};

// Parses the arguments after the program name.
ParseResult ParseArguments(const std::vector<std::string>& args);
std::string UsageText();

// The SETALL request: the extension first, then the sub-tags that were given.
struct SetAllValues {
  std::string ext;
  bool has_server = false, has_notify = false, has_listen = false, has_pop4ext = false, has_pop4win = false;
  std::string server, notify, listen, pop4ext, pop4win;
};
std::string BuildSetAll(const SetAllValues& v);

// A send-frames request from a job file: the content as it stands when it already carries the
// keyword or the protocol tags, otherwise behind the keyword; framed by the protocol tags.
std::string BuildSendFrames(std::string_view file_content);

// The framed request cut into `pieces` receptions as a server sends a chopped job: the first piece
// holds everything up to the end of the "|SENDFRAMES|" keyword (the agent needs it to start a
// transmission), the rest is shared out evenly. Nothing when there are not enough characters behind
// the keyword for that many pieces.
std::vector<std::string> ChopSendFrames(std::string_view framed, int pieces);

// What `control` prints: "code 128 sent to TDACLI", or the reason the code was not delivered.
std::string DescribeControlResult(const std::string& service, int code, unsigned long error);

// A login runs the whole login conversation and the post-login work on the agent (up to three
// 30-second stages and the 31-second temp-folder check): its reply takes longer than any other.
inline constexpr double kLoginTimeoutSeconds = 180;

// The reply for people: "{CRLF}" expanded, GETINFO as a table with NUL characters made visible,
// SET replies one segment a line with "Failed;" segments marked.
std::string FormatReply(std::string_view reply);
// NUL characters as the two characters "\0".
std::string VisibleNul(std::string_view text);

// One exchange with a listener on `loop`.
struct Exchange {
  enum Status {
    kReplied,        // greeting seen, command sent, reply received
    kConnectFailed,  // the connection could not be made
    kNoGreeting,     // no "|READY|" within the time-out
    kNoReply,        // no reply within the time-out
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
