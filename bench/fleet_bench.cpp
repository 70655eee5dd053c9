// agent-explorer fleet against many agents: the real console program (beside the benchmark) asks
//   - AGENTS agents (default 1,000) that share this process, each on its own loop, thread and port,
//     with GETINFO at --parallel 128 (goal: every row in at most 2 s), and
//   - as many listeners that accept and never answer, with --timeout 1 at --parallel 128 and 1024
//     (goal: at most ceil(hosts / parallel) + 1 seconds),
// and reads the console's peak resident memory from the kernel (goal: under 64 MB).
//   fleet_bench [AGENTS]
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench_agent.h"
#include "bench_args.h"
#include "config/configuration.h"
#include "listener/listener.h"
#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/host_identity.h"
#include "platform/tcp_socket.h"

#ifndef _WIN32
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#endif

namespace fs = std::filesystem;
using namespace tdacli;

#ifndef _WIN32
namespace {

struct Outcome {
  bool ran = false;
  int exit_code = -1;
  double seconds = 0;
  long peak_kb = 0;
  std::string summary;  // the console's standard error
  size_t rows = 0;      // lines of its standard output, the header included
};

// Runs agent-explorer with `args`, its output into files in `dir`: exit code, time and peak memory.
Outcome Spawn(const std::string& explorer, const std::vector<std::string>& args, const fs::path& dir) {
  Outcome o;
  const std::string out = (dir / "console.out").string(), err = (dir / "console.err").string();
  const auto t0 = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    const int o1 = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int o2 = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int in = open("/dev/null", O_RDONLY);
    dup2(in, 0);
    dup2(o1, 1);
    dup2(o2, 2);
    std::vector<char*> argv{const_cast<char*>(explorer.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(explorer.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (pid < 0 || wait4(pid, &status, 0, &usage) != pid) return o;
  o.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  o.ran = true;
  o.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  o.peak_kb = usage.ru_maxrss;
  return o;
}

// The kernel's peak figure of a child counts the memory of the process it was forked from, so the
// console is started by a small process forked before the agents exist: it reads "dir\0arg\0arg..."
// requests from one pipe and answers each with the exit code, time and peak on another.
class Spawner {
 public:
  explicit Spawner(const std::string& explorer) {
    int req[2], resp[2];
    if (pipe(req) != 0 || pipe(resp) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(req[1]);
      close(resp[0]);
      for (;;) {
        uint32_t size = 0;
        if (read(req[0], &size, sizeof size) != sizeof size) _exit(0);
        std::string blob(size, '\0');
        size_t got = 0;
        while (got < size) {
          const ssize_t n = read(req[0], blob.data() + got, size - got);
          if (n <= 0) _exit(0);
          got += static_cast<size_t>(n);
        }
        std::vector<std::string> parts;
        for (size_t at = 0; at < blob.size();) {
          const size_t end = blob.find('\0', at);
          parts.push_back(blob.substr(at, end - at));
          at = end + 1;
        }
        const Outcome o = Spawn(explorer, std::vector<std::string>(parts.begin() + 1, parts.end()), parts[0]);
        const long answer[3] = {o.ran ? o.exit_code : -2, static_cast<long>(o.seconds * 1e6), o.peak_kb};
        if (write(resp[1], answer, sizeof answer) != sizeof answer) _exit(1);
      }
    }
    close(req[0]);
    close(resp[1]);
    to_ = req[1];
    from_ = resp[0];
  }
  ~Spawner() {
    if (to_ >= 0) close(to_);
    if (from_ >= 0) close(from_);
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }

  Outcome Run(const std::vector<std::string>& args, const fs::path& dir) {
    Outcome o;
    std::string blob = dir.string();
    for (const std::string& a : args) blob += '\0' + a;
    blob += '\0';
    const uint32_t size = static_cast<uint32_t>(blob.size());
    long answer[3] = {};
    if (write(to_, &size, sizeof size) != sizeof size ||
        write(to_, blob.data(), blob.size()) != static_cast<ssize_t>(blob.size()) ||
        read(from_, answer, sizeof answer) != sizeof answer || answer[0] == -2)
      return o;
    o.ran = true;
    o.exit_code = static_cast<int>(answer[0]);
    o.seconds = static_cast<double>(answer[1]) / 1e6;
    o.peak_kb = answer[2];
    std::ifstream e(dir / "console.err");
  std::getline(e, o.summary);
    std::ifstream f(dir / "console.out");
    std::string line;
    while (std::getline(f, line)) ++o.rows;
    return o;
  }

 private:
  pid_t pid_ = -1;
  int to_ = -1, from_ = -1;
};

void Report(const char* what, const Outcome& o, double goal_seconds) {
  std::printf("  %-46s %6.2f s (goal <= %.0f s)  peak %5.1f MB (goal < 64 MB)  exit %d  [%s]\n", what, o.seconds,
              goal_seconds, static_cast<double>(o.peak_kb) / 1024.0, o.exit_code, o.summary.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  const bench::Usage usage(
      argc, argv, "fleet_bench", "[AGENTS]",
      "agent-explorer fleet getinfo over AGENTS agents (default 1000) on their own loops and ports in this\n"
      "process, at --parallel 128, then over as many listeners that never answer (--timeout 1, at --parallel\n"
      "128 and 1024): the time of each run and the console's peak memory.\n",
      1);
  const int count = usage.Count(1, 1000);
  const std::string explorer = platform::CurrentProcess().exe_folder + "/agent-explorer";
  if (!fs::exists(explorer)) {
    std::fprintf(stderr, "agent-explorer not found beside the benchmark (%s)\n", explorer.c_str());
    return 1;
  }
  // Each agent holds a few descriptors (its loop's wake-up pipe, its listener and the listener's
  // reserve), each silent listener two.
  rlimit lim{};
  getrlimit(RLIMIT_NOFILE, &lim);
  lim.rlim_cur = lim.rlim_max;
  setrlimit(RLIMIT_NOFILE, &lim);
  if (lim.rlim_cur < static_cast<rlim_t>(count) * 6 + 256) {
    std::fprintf(stderr, "open-file limit %lu too low for %d agents\n", static_cast<unsigned long>(lim.rlim_cur), count);
    return 1;
  }

  Spawner spawner(explorer);
  bench::BenchFolder folder("tdacli-fleet-bench");
  std::vector<std::unique_ptr<bench::BenchAgent>> agents;
  std::string hosts;
  for (int i = 0; i < count; ++i) {
    const std::string dir = folder.Sub("a" + std::to_string(i));
    std::ofstream(dir + "/TDRegInfo.TXT", std::ios::binary)
        << "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=" << 4000 + i
        << "\r\nServer=10.1.1.5\r\nNotificationMethod=ServiceMessage\r\nListeningPorts=1,0,2,3\r\n";
    auto a = std::make_unique<bench::BenchAgent>(dir);
    a->agent->startup_banner_written = true;
    LoadConfiguration(*a->agent);
    if (listener::ListenerOf(*a->agent).Listen(0)) {
      std::fprintf(stderr, "agent %d cannot listen\n", i);
      return 1;
    }
    hosts += "127.0.0.1:" + std::to_string(listener::ListenerOf(*a->agent).Listener().LocalPort()) + "\n";
    agents.push_back(std::move(a));
  }
  std::ofstream(folder.path() + "/agents.txt") << hosts;
  // Every agent on a thread of its own, as on a workstation of its own.
  std::vector<std::thread> threads;
  for (auto& a : agents) {
    Agent* agent = a->agent.get();
    threads.emplace_back([agent] { agent->loop().Run(); });
  }

  // Listeners that take connections (the kernel completes them) and never say a word: their loop is
  // never run.
  auto silent_clock = platform::MakeSystemClock();
  platform::EventLoop silent_loop(*silent_clock);
  std::vector<std::unique_ptr<platform::TcpSocket>> silent;
  std::string silent_hosts;
  for (int i = 0; i < count; ++i) {
    auto s = std::make_unique<platform::TcpSocket>(silent_loop);
    s->SetLocalHost("127.0.0.1");
    if (s->Listen()) {
      std::fprintf(stderr, "silent listener %d cannot listen\n", i);
      return 1;
    }
    silent_hosts += "127.0.0.1:" + std::to_string(s->LocalPort()) + "\n";
    silent.push_back(std::move(s));
  }
  std::ofstream(folder.path() + "/silent.txt") << silent_hosts;

  const fs::path work = folder.path();
  const std::string n = std::to_string(count);
  std::printf("agent-explorer fleet over %d agents in this process (one thread each) and %d silent listeners\n",
              count, count);
  bool ok = true;
  // A first run warms the page cache and the agents' trace files; the figures are from the second.
  spawner.Run({"fleet", "getinfo", "--hosts", "@" + (work / "agents.txt").string(), "--parallel", "128",
                        "--format", "csv"},
             work);
  const Outcome info = spawner.Run({"fleet", "getinfo", "--hosts", "@" + (work / "agents.txt").string(),
                                             "--parallel", "128", "--format", "csv"},
                                  work);
  Report(("getinfo, " + n + " agents, --parallel 128:").c_str(), info, 2);
  ok = ok && info.ran && info.exit_code == 0 && info.summary == n + " hosts: " + n + " ok" &&
       info.rows == static_cast<size_t>(count) + 1;

  for (int parallel : {128, 1024}) {
    const Outcome quiet = spawner.Run({"fleet", "getinfo", "--hosts", "@" + (work / "silent.txt").string(),
                                                "--parallel", std::to_string(parallel), "--timeout", "1"},
                                     work);
    const double goal = std::ceil(static_cast<double>(count) / parallel) + 1;
    Report(("never answering, --timeout 1 --parallel " + std::to_string(parallel) + ":").c_str(), quiet, goal);
    ok = ok && quiet.ran && quiet.exit_code == 1 && quiet.summary == n + " hosts: " + n + " timeout";
  }

  for (auto& a : agents) {
    Agent* agent = a->agent.get();
    agent->loop().Post([agent] { agent->loop().Quit(); });
  }
  for (auto& t : threads) t.join();
  if (!ok) {
    std::fprintf(stderr, "a run did not end as expected (see the summaries above)\n");
    return 1;
  }
  return 0;
}
#else
int main() {
  std::fprintf(stderr, "fleet_bench runs on POSIX hosts\n");
  return 1;
}
#endif
