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
#include "seams/quiet_agent.h"
#include "service/wiring.h"

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

struct BenchAgent : QuietFacilities {
  explicit BenchAgent(const std::string& folder) {
    agent = MakeAgent(*clock, folder);
    agent->local_ip = "192.168.5.20";
    agent->settings.CurrentUser = "jsmith";
  }
  std::unique_ptr<platform::Clock> clock = platform::MakeSystemClock();
  std::unique_ptr<Agent> agent;
};

}  // namespace tdacli::bench
