// Prints what waiting and logging cost the agent: the CPU time spent per second of WaitSeconds with
// nothing happening (goal: at most 1 ms; a 1-ms polling loop wakes about 1,000 times a second), the
// median cost of one LogMessage call that appends to both trace files, and the idle agent with both
// of its polling timers at work ("FileMessage": the request-file timer every second, the trigger-file
// poller every 3 s, no files present): CPU as a share of one core (goal: at most 0.1%) and wake-ups
// per second (goal: about one per timer tick, 1.33 per second).
//
//   idle_wait_bench [wait seconds, 5] [log calls, 20000] [seconds with both timers, 60]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#ifdef __linux__
#include <sys/resource.h>
#endif

#include "common/logging.h"
#include "bench_agent.h"
#include "bench_args.h"
#include "service/wiring.h"
#include "service/request_files.h"
#include "triggers/trigger_files.h"

namespace {

// Times the process went to sleep and was woken: the OS's count of voluntary context switches (-1
// where it is not available).
long Sleeps() {
#ifdef __linux__
  rusage u{};
  if (getrusage(RUSAGE_SELF, &u) == 0) return u.ru_nvcsw;
#endif
  return -1;
}

double CpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

}  // namespace

int main(int argc, char** argv) {
  using namespace tdacli;
  const bench::Usage usage(
      argc, argv, "idle_wait_bench", "[WAIT_SECONDS [LOG_CALLS [TIMERS_SECONDS]]]",
      "What waiting and logging cost the agent: CPU time per second of an idle wait (WAIT_SECONDS,\n"
      "default 5), the median cost of one logged line (LOG_CALLS, default 20000), and the idle agent\n"
      "with both polling timers at work for TIMERS_SECONDS (default 60): CPU share and wake-ups.\n",
      3);
  const int wait_seconds = usage.Count(1, 5);
  const int log_calls = usage.Count(2, 20000);
  const int timers_seconds = usage.Count(3, 60);
  bench::BenchFolder dir("tdacli-idle-bench");
  bench::BenchAgent b(dir.path());
  Agent& agent = *b.agent;
  // The agent's own timers run as in service: the request-file timer ticks every second.
  agent.request_file_timer.on_tick = [] {};
  agent.request_file_timer.SetEnabled(true);

  const uint64_t polls_before = agent.loop().poll_calls();
  const double cpu0 = CpuSeconds();
  const auto wall0 = std::chrono::steady_clock::now();
  agent.WaitSeconds(wait_seconds);
  const double cpu = CpuSeconds() - cpu0;
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
  const double polls = static_cast<double>(agent.loop().poll_calls() - polls_before);
  std::printf("WaitSeconds(%d): %.3f s waited, %.3f ms CPU per second waited, %.1f wake-ups per second "
              "(goal: at most 1 ms CPU per second)\n",
              wait_seconds, wall, cpu * 1000.0 / wall, polls / wall);

  std::vector<double> costs;
  costs.reserve(static_cast<size_t>(log_calls));
  for (int i = 0; i < log_calls; ++i) {
    auto t0 = std::chrono::steady_clock::now();
    LogMessage(agent, "Benchmark line " + std::to_string(i) + " with a typical length of text for a trace", "Trace");
    costs.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
  }
  std::sort(costs.begin(), costs.end());
  std::printf("LogMessage (both trace files): median %.1f us, 99th percentile %.1f us over %d calls\n",
              costs[costs.size() / 2], costs[costs.size() * 99 / 100], log_calls);

  // A fresh agent in its own folder, its timers wired to the real handlers as the start-up does.
  bench::BenchFolder idle_dir("tdacli-idle-timers-bench");
  bench::BenchAgent idle(idle_dir.path());
  Agent& a = *idle.agent;
  a.settings.NotificationMethod = "FileMessage";
  int message_ticks = 0, poll_ticks = 0;
  a.request_file_timer.on_tick = [&] {
    ++message_ticks;
    tmrMessage_Timer(a);
  };
  a.trigger_file_timer.on_tick = [&] {
    ++poll_ticks;
    tmrPollForLogin_Timer(a);
  };
  a.request_file_timer.SetInterval(1000);
  a.request_file_timer.SetEnabled(true);
  a.trigger_file_timer.SetInterval(3000);
  a.trigger_file_timer.SetEnabled(true);
  const uint64_t idle_polls0 = a.loop().poll_calls();
  const long sleeps0 = Sleeps();
  const double idle_cpu0 = CpuSeconds();
  const auto idle_wall0 = std::chrono::steady_clock::now();
  a.WaitSeconds(timers_seconds);
  const double idle_cpu = CpuSeconds() - idle_cpu0;
  const double idle_wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - idle_wall0).count();
  const double idle_polls = static_cast<double>(a.loop().poll_calls() - idle_polls0);
  const long sleeps = Sleeps() - sleeps0;
  // Every pass of the loop polls twice: once without waiting (the events ready now), once blocking.
  std::printf("Both timers, no files, %.1f s: %.3f ms CPU in all, %.4f%% of one core; %.2f wake-ups per second "
              "(%.2f poll calls per second); %d request-file ticks, %d poller ticks (goal: at most 0.1%% of one "
              "core, about 1.33 wake-ups per second)\n",
              idle_wall, idle_cpu * 1000.0, idle_cpu * 100.0 / idle_wall,
              sleeps >= 0 ? static_cast<double>(sleeps) / idle_wall : idle_polls / 2 / idle_wall, idle_polls / idle_wall,
              message_ticks, poll_ticks);
  return 0;
}
