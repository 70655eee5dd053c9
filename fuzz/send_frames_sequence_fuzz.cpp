// Sequences of receptions into the send-frames branch of the listener, as a server (or anyone on the
// network) may send them: pieces with and without the keyword and the protocol tags, a peer that is
// gone by the time of the reply. The agent lives in a temporary folder on a simulated clock; the job
// files it writes are removed after each input, its log lines are built but not stored. Checks: the pending data never passes its bound, and
// "|OKAY|" is only ever the reply.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "fuzz_agent.h"
#include "listener/command_replies.h"
#include "listener/listener.h"
#include "listener/send_frames_command.h"
#include "service/wiring.h"

namespace {

using namespace tdacli;

class Replies : public listener::CommandReplies {
 public:
  bool up = true;
  void SendCommandReply(const std::string& reply, std::string_view) override {
    if (reply != "|OKAY|") std::abort();
  }
  std::string RemoteHostIP() override { return "10.0.0.5"; }
  bool ReplyConnectionUp() override { return up; }
};

struct World : fuzzing::FuzzAgent {
  World() : FuzzAgent("send-frames", 0) {
    agent->local_ip = "10.0.0.1";
    BlockLogs();
  }
  // Folders in place of the logs: every line is still built, but its write fails at once (the log
  // writers swallow that), which keeps a million inputs from spending their time in the file system.
  void BlockLogs() {
    for (const char* log : {"10-0-0-1-TDACLI-TraceFile.TXT", "10-0-0-1-TraceFile.TXT", "10-0-0-1-Error.LOG"})
      std::filesystem::create_directories(app / log);
  }
};

// Pieces the fuzzer rarely guesses byte by byte.
const char* const kWords[] = {"[BEGIN_PROTOCOL]", "[END_PROTOCOL]", "|SENDFRAMES|", "@", "@JOB@", "\r\n"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static World world;
  Agent& agent = *world.agent;
  std::string& pending = listener::ListenerOf(agent).PendingProtocolData;
  FuzzedDataProvider in(data, size);
  Replies replies;
  bool wrote = false;
  while (in.remaining_bytes() > 0) {
    std::string piece;
    const int parts = in.ConsumeIntegralInRange(1, 4);
    for (int i = 0; i < parts; ++i) {
      if (in.ConsumeBool())
        piece += kWords[in.ConsumeIntegralInRange<size_t>(0, sizeof kWords / sizeof kWords[0] - 1)];
      else
        piece += in.ConsumeRandomLengthString(64);
    }
    // A longer piece now and then: a few hundred of them reach the bound.
    if (in.ConsumeIntegralInRange(0, 63) == 0) piece.append(in.ConsumeIntegralInRange<size_t>(0, 4000), 'x');
    replies.up = in.ConsumeIntegralInRange(0, 7) != 0;
    if (piece.empty()) continue;  // the dispatcher ends an empty read before any command
    listener::HandleSendFramesData(agent, piece, replies);
    if (pending.size() > listener::kMaxPendingProtocolData) std::abort();
    wrote = true;
  }
  pending.clear();  // each input starts with no transmission pending
  if (wrote) {
    world.ResetFolder();
    world.BlockLogs();
  }
  return 0;
}
