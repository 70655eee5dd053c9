// sibling-standin: a stand-in for a sibling service of the suite, for end-to-end runs of the agent.
//
//   sibling-standin --name TDACMT --app-dir DIR [--answer 130=131,140=141] [--log FILE]
//
// It runs through the platform's service host under the given name: on Windows as a real service
// (installed under that name with this command line), elsewhere in the foreground, receiving codes on
// the endpoint "<DIR>/<NAME>.svc" and stopped by SIGTERM or SIGINT. Every code it receives is appended
// to the log file as one line; a code found in the answer map is answered by sending the mapped code to
// the service TDACLI, as the real siblings answer the agent's requests.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/platform.h"

namespace {

using namespace tdacli;

constexpr const char* kUsage =
    "Usage: sibling-standin --name NAME --app-dir DIR [--answer CODE=REPLY,...] [--log FILE]\n"
    "\n"
    "Plays the sibling service NAME of the suite: appends every control code it receives to FILE,\n"
    "one line each, and answers a code listed in --answer by sending REPLY to the service TDACLI.\n"
    "\n"
    "  --name NAME          the service name (TDACMT, TDACSC, TDACLM, ...)\n"
    "  --app-dir DIR        the application folder the suite's services share\n"
    "  --answer LIST        comma-separated CODE=REPLY pairs, e.g. 130=131,140=141\n"
    "  --log FILE           where the received codes are written (CR LF line ends)\n"
    "  --help               this text\n"
    "\n"
    "Windows: run as the installed service NAME. Elsewhere: run in the foreground; codes arrive on\n"
    "DIR/NAME.svc and SIGTERM or SIGINT stops it. Exit codes: 0 stopped, 2 bad arguments.\n";

// The agent the siblings answer.
constexpr const char* kAgentService = "TDACLI";

int Fail(const std::string& text) {
  std::fprintf(stderr, "sibling-standin: %s\n(--help shows the usage)\n", text.c_str());
  return 2;
}

bool ToCode(std::string_view text, int& out) {
  if (text.empty() || text.size() > 3) return false;
  out = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    out = out * 10 + (c - '0');
  }
  return out <= 255;
}

// "130=131,140=141" -> {130: 131, 140: 141}. Every pair must be complete: an empty one is an error.
bool ParseAnswers(std::string_view list, std::map<int, int>& answers) {
  for (;;) {
    const size_t comma = list.find(',');
    const std::string_view pair = list.substr(0, comma);
    const size_t eq = pair.find('=');
    int code = 0, reply = 0;
    if (eq == std::string_view::npos || !ToCode(pair.substr(0, eq), code) || !ToCode(pair.substr(eq + 1), reply))
      return false;
    answers[code] = reply;
    if (comma == std::string_view::npos) return true;
    list.remove_prefix(comma + 1);
  }
}

struct Options {
  std::string name, app_dir, log;
  std::map<int, int> answers;
};

class StandIn {
 public:
  StandIn(const Options& options, platform::ServiceHost& host)
      : options_(options),
        host_(host),
        clock_(platform::MakeSystemClock()),
        loop_(*clock_),
        client_(platform::MakeServiceControlClient(options.app_dir)) {}

  int Run() {
    // The host calls these from its own threads: each only posts to the loop.
    platform::ServiceEvents events;
    events.on_start = [this] { loop_.Post([this] { host_.ReportRunning(); }); };
    events.on_stop = [this] { loop_.Post([this] { Stop(); }); };
    events.on_shutdown = events.on_stop;
    events.on_control = [this](int code) { loop_.Post([this, code] { Received(code); }); };
    host_.Attach(std::move(events));
    loop_.Run();
    return 0;
  }

 private:
  void Received(int code) {
    if (!options_.log.empty()) {
      std::ofstream log(options_.log, std::ios::binary | std::ios::app);
      log << code << "\r\n";
    }
    auto answer = options_.answers.find(code);
    if (answer == options_.answers.end()) return;
    const unsigned long result = client_->SendControl(kAgentService, answer->second);
    std::fprintf(stderr, "sibling-standin %s: answered %d with %d to %s (%lu)\n", options_.name.c_str(), code,
                 answer->second, kAgentService, result);
  }

  void Stop() {
    // As the agent does: the service manager learns of the stop, then the process ends at once, so that
    // no thread of the host outlives the objects it reports to.
    host_.ReportStopped();
    std::fflush(nullptr);
    std::_Exit(0);
  }

  const Options& options_;
  platform::ServiceHost& host_;
  std::unique_ptr<platform::Clock> clock_;
  platform::EventLoop loop_;
  std::unique_ptr<platform::ServiceControlClient> client_;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&](std::string& out) {
      if (i + 1 >= argc) return false;
      out = argv[++i];
      return true;
    };
    std::string v;
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--name") {
      if (!value(options.name) || options.name.empty()) return Fail("--name needs a service name");
    } else if (arg == "--app-dir") {
      if (!value(options.app_dir) || options.app_dir.empty()) return Fail("--app-dir needs a folder");
    } else if (arg == "--answer") {
      if (!value(v) || !ParseAnswers(v, options.answers)) return Fail("--answer needs CODE=REPLY pairs, e.g. 130=131");
    } else if (arg == "--log") {
      if (!value(options.log) || options.log.empty()) return Fail("--log needs a file");
    } else {
      return Fail("unknown argument " + arg);
    }
  }
  if (options.name.empty()) return Fail("--name is required");
  if (options.app_dir.empty()) return Fail("--app-dir is required");

  platform::ServiceIdentity identity;
  identity.name = options.name;
  identity.display_name = "TD - " + options.name + " (stand-in)";
  identity.description = "Stand-in for the suite's " + options.name + " service";
  identity.dependencies.clear();
  return platform::RunServiceProcess(identity, options.app_dir, [&](platform::ServiceHost& host) {
    StandIn standin(options, host);
    return standin.Run();
  });
}
