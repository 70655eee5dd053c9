#include "state/agent.h"

#include <cmath>

#include "common/paths.h"

namespace tdacli {

Agent::Agent(AgentFacilities facilities, AgentOptions options)
    : facilities_(facilities),
      options_(std::move(options)),
      loop_(facilities.clock),
      login_socket(loop_),
      startup_timer(loop_),
      request_file_timer(loop_),
      trigger_file_timer(loop_) {
  app_folder = options_.exe_folder;
  if (app_folder.empty() || app_folder.back() != kSep) app_folder += kSep;
  command_line = options_.command_line;
  login_socket.SetRemotePort(5003);
  request_file_timer.SetInterval(1000);
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

}  // namespace tdacli
