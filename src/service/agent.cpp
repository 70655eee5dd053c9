#include "service/agent.h"

#include <cctype>
#include <cmath>

#include "common/files.h"
#include "common/paths.h"
#include "listener/listener.h"

namespace tdacli {

Agent::Agent(AgentFacilities facilities, AgentOptions options)
    : facilities_(facilities),
      options_(std::move(options)),
      loop_(facilities.clock),
      Broadcast(loop_),
      LoadTimer(loop_),
      tmrMessage(loop_),
      tmrPollForLogin(loop_),
      listener_(std::make_unique<listener::CommandListener>(*this)) {
  app_folder = options_.exe_folder;
  if (app_folder.empty() || app_folder.back() != kSep) app_folder += kSep;
  command_line = options_.command_line;
  Broadcast.SetRemotePort(5003);
  tmrMessage.SetInterval(1000);
}

Agent::~Agent() = default;

void Agent::WaitSeconds(double seconds) {
  loop_.RunUntil(clock().NowMs() + static_cast<int64_t>(std::llround(seconds * 1000)), nullptr);
}

void Agent::PauseTicks(int count) {
  // Each tick is one millisecond with the events run, as one poll step of the drivers.
  if (count > 0) loop_.RunUntil(clock().NowMs() + count, nullptr);
}

bool Agent::WaitUntil(double seconds, const std::function<bool()>& done) {
  return loop_.RunUntil(clock().NowMs() + static_cast<int64_t>(std::llround(seconds * 1000)), done);
}

void Agent::EndProcess() {
  if (ended_) return;
  ended_ = true;
  loop_.Quit();
  if (on_end_process) on_end_process();
}

bool Agent::UserSessionMode() const { return FileExists(AppPath("thinterminal.dat")); }

std::string Agent::ExeUpper() const {
  std::string s = options_.exe_base_name;
  for (auto& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

}  // namespace tdacli
