#include "triggers/trigger_files.h"

#include <filesystem>
#include <system_error>

#include "common/errors.h"
#include "common/files.h"
#include "common/logging.h"
#include "config/configuration.h"
#include "config/result_files.h"
#include "login/drivers.h"
#include "login/login_results.h"
#include "login/web_service.h"
#include "platform/process_start.h"
#include "siblings/delivery.h"
#include "state/agent.h"
#include "triggers/capture_files.h"
#include "triggers/logoff.h"
#include "triggers/post_login.h"


namespace tdacli {

namespace {

constexpr int16_t kGiveUpAt = 16;  // one trigger file earns 16 attempts, although the text says 15

bool UsableLiveID(const std::string& id) { return !id.empty() && id != "0" && id != "-1"; }

void PerformFileLogin(Agent& agent) {
  LoginPoller& poller = agent.poller;
  const std::string login_file = agent.AppPath("PerformLogin.TXT");
  const std::string logoff_file = agent.AppPath("PerformLogoff.TXT");

  if (FileExists(agent.AppPath("TSCC.bat"))) {
    Ignoring([&] {
      LogMessage(agent, "Found TSCC.bat, Installing Codec!", "Trace");
      InstallCodec(agent);
    });
    if (agent.Ended()) return;
    Ignoring([&] { agent.WaitSeconds(5); });
    if (agent.Ended()) return;
    // Deleted whatever the install did, so that it is not repeated.
    DeleteFile(agent, agent.AppPath("TSCC.bat"));
    Ignoring([&] { LogMessage(agent, "Deleted TSCC.bat after Install!", "Trace"); });
  }

  // A login wins over a logoff asked for at the same tick.
  if (FileExists(logoff_file)) {
    DeleteFile(agent, logoff_file);
    Ignoring([&] {
      if (FileExists(logoff_file))
        LogMessage(agent, "File Exists After Deletion[1], [" + logoff_file + "]", "Trace");
      else
        LogMessage(agent,
                   "Found PerformLogin.TXT and PerformLogoff.TXT Files, Deleted Logoff File [" + logoff_file + "]",
                   "Trace");
    });
  }

  Ignoring([&] { LoadConfiguration(agent); });
  Ignoring([&] {
    LogMessage(agent,
               "Received notification user (" + agent.settings.CurrentUser +
                   ") just logged in, updating TD Server via FILE TRIGGERED login.",
               "Trace");
  });
  Ignoring([&] { LoginUser(agent); });
  if (agent.Ended()) return;

  const bool succeeded = agent.login().LoginSucceeded;
  if (succeeded) {
    poller.retry_counter = 0;
    DeleteFile(agent, login_file);
    Ignoring([&] {
      if (FileExists(login_file))
        LogMessage(agent, "File Exists After Deletion[2], [" + login_file + "]", "Trace");
      else
        LogMessage(agent, "Deleted File After login [" + login_file + "]", "Trace");
    });
    if (UsableLiveID(agent.login().TDLiveID)) Ignoring([&] { ActOnLiveID(agent); });
  }

  Ignoring([&] { RunPostLoginSteps(agent); });
  if (agent.Ended()) return;

  if (!succeeded) {
    ++poller.retry_counter;
    if (poller.retry_counter < kGiveUpAt) {
      Ignoring([&] {
        LogMessage(agent,
                   "LOGIN NOT OKAY, Delaying 15 Seconds, Trying Again [Attempt=" +
                       std::to_string(poller.retry_counter) + "].",
                   "Trace");
        agent.WaitSeconds(15);
      });
      // The file stays: the next tick tries again.
    } else {
      Ignoring([&] { LogMessage(agent, "LOGIN NOT OKAY, Tried 15 Times, Giving Up!", "Trace"); });
      DeleteFile(agent, login_file);
      Ignoring([&] {
        if (FileExists(login_file))
          LogMessage(agent, "File Exists After Deletion[3], [" + login_file + "]", "Trace");
        else
          LogMessage(agent, "Deleted File After Failed Login [" + login_file + "]", "Trace");
      });
      poller.retry_counter = 0;
    }
  }
}

void PerformFileLogoff(Agent& agent) {
  const std::string logoff_file = agent.AppPath("PerformLogoff.TXT");
  DeleteFile(agent, logoff_file);
  Ignoring([&] { DoUserLogOff(agent); });
  if (agent.Ended()) return;
  Ignoring([&] {
    if (FileExists(logoff_file))
      LogMessage(agent, "File Exists After Deletion[4], [" + logoff_file + "]", "Trace");
    else
      LogMessage(agent, "Deleted File After LogOff [" + logoff_file + "]", "Trace");
  });
}

}  // namespace

void tmrPollForLogin_Timer(Agent& agent) {
  // Off for the whole pass, so that its waits (up to 31 s for the media-transfer service, 15 s between
  // attempts, 20 s of codec install) never start a second pass; the next tick comes 3 s after this one
  // has ended.
  agent.trigger_file_timer.SetEnabled(false);

  if (FileExists(agent.AppPath("PerformLogin.TXT"))) PerformFileLogin(agent);
  if (agent.Ended()) return;

  // Also when a login ran above and the logoff file appeared meanwhile.
  if (FileExists(agent.AppPath("PerformLogoff.TXT"))) PerformFileLogoff(agent);
  if (agent.Ended()) return;

  const LoginState& login = agent.login();
  if (login.PhoneHome && agent.clock().NowMs() > login.NextPhoneHomeMs) {
    Ignoring([&] {
      if (agent.poller.phone_home)
        agent.poller.phone_home(agent);
      else
        PhoneHomeForScreenGrabberTasks(agent);
    });
    if (agent.Ended()) return;
    ScheduleNextPhoneHome(agent);
  }

  agent.trigger_file_timer.SetEnabled(true);
}

void PhoneHomeForScreenGrabberTasks(Agent& agent) {
  const PhoneHomeOutcome got = WebService_PhoneHomeForScreenGrabberTasks(agent);
  if (got.send_frames) SendFramesForGrabberTask(agent, *got.send_frames);
  if (got.task_received) AcknowledgeGrabberTask(agent);
}

void InstallCodec(Agent& agent) {
  // Errors are ignored: a failed install leaves its log lines and nothing else.
  Ignoring([&] {
    const std::string package = agent.AppPath("TSCC.msi");
    const std::string log_file = agent.AppPath("TSCCLog.txt");
    const std::string command =
        "MSIExec.exe /package \"" + package + "\" /quiet /Log \"" + log_file + "\"";
    LogMessage(agent, "INSTALL CODEC: Set Command to [" + command + "] Set LogFileName to [" + log_file + "]",
               "Trace");
    LogMessage(agent, "INSTALL CODEC: Shell Execute [" + command + "]", "Trace");
    const unsigned long pid = agent.poller.start_process ? agent.poller.start_process(command)
                                                         : platform::StartHiddenProcess(command);
    LogMessage(agent, "INSTALL CODEC: Return Code [" + std::to_string(pid) + "], Pausing 20 Seconds", "Trace");
    agent.WaitSeconds(20);
    if (agent.Ended()) return;
    std::error_code ec;
    const auto size = std::filesystem::file_size(std::filesystem::u8path(log_file), ec);
    if (ec) return;  // no log: nothing more to say
    LogMessage(agent,
               "INSTALL CODEC: Install Log [" + log_file + "] has [" + std::to_string(size) + "] bytes", "Trace");
  });
}

void ActOnLiveID(Agent& agent) {
  CutReceivedValues(agent, {{&LoginState::TDLiveID, "TDLiveID"},
                            {&LoginState::RepeaterIP, "RepeaterIP"},
                            {&LoginState::RepeaterPort, "RepeaterPort"}});
  SaveLiveID(agent);
  CreateRemoteControlSettings(agent);
  if (!agent.login().PeerToPeerCapable) RequestRemoteControlLoad(agent);
}

}  // namespace tdacli
