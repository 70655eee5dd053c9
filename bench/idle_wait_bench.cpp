// Prints what waiting and logging cost the agent: the CPU time spent per second of WaitSeconds with
// nothing happening (goal: at most 1 ms; a 1-ms polling loop wakes about 1,000 times a second), and
// the median cost of one LogMessage call that appends to both trace files.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "common/logging.h"
#include "bench_agent.h"
#include "service/agent.h"

namespace {

double CpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

}  // namespace

int main(int argc, char** argv) {
  using namespace tdacli;
  const int wait_seconds = argc > 1 ? std::atoi(argv[1]) : 5;
  const int log_calls = argc > 2 ? std::atoi(argv[2]) : 20000;
  bench::BenchFolder dir("tdacli-idle-bench");
  bench::BenchAgent b(dir.path());
  Agent& agent = *b.agent;
  // The agent's own timers run as in service: the request-file timer ticks every second.
  agent.tmrMessage.on_tick = [] {};
  agent.tmrMessage.SetEnabled(true);

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
  return 0;
}
