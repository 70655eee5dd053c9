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
#include "platform/platform.h"
#include "service/agent.h"

namespace {

class BenchHost : public tdacli::platform::ServiceHost {
 public:
  bool StartedByServiceManager() const override { return true; }
  bool IsInstalled() override { return true; }
  bool Install(const std::string&, const std::string&) override { return false; }
  bool Uninstall() override { return false; }
  void Attach(tdacli::platform::ServiceEvents) override {}
  void ReportRunning() override {}
  void ReportStopped() override {}
};

double CpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

}  // namespace

int main(int argc, char** argv) {
  using namespace tdacli;
  const int wait_seconds = argc > 1 ? std::atoi(argv[1]) : 5;
  const int log_calls = argc > 2 ? std::atoi(argv[2]) : 20000;
  auto dir = std::filesystem::temp_directory_path() / ("tdacli-bench-" + std::to_string(std::time(nullptr)));
  std::filesystem::create_directories(dir);
  auto sys = platform::MakeSystemFacilities(dir.string());
  BenchHost host;
  AgentOptions o;
  o.exe_folder = dir.string();
  Agent agent({*sys.clock, *sys.host, *sys.event_log, *sys.service_control, *sys.dialogs, host}, o);
  agent.local_ip = "127.0.0.1";
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
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
  return 0;
}
