// Arbitrary received text into the command dispatcher of an agent that lives in a temporary folder on
// a simulated clock. Commands that change settings rewrite that folder's "TDRegInfo.TXT"; a new
// listening-port list re-opens the listener, which is closed again after each input.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "fuzz_agent.h"
#include "listener/command_replies.h"
#include "listener/dispatch.h"
#include "listener/listener.h"
#include "service/wiring.h"

namespace {

using namespace tdacli;

class Discard : public listener::CommandReplies {
 public:
  size_t bytes = 0;
  void SendCommandReply(const std::string& reply, std::string_view) override { bytes += reply.size(); }
  std::string RemoteHostIP() override { return "127.0.0.1"; }
};

struct World : fuzzing::FuzzAgent {
  World() : FuzzAgent("dispatch", 0, fuzzing::kSettings) {
    service_control.answer = 1060;  // every message to a sibling fails as for a service not installed
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World world;
  Agent& agent = *world.agent;
  Discard replies;
  listener::DispatchCommand(agent, std::string(reinterpret_cast<const char*>(data), size), replies);
  // Keep no port bound and no file between inputs.
  listener::ListenerOf(agent).CloseListener();
  world.ResetFolder();
  return 0;
}
