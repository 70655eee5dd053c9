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
#include "platform/quiet_facilities.h"
#include "platform/service_host.h"
#include "service/agent.h"

namespace {

using namespace tdacli;

// Every message to a sibling fails as for a service that is not installed.
class Control : public platform::QuietServiceControl {
 public:
  unsigned long SendControl(const std::string&, int) override { return 1060; }
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
    agent = std::make_unique<Agent>(AgentFacilities{clock, host, events, control, dialogs, service_host, http, internet}, o);
  }
  ~World() {
    agent.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  std::filesystem::path dir;
  platform::SimulatedClock clock;
  platform::FixedHostIdentity host;
  platform::QuietEventLog events;
  Control control;
  platform::QuietDialogs dialogs;
  platform::QuietServiceHost service_host;
  platform::QuietHttpClient http;
  platform::LanConnection internet;
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
