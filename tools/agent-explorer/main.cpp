// agent-explorer: the console's commands from the command line.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "seat/explorer.h"
#include "fleet/fleet.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/platform.h"
#include "platform/terminal.h"
#include "web/serve.h"

int main(int argc, char** argv) {
  using namespace tdacli;
  using namespace tdacli::explorer;
  std::vector<std::string> args(argv + 1, argv + argc);
  if (!args.empty() && args[0] == "fleet") {
    platform::SetStandardOutputBinary();
    std::string out;
    const int code = fleet::FleetMain(
        std::vector<std::string>(args.begin() + 1, args.end()), out,
        [](const std::string& text) {
          std::fwrite(text.data(), 1, text.size(), stderr);
          std::fflush(stderr);
        },
        platform::StandardErrorIsTerminal());
    std::fwrite(out.data(), 1, out.size(), stdout);
    std::fflush(stdout);
    return code;
  }
  if (!args.empty() && args[0] == "serve") {
    auto write = [](std::FILE* stream) {
      return [stream](const std::string& text) {
        std::fwrite(text.data(), 1, text.size(), stream);
        std::fflush(stream);
      };
    };
    return web::ServeMain(std::vector<std::string>(args.begin() + 1, args.end()), write(stdout), write(stderr));
  }
  ParseResult parsed = ParseArguments(args);
  if (!parsed.ok) {
    std::cerr << "agent-explorer: " << parsed.error << "\n" << UsageText();
    return kExitUsage;
  }
  Options& o = parsed.options;
  if (o.action == Action::kHelp) {
    std::cout << UsageText();
    return kExitOk;
  }
  if (o.action == Action::kControl) {
    auto client = platform::MakeServiceControlClient(o.app_dir);
    const unsigned long error = client->SendControl(o.service, o.code);
    (error == 0 ? std::cout : std::cerr) << DescribeControlResult(o.service, o.code, error) << "\n";
    return error == 0 ? kExitOk : kExitNoReply;
  }
  if (!o.sendframes_file.empty()) {
    std::ifstream f(o.sendframes_file, std::ios::binary);
    if (!f) {
      std::cerr << "agent-explorer: cannot read " << o.sendframes_file << "\n";
      return kExitUsage;
    }
    o.command = BuildSendFrames(std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()));
  }
  std::vector<std::string> pieces{o.command};
  if (o.pieces > 1) {
    pieces = ChopSendFrames(o.command, o.pieces);
    if (pieces.empty()) {
      std::cerr << "agent-explorer: the job is too short for " << o.pieces << " pieces\n";
      return kExitUsage;
    }
  }

  auto clock = platform::MakeSystemClock();
  platform::EventLoop loop(*clock);
  Exchange x = RunExchange(loop, o.host, o.port, pieces, o.timeout_seconds, o.gap_ms);
  switch (x.status) {
    case Exchange::kConnectFailed:
      std::cerr << "agent-explorer: no connection to " << o.host << ":" << o.port
                << (x.error.empty() ? "" : " (" + x.error + ")") << "\n";
      return kExitConnect;
    case Exchange::kNoGreeting:
      std::cerr << "agent-explorer: no |READY| from " << o.host << ":" << o.port << " within " << o.timeout_seconds
                << " s\n";
      return kExitNoReply;
    case Exchange::kNoReply:
      std::cerr << "agent-explorer: no reply to " << o.name << " within " << o.timeout_seconds << " s\n";
      return kExitNoReply;
    case Exchange::kTooLong:
      std::cerr << "agent-explorer: " << o.host << ":" << o.port << " sent " << x.error << "; the connection was closed\n";
      return kExitNoReply;
    case Exchange::kReplied:
      break;
  }
  if (o.raw) {
    std::fwrite(x.reply.data(), 1, x.reply.size(), stdout);
  } else {
    const std::string text = FormatReply(x.reply);
    std::fwrite(text.data(), 1, text.size(), stdout);
  }
  std::fflush(stdout);
  return kExitOk;
}
