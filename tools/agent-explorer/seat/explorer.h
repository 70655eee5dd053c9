#pragma once
// Agent Explorer on the command line: talks to an agent's command listener (greeting "|READY|", one
// command, one reply) and sends service control codes. The parsing, the exchange and the formatting
// live here so that tests can drive them without the program.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "shared/exchange.h"

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

// The reply for people: "{CRLF}" expanded, GETINFO as a table with NUL characters made visible,
// SET replies one segment a line with "Failed;" segments marked.
std::string FormatReply(std::string_view reply);
// NUL characters as the two characters "\0".
std::string VisibleNul(std::string_view text);

}  // namespace tdacli::explorer
