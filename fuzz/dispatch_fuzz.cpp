// Arbitrary received text into the command dispatcher of an agent that lives in a temporary folder on
// a simulated clock. Commands that change settings rewrite that folder's "TDRegInfo.TXT"; a new
// listening-port list re-opens the listener, which is closed again after each input.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>

#include "listener/commands.h"
#include "listener/listener.h"
#include "platform/clock.h"
#include "platform/host_identity.h"
#include "platform/service_host.h"
#include "service/agent.h"

namespace {

using namespace tdacli;

class Host : public platform::HostIdentity {
 public:
  std::string ComputerNameEx(int) override { return "FUZZPC"; }
  std::string ComputerNameRaw() override { return std::string("FUZZPC") + '\0'; }
  std::string NetworkUserRaw() override { return std::string("fuzzer") + '\0'; }
  std::vector<std::vector<std::string>> AdapterAddresses() override { return {{"10.9.8.7"}}; }
  platform::OsVersion Version() override { return {10, 0, true}; }
  std::string WindowsDirectory() override { return "C:\\WINDOWS"; }
};
class Events : public platform::EventLog {
 public:
  void Write(int, const std::string&) override {}
};
class Control : public platform::ServiceControlClient {
 public:
  unsigned long SendControl(const std::string&, int) override { return 1060; }
};
class NoDialogs : public platform::Dialogs {
 public:
  void Information(const std::string&, const std::string&) override {}
};
class ServiceHost : public platform::ServiceHost {
 public:
  bool StartedByServiceManager() const override { return true; }
  bool IsInstalled() override { return true; }
  bool Install(const std::string&, const std::string&) override { return false; }
  bool Uninstall() override { return false; }
  void Attach(platform::ServiceEvents) override {}
  void ReportRunning() override {}
  void ReportStopped() override {}
};

class Discard : public listener::CommandReplies {
 public:
  size_t bytes = 0;
  void SendCommandReply(const std::string& reply, std::string_view) override { bytes += reply.size(); }
  std::string RemoteHostIP() override { return "127.0.0.1"; }
};

struct World {
  World() {
    dir = std::filesystem::temp_directory_path() / ("tdacli-dispatch-fuzz-" + std::to_string(std::random_device{}()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "TDRegInfo.TXT", std::ios::binary)
        << "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=1234\r\nListeningPorts=1,0,2,3\r\n";
    clock.idle_grace_ms = 0;
    AgentOptions o;
    o.exe_folder = dir.string();
    agent = std::make_unique<Agent>(AgentFacilities{clock, host, events, control, dialogs, service_host}, o);
  }
  ~World() {
    agent.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  std::filesystem::path dir;
  platform::SimulatedClock clock;
  Host host;
  Events events;
  Control control;
  NoDialogs dialogs;
  ServiceHost service_host;
  std::unique_ptr<Agent> agent;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World world;
  Agent& agent = *world.agent;
  Discard replies;
  listener::DispatchCommand(agent, std::string(reinterpret_cast<const char*>(data), size), replies);
  // Keep no port bound between inputs.
  agent.listener().CloseListener();
  return 0;
}
