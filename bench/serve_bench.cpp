// agent-explorer serve over many agents: the real console program (beside the benchmark) serves
//   - AGENTS agents (default 1,000), each on its own loop, thread and port in processes forked for them:
//     from POST /api/scan to a GET /api/hosts whose every row answered (goal: at most 2 s), over
//     several scans, and
//   - HOSTS agents (default 5,000; the first AGENTS of them again) for the console's peak memory
//     (goal: at most 64 MB) and the page in headless Chromium (bench/serve_page_bench.py): first paint
//     of every row (goal: at most 1 s) and a filter keystroke (goal: at most 100 ms), medians.
//   serve_bench [AGENTS [HOSTS [RUNS]]]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/host_identity.h"

#ifndef _WIN32
#include <httplib.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "bench_agent.h"
#include "bench_args.h"
#include "config/configuration.h"
#include "listener/listener.h"
#endif

using namespace tdacli;

#ifndef _WIN32
namespace {

struct Console {
  pid_t pid = -1;
  std::string url, token;
  int port = 0;
};

// Starts agent-explorer serve over the host file; its start-up line names the address and token.
Console Start(const std::string& explorer, const std::string& hosts, const std::string& dir) {
  Console c;
  int out[2];
  if (pipe(out) != 0) return c;
  c.pid = fork();
  if (c.pid == 0) {
    dup2(out[1], 1);
    close(out[0]);
    if (chdir(dir.c_str()) != 0) _exit(127);
    execl(explorer.c_str(), explorer.c_str(), "serve", "--hosts", ("@" + hosts).c_str(), "--listen", "127.0.0.1:0",
          "--parallel", "128", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  std::string line;
  char ch;
  while (read(out[0], &ch, 1) == 1 && ch != '\n') line += ch;
  close(out[0]);
  const size_t at = line.find("http://"), end = line.find(' ', at);
  if (at == std::string::npos) return c;
  c.url = line.substr(at, end - at);
  c.token = c.url.substr(c.url.find("token=") + 6);
  c.port = std::atoi(c.url.c_str() + c.url.find(':', 7) + 1);
  return c;
}

long PeakKb(pid_t pid) {
  std::ifstream f("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(f, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
  return -1;
}

void Stop(Console& c) {
  if (c.pid <= 0) return;
  kill(c.pid, SIGTERM);
  waitpid(c.pid, nullptr, 0);
  c.pid = -1;
}

using Json = nlohmann::json;

// A scan asked for, then /api/scan polled until it is done and /api/hosts read whole: seconds, and
// whether every row answered.
double TimedScan(httplib::Client& http, size_t hosts, bool& all_ok) {
  const auto t0 = std::chrono::steady_clock::now();
  auto before = http.Get("/api/scan");
  const uint64_t scans = before ? Json::parse(before->body)["scans"].get<uint64_t>() : 0;
  http.Post("/api/scan");
  for (;;) {
    auto s = http.Get("/api/scan");
    if (!s) break;
    Json j = Json::parse(s->body);
    if (!j["running"].get<bool>() && j["scans"].get<uint64_t>() > scans) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  auto floor = http.Get("/api/hosts");
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  all_ok = false;
  if (floor) {
    Json j = Json::parse(floor->body);
    all_ok = j["hosts"].size() == hosts && j["counts"]["ok"].get<size_t>() == hosts;
  }
  return seconds;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Usage usage(
      argc, argv, "serve_bench", "[AGENTS [HOSTS [RUNS]]]",
      "agent-explorer serve over AGENTS agents (default 1000) on threads of their own: seconds from POST /api/scan to\n"
      "a complete GET /api/hosts over RUNS scans (default 5); then over HOSTS agents (default 5000): the\n"
      "console's peak memory and, when chromium and chromedriver are installed, the page's first paint and\n"
      "filter keystroke in headless Chromium (bench/serve_page_bench.py).\n",
      3);
  const int count = usage.Count(1, 1000);
  const int total = std::max(count, usage.Count(2, 5000));
  const int runs = usage.Count(3, 5);
  const std::string explorer = platform::CurrentProcess().exe_folder + "/agent-explorer";
  // Each agent holds a few descriptors (its loop's wake-up pipe, its listener and the listener's
  // reserve): the agents live in as many processes of their own as the descriptor limit asks.
  rlimit lim{};
  getrlimit(RLIMIT_NOFILE, &lim);
  lim.rlim_cur = lim.rlim_max;
  setrlimit(RLIMIT_NOFILE, &lim);
  const int per_process = static_cast<int>((lim.rlim_cur - 512) / 5);
  if (per_process < 100) {
    std::fprintf(stderr, "open-file limit %lu too low\n", static_cast<unsigned long>(lim.rlim_cur));
    return 1;
  }
  bench::BenchFolder folder("tdacli-serve-bench");
  struct Part {
    pid_t pid;
    int quit;  // closed to end the part's agents
    std::string hosts;
  };
  std::vector<Part> parts;
  for (int first = 0; first < total; first += per_process) {
    const int last = std::min(total, first + per_process);
    int ready[2], quit[2];
    if (pipe(ready) != 0 || pipe(quit) != 0) return 1;
    const std::string hosts_file = folder.path() + "/part" + std::to_string(first) + ".txt";
    // No program started later (the consoles, Chromium) may hold a part's quit pipe open.
    fcntl(quit[1], F_SETFD, FD_CLOEXEC);
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
      close(ready[0]);
      close(quit[1]);
      for (const Part& earlier : parts) close(earlier.quit);
      const char* users[] = {"jdoe", "asmith", "user1", "mbrown"};
      std::vector<std::unique_ptr<bench::BenchAgent>> agents;
      std::string hosts;
      for (int i = first; i < last; ++i) {
        const std::string dir = folder.Sub("a" + std::to_string(i));
        std::ofstream(dir + "/TDRegInfo.TXT", std::ios::binary)
            << "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=" << 4000 + i << "\r\nServer=10.1.1."
            << (i % 50 == 0 ? 9 : 5) << "\r\nCurrentUser=" << users[i % 4] << i
            << "\r\nNotificationMethod=ServiceMessage\r\nListeningPorts=1,0,2,3\r\n";
        auto agent = std::make_unique<bench::BenchAgent>(dir);
        agent->agent->startup_banner_written = true;
        LoadConfiguration(*agent->agent);
        if (listener::ListenerOf(*agent->agent).Listen(0)) {
          std::fprintf(stderr, "agent %d cannot listen\n", i);
          _exit(1);
        }
        hosts += "127.0.0.1:" + std::to_string(listener::ListenerOf(*agent->agent).Listener().LocalPort()) + "\n";
        agents.push_back(std::move(agent));
      }
      std::ofstream(hosts_file) << hosts;
      // Every agent on a thread of its own, as on a workstation of its own.
      std::vector<std::thread> threads;
      for (auto& a : agents) {
        Agent* agent = a->agent.get();
        threads.emplace_back([agent] { agent->loop().Run(); });
      }
      const char one = 1;
      if (write(ready[1], &one, 1) != 1) _exit(1);
      char byte;
      while (read(quit[0], &byte, 1) > 0) {
      }
      for (auto& a : agents) {
        Agent* agent = a->agent.get();
        agent->loop().Post([agent] { agent->loop().Quit(); });
      }
      for (auto& t : threads) t.join();
      _exit(0);
    }
    close(ready[1]);
    close(quit[0]);
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1) {
      std::fprintf(stderr, "the agents %d-%d did not start\n", first, last - 1);
      return 1;
    }
    close(ready[0]);
    std::ifstream in(hosts_file);
    parts.push_back({pid, quit[1], std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>())});
  }
  std::string small, large;
  int n = 0;
  for (const Part& p : parts) {
    size_t at = 0;
    while (at < p.hosts.size()) {
      const size_t nl = p.hosts.find('\n', at);
      const std::string line = p.hosts.substr(at, nl - at + 1);
      if (n++ < count) small += line;
      large += line;
      at = nl + 1;
    }
  }
  std::ofstream(folder.path() + "/small.txt") << small;
  std::ofstream(folder.path() + "/large.txt") << large;

  bool ok = true;
  std::fflush(stdout);
  Console c = Start(explorer, folder.path() + "/small.txt", folder.path());
  if (c.url.empty()) {
    std::fprintf(stderr, "agent-explorer serve did not start\n");
    ok = false;
  } else {
    httplib::Client http("127.0.0.1", c.port);
    http.set_bearer_token_auth(c.token);
    http.set_read_timeout(60, 0);
    bool all = false;
    TimedScan(http, static_cast<size_t>(count), all);  // the first scan warms the agents' files
    std::vector<double> times;
    for (int r = 0; r < runs; ++r) {
      times.push_back(TimedScan(http, static_cast<size_t>(count), all));
      ok = ok && all;
    }
    std::printf("agent-explorer serve over %d agents (one thread each), --parallel 128:\n", count);
    std::printf("  POST /api/scan to a complete GET /api/hosts: median %.2f s, min %.2f s, max %.2f s over %d scans "
                "(goal <= 2 s)%s\n",
                Median(times), *std::min_element(times.begin(), times.end()),
                *std::max_element(times.begin(), times.end()), runs, all ? "" : "  [not every row answered]");
    std::printf("  the console's peak memory: %.1f MB\n", static_cast<double>(PeakKb(c.pid)) / 1024.0);
    Stop(c);
  }

  std::fflush(stdout);
  Console big = Start(explorer, folder.path() + "/large.txt", folder.path());
  if (big.url.empty()) {
    std::fprintf(stderr, "agent-explorer serve did not start\n");
    ok = false;
  } else {
    httplib::Client http("127.0.0.1", big.port);
    http.set_bearer_token_auth(big.token);
    http.set_read_timeout(120, 0);
    bool all = false;
    const double first = TimedScan(http, static_cast<size_t>(total), all);
    const long after_scan = PeakKb(big.pid);
    TimedScan(http, static_cast<size_t>(total), all);
    const long after_two = PeakKb(big.pid);
    http.Get("/api/export.json");
    const long after_json = PeakKb(big.pid);
    http.Get("/api/export.csv");
    const long after_csv = PeakKb(big.pid);
    std::printf("agent-explorer serve over %d agents: a scan %.2f s; every row answered: %s\n", total, first,
                all ? "yes" : "no");
    std::printf("  the console's peak memory: %.1f MB after a scan, %.1f MB after two, %.1f MB after the JSON "
                "export, %.1f MB after the CSV export\n",
                after_scan / 1024.0, after_two / 1024.0, after_json / 1024.0, after_csv / 1024.0);
    ok = ok && all;
    const std::string page = std::string(TDACLI_SOURCE_DIR) + "/bench/serve_page_bench.py";
    if (access("/usr/bin/chromedriver", X_OK) == 0) {
      const std::string command = "/usr/bin/python3 '" + page + "' --url '" + big.url + "' --rows " +
                                  std::to_string(total) + " --runs " + std::to_string(runs);
      std::fflush(stdout);
      ok = std::system(command.c_str()) == 0 && ok;
    } else {
      std::printf("  the page: no /usr/bin/chromedriver (apt-get install chromium chromium-driver python3-selenium)\n");
    }
    std::printf("  the console's peak memory (two scans, /api/hosts, both exports%s): %.1f MB (goal <= 64 MB)\n",
                access("/usr/bin/chromedriver", X_OK) == 0 ? ", the page's runs" : "",
                static_cast<double>(PeakKb(big.pid)) / 1024.0);
    Stop(big);
  }

  for (Part& p : parts) {
    close(p.quit);
    waitpid(p.pid, nullptr, 0);
  }
  return ok ? 0 : 1;
}
#else
int main() {
  std::fprintf(stderr, "serve_bench runs on POSIX hosts\n");
  return 1;
}
#endif
