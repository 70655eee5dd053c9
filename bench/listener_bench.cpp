// The command listener of a running tdacli: "|GETINFO|" round trips per second on one connection
// (each one re-reads "TDRegInfo.TXT" and writes its trace line), and the resident memory and open
// descriptors of the process before and after 30,000 connect-and-close cycles.
//   listener_bench [CYCLES] [SECONDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/host_identity.h"
#include "platform/tcp_socket.h"

#ifndef _WIN32
#include "agent_process.h"
#include "bench_args.h"
#include "console_client.h"
#endif

namespace fs = std::filesystem;
using namespace tdacli;

#ifndef _WIN32
using bench::Client;
using bench::FreePort;

int main(int argc, char** argv) {
  const tdacli::bench::Usage usage(
      argc, argv, "listener_bench", "[CYCLES [SECONDS]]",
      "The command listener of a running tdacli: \"|GETINFO|\" round trips per second on one connection\n"
      "for SECONDS (default 3), and the process's memory and descriptors before and after CYCLES\n"
      "connect-and-close cycles (default 30000).\n",
      2);
  const int cycles = usage.Count(1, 30000);
  const double seconds = usage.Seconds(2, 3.0);
  auto clock = platform::MakeSystemClock();
  platform::EventLoop loop(*clock);

  const uint16_t port = FreePort(loop);
  bench::AgentProcess agent("tdacli-listener-bench", port);
  if (!agent.ready()) return 1;
  agent.Start();
  const pid_t pid = agent.pid();

  if (!bench::WaitForListener(loop, port)) return 1;

  // Round trips on one connection.
  Client c(loop);
  if (!c.Connect(port)) return 1;
  auto one = [&] {
    c.socket.SendData("|GETINFO|");
    return loop.RunUntil(clock->NowMs() + 5000, [&] {
      return c.received.size() > 10 && c.received.back() == ';' && c.received.find("<Pop4Win>") != std::string::npos;
    });
  };
  for (int i = 0; i < 200; ++i) one();  // warm-up
  c.received.clear();
  long trips = 0;
  const auto t0 = std::chrono::steady_clock::now();
  double elapsed = 0;
  while (elapsed < seconds) {
    if (!one()) {
      std::fprintf(stderr, "GETINFO round trip timed out after %ld\n", trips);
      return 1;
    }
    c.received.clear();
    ++trips;
    elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  }
  c.socket.Close();
  std::printf("GETINFO round trips on one connection: %ld in %.2f s = %.0f per second (goal >= 5000)\n", trips,
              elapsed, trips / elapsed);
  loop.RunFor(300);

  // Connect-and-close cycles.
  const long rss_before = bench::StatusKb(pid, "VmRSS:"), fds_before = bench::CountFds(pid);
  const auto t1 = std::chrono::steady_clock::now();
  int done = 0, failed = 0;
  for (int i = 0; i < cycles; ++i) {
    Client k(loop);
    if (k.Connect(port))
      ++done;
    else
      ++failed;
    k.socket.Close();
  }
  const double cycle_secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t1).count();
  loop.RunFor(1500);  // the agent handles the last closes
  const long rss_after = bench::StatusKb(pid, "VmRSS:"), fds_after = bench::CountFds(pid);

  // The agent still answers afterwards.
  Client last(loop);
  bool answers = last.Connect(port);
  if (answers) {
    last.socket.SendData("|GETINFO|");
    answers = loop.RunUntil(clock->NowMs() + 5000, [&] { return last.received.find("<Pop4Win>") != std::string::npos; });
  }
  last.socket.Close();

  std::printf("connect-and-close cycles: %d greeted, %d failed, %.2f s (%.0f per second)\n", done, failed, cycle_secs,
              done / cycle_secs);
  std::printf("tdacli resident memory: %ld KB before, %ld KB after, growth %ld KB (goal <= 2048 KB)\n", rss_before,
              rss_after, rss_after - rss_before);
  std::printf("tdacli open descriptors: %ld before, %ld after (goal: back to the start value)\n", fds_before,
              fds_after);
  std::printf("tdacli answers GETINFO after the cycles: %s\n", answers ? "yes" : "no");
  return failed == 0 && answers ? 0 : 1;
}

#else
int main() {
  std::printf("listener_bench measures a tdacli process through /proc and runs on Linux only\n");
  return 0;
}
#endif
