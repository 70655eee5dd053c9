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
#include "platform/service_host.h"
#include "service/agent.h"

namespace tdacli::bench {

class BenchHost : public platform::HostIdentity {
 public:
  std::string ComputerNameEx(int) override { return "BENCH"; }
  std::string ComputerNameRaw() override { return std::string("BENCH") + '\0'; }
  std::string NetworkUserRaw() override { return std::string("jsmith") + '\0'; }
  std::vector<std::vector<std::string>> AdapterAddresses() override { return {{"192.168.5.20"}}; }
  platform::OsVersion Version() override { return {10, 0, true}; }
  std::string WindowsDirectory() override { return "C:\\WINDOWS\\"; }
};
class NoEventLog : public platform::EventLog {
 public:
  void Write(int, const std::string&) override {}
};
// Delivers nothing; a benchmark may answer the sends itself.
class BenchServiceControl : public platform::ServiceControlClient {
 public:
  std::function<void(const std::string&, int)> on_send;
  unsigned long SendControl(const std::string& service, int code) override {
    if (on_send) on_send(service, code);
    return 0;
  }
};
class NoDialogs : public platform::Dialogs {
 public:
  void Information(const std::string&, const std::string&) override {}
};
class NoServiceHost : public platform::ServiceHost {
 public:
  bool StartedByServiceManager() const override { return true; }
  bool IsInstalled() override { return true; }
  bool Install(const std::string&, const std::string&) override { return true; }
  bool Uninstall() override { return true; }
  void Attach(platform::ServiceEvents) override {}
  void ReportRunning() override {}
  void ReportStopped() override {}
};

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
    agent = std::make_unique<Agent>(AgentFacilities{*clock, host, event_log, service_control, dialogs, service_host}, o);
    agent->local_ip = "192.168.5.20";
    agent->settings.CurrentUser = "jsmith";
  }
  std::unique_ptr<platform::Clock> clock = platform::MakeSystemClock();
  BenchHost host;
  NoEventLog event_log;
  BenchServiceControl service_control;
  NoDialogs dialogs;
  NoServiceHost service_host;
  std::unique_ptr<Agent> agent;
};

}  // namespace tdacli::bench
