// sibling-standin: a stand-in for a sibling service of the suite, for end-to-end runs of the agent.
//
//   sibling-standin --name TDACMT --app-dir DIR [--answer 130=131,140=141] [--log FILE]
//
// It runs through the platform's service host under the given name: on Windows as a real service
// (installed under that name with this command line) or started by hand, elsewhere in the foreground,
// receiving codes on the endpoint "<DIR>/<NAME>.svc" and stopped by SIGTERM or SIGINT. Every code it
// receives is appended to the log file as one line; a code found in the answer map is answered by
// sending the mapped code to the service TDACLI, as the real siblings answer the agent's requests.
//
// It also takes the request files addressed to it, as the real sibling does: every "*.<NAME>" file in
// DIR (for the login detector TDACLD the agent's ".TDACLD" load requests) is read, written to the log
// like a received code ("Code=130" as "130", any other first line as it is) and deleted. A code that
// came as a file is answered with a file: "<YYYYMMDDHHMMSS>.TDACLI" holding "Code=<reply>".
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

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
    "Request files \"*.NAME\" dropped into DIR are taken the same way (their first line logged,\n"
    "\"Code=130\" as 130) and deleted; a code that came as a file is answered with a \"*.TDACLI\" file.\n"
    "\n"
    "  --name NAME          the service name (TDACMT, TDACSC, TDACLM, ...)\n"
    "  --app-dir DIR        the application folder the suite's services share\n"
    "  --answer LIST        comma-separated CODE=REPLY pairs, e.g. 130=131,140=141\n"
    "  --log FILE           where the received codes are written (CR LF line ends)\n"
    "  --help               this text\n"
    "\n"
    "Windows: run as the installed service NAME. Elsewhere: run in the foreground; codes arrive on\n"
    "DIR/NAME.svc and SIGTERM or SIGINT stops it. Exit codes: 0 stopped, 2 bad arguments.\n";

// How often the folder is looked at for request files.
constexpr int kWatchIntervalMs = 250;
// Only the first line of a request file matters; the rest is not read.
constexpr size_t kRequestLimit = 4096;

// The agent the siblings answer.
constexpr const char* kAgentService = "TDACLI";

int Fail(const std::string& text) {
  std::fprintf(stderr, "sibling-standin: %s\n%s", text.c_str(), kUsage);
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
        client_(platform::MakeServiceControlClient(options.app_dir)),
        watch_(loop_) {}

  int Run() {
    // The host calls these from its own threads: each only posts to the loop.
    platform::ServiceEvents events;
    events.on_start = [this] { loop_.Post([this] { host_.ReportRunning(); }); };
    events.on_stop = [this] { loop_.Post([this] { Stop(); }); };
    events.on_shutdown = events.on_stop;
    events.on_control = [this](int code) { loop_.Post([this, code] { Received(code); }); };
    host_.Attach(std::move(events));
    watch_.SetInterval(kWatchIntervalMs);
    watch_.on_tick = [this] { TakeRequestFiles(); };
    watch_.SetEnabled(true);
    loop_.Run();
    return 0;
  }

 private:
  void Log(const std::string& line) {
    if (options_.log.empty()) return;
    std::ofstream log(options_.log, std::ios::binary | std::ios::app);
    log << line << "\r\n";
  }

  void Received(int code) {
    Log(std::to_string(code));
    auto answer = options_.answers.find(code);
    if (answer == options_.answers.end()) return;
    const unsigned long result = client_->SendControl(kAgentService, answer->second);
    std::fprintf(stderr, "sibling-standin %s: answered %d with %d to %s (%lu)\n", options_.name.c_str(), code,
                 answer->second, kAgentService, result);
  }

  // The request files addressed to this service, oldest name first, each read, logged and deleted.
  void TakeRequestFiles() {
    namespace fs = std::filesystem;
    const std::string extension = "." + options_.name;
    std::vector<fs::path> found;
    std::error_code ec;
    for (fs::directory_iterator it(fs::u8path(options_.app_dir), ec), end; !ec && it != end; it.increment(ec)) {
      std::error_code ignored;
      if (it->is_symlink(ignored) || !it->is_regular_file(ignored)) continue;
      const std::string name = it->path().filename().string();
      if (name.size() >= extension.size() && name.compare(name.size() - extension.size(), extension.size(), extension) == 0)
        found.push_back(it->path());
    }
    std::sort(found.begin(), found.end());
    for (const auto& path : found) {
      std::string line;
      {
        std::ifstream f(path, std::ios::binary);
        if (!f) continue;  // still being written, or gone: the next look takes it
        line.resize(kRequestLimit);
        f.read(line.data(), static_cast<std::streamsize>(line.size()));
        line.resize(static_cast<size_t>(f.gcount()));
      }
      // A file without its line end may still be being written: it gets one more look.
      const size_t end = line.find_first_of("\r\n");
      const std::string key = path.string();
      if (end == std::string::npos && incomplete_.insert(key).second) continue;
      incomplete_.erase(key);
      line = line.substr(0, end);
      std::error_code rm;
      fs::remove(path, rm);
      int code = 0;
      if (line.rfind("Code=", 0) == 0 && ToCode(line.substr(5), code)) {
        Log(std::to_string(code));
        auto answer = options_.answers.find(code);
        if (answer != options_.answers.end()) AnswerByFile(code, answer->second);
      } else {
        Log(line);
      }
    }
  }

  void AnswerByFile(int code, int reply) {
    const platform::LocalTime t = clock_->Local();
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "%04d%02d%02d%02d%02d%02d", t.year, t.month, t.day, t.hour, t.minute, t.second);
    const auto path = std::filesystem::u8path(options_.app_dir) / (std::string(stamp) + "." + kAgentService);
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << "Code=" << reply << "\r\n";
    std::fprintf(stderr, "sibling-standin %s: answered %d with %d in %s\n", options_.name.c_str(), code, reply,
                 path.string().c_str());
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
  platform::Timer watch_;
  std::set<std::string> incomplete_;
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
      return Fail((arg.rfind("-", 0) == 0 ? "unknown option " : "unknown argument ") + arg);
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
