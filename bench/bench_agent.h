#pragma once
// An agent for benchmarks: the real clock and loop, a temporary application folder, and quiet
// stand-ins for the facilities a benchmark does not measure.
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/host_identity.h"
#include "platform/quiet_facilities.h"
#include "platform/service_host.h"
#include "service/agent.h"

namespace tdacli::bench {

// A fresh folder under the system's temporary folder, removed at the end.
class BenchFolder {
 public:
  explicit BenchFolder(const std::string& name) {
    std::random_device seed;
    path_ = std::filesystem::temp_directory_path() / (name + "-" + std::to_string(seed()));
    std::filesystem::create_directories(path_);
  }
  ~BenchFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  std::string Sub(const std::string& name) const {
    std::filesystem::create_directories(path_ / name);
    return (path_ / name).string();
  }
  std::string path() const { return path_.string(); }

 private:
  std::filesystem::path path_;
};

struct BenchAgent {
  explicit BenchAgent(const std::string& folder) {
    AgentOptions o;
    o.exe_folder = folder;
    agent = std::make_unique<Agent>(AgentFacilities{*clock, host, event_log, service_control, dialogs, service_host, http, internet}, o);
    agent->local_ip = "192.168.5.20";
    agent->settings.CurrentUser = "jsmith";
  }
  std::unique_ptr<platform::Clock> clock = platform::MakeSystemClock();
  platform::FixedHostIdentity host;
  platform::QuietEventLog event_log;
  platform::QuietServiceControl service_control;
  platform::QuietDialogs dialogs;
  platform::QuietServiceHost service_host;
  platform::QuietHttpClient http;
  platform::LanConnection internet;
  std::unique_ptr<Agent> agent;
};

}  // namespace tdacli::bench
