// Arbitrary login server replies fed to the conversation's reply handler, without a socket. The first
// byte chooses the circumstances (which exchange runs, an empty local address, user-session mode, a
// valid IP mask left from before, the Windows version); the rest is the reply.
//
// The handler really writes its files (in a temporary application folder, emptied after every input;
// none but the logs may hold a NUL)
// and really moves the Agent Explorer listener when a reply asks for it, on 127.0.0.1 only. Ports come
// from the input, so on a shared machine run it in a network namespace of its own:
//   unshare -rn sh -c 'ip link set lo up && exec ./build/fuzz/bin/conversation_fuzz -runs=1000000 -max_len=4096'
// (a new namespace's loopback is down until then, and the listener could not be moved at all).
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "common/files.h"
#include "fuzz_agent.h"
#include "listener/listener.h"
#include "login/conversation.h"
#include "seams/quiet_facilities.h"
#include "service/wiring.h"

namespace {

using namespace tdacli;
namespace fs = std::filesystem;

struct Harness : fuzzing::FuzzAgent {
  Harness() : FuzzAgent("conversation", 0) {  // no peer to wait for: time jumps at once
    listener::ListenerOf(*agent).Listener().SetLocalHost("127.0.0.1");
    agent->startup_banner_written = true;
  }

  void Prepare(uint8_t flags) {
    static const char* const kKinds[] = {"Login", "Logoff", "Status", ""};
    agent->WriteLogin() = LoginState{};
    agent->WriteLogin().LoginRequestKind = kKinds[flags & 3];
    agent->WriteFtp() = FtpState{};
    agent->settings = Settings{};
    agent->settings.CurrentUser = "jsmith";
    agent->settings.ListeningPorts = "1,0,2,3";  // any free port unless the reply names one
    agent->stored_lines = {};
    agent->temp_access_status = static_cast<int16_t>(flags >> 6);
    agent->local_ip = (flags & 4) ? "" : "192.168.5.20";
    if (flags & 8) WriteTextFile(agent->AppPath("thinterminal.dat"), "");
    if (flags & 16) agent->WriteLogin().ValidIPMask = "192.168.5.";
    agent->os_code = (flags & 32) ? 10 : 99;
  }

  // Leaves the folder empty, and the listener closed, for the next input.
  void Clean() {
    listener::ListenerOf(*agent).CloseListener();
    ResetFolder();
  }
};

bool NulInAFileBesideTheLogs(const fs::path& folder) {
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (!entry.is_regular_file()) continue;
    const std::string name = entry.path().filename().string();
    if (name.ends_with("-TraceFile.TXT") || name.ends_with("-Error.LOG")) continue;
    std::ifstream f(entry.path(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    if (text.find('\0') != std::string::npos) return true;
  }
  return false;
}

bool EndsTheExchange(std::string_view rule) {
  return rule == "2" || rule == "8'" || rule == "13" || rule == "14" || rule == "15";
}
bool SendsNothing(std::string_view rule) { return rule == "7" || rule == "9" || rule == "15"; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Harness h;
  if (size == 0) return 0;
  h.Prepare(data[0]);
  const std::string reply(reinterpret_cast<const char*>(data + 1), size - 1);
  const std::string rule(ReplyRuleFor(*h.agent, reply));

  std::vector<std::string> sent;
  HandleReply(*h.agent, reply, [&sent](std::string_view request) { sent.emplace_back(request); });

  // One reply, at most one request; the exchange ends exactly on the rules that end it.
  if (sent.size() != (SendsNothing(rule) ? 0u : 1u)) std::abort();
  if (h.agent->login().ProtocolDone != EndsTheExchange(rule)) std::abort();
  // No NUL reaches a file the siblings read (settings, result and capture files, request files); the
  // logs quote the reply as it came.
  if (NulInAFileBesideTheLogs(h.app)) std::abort();
  h.Clean();
  return 0;
}
