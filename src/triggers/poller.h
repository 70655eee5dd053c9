#pragma once
// The trigger-file login poller: logins and logoffs asked for by files that other programs of the
// suite drop into the application folder ("PerformLogin.TXT", "PerformLogoff.TXT"), the screen codec
// install asked for by "TSCC.bat", and the phone-home schedule of the web-service login.
#include <cstdint>
#include <functional>
#include <string>

namespace tdacli {

class Agent;

struct LoginPoller {
  // Failed attempts for the current "PerformLogin.TXT"; back to 0 after a success or after giving up.
  int16_t retry_counter = 0;
  // How programs are started and how the phone-home call is made; empty: the platform's hidden start
  // and the web-service client. Tests put observers here.
  std::function<unsigned long(const std::string& command_line)> start_process;
  std::function<void(Agent&)> phone_home;
};

// One tick of `tmrPollForLogin`: the timer is off for the whole pass and on again at its end.
void tmrPollForLogin_Timer(Agent& agent);
// Runs the codec installer "TSCC.msi" hidden, without waiting for it, and logs the size of its log.
void InstallCodec(Agent& agent);
// After a login that returned a usable live id: the live id file, the remote-control settings and,
// without peer-to-peer capability, the request that starts the remote-control program.
void ActOnLiveID(Agent& agent);

}  // namespace tdacli
