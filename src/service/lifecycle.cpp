#include "service/lifecycle.h"

#include "common/errors.h"
#include "common/files.h"
#include "common/local_host.h"
#include "common/logging.h"
#include "common/paths.h"
#include "common/text.h"
#include "config/configuration.h"
#include "listener/listener.h"
#include "listener/listening_port.h"
#include "login/drivers.h"
#include "service/control.h"
#include "service/login_socket.h"
#include "service/request_files.h"
#include "state/agent.h"
#include "triggers/trigger_files.h"


namespace tdacli {

namespace {

constexpr const char* kTitle = "Tyndrel - By Marlock!";

void ResetProcessValues(Agent& agent) {
  agent.date_format = "YYYY-MM-DD";
  agent.language_label = "English";
}

void RecomputeAppFolder(Agent& agent) {
  agent.app_folder = agent.options().exe_folder;
  if (agent.app_folder.empty() || agent.app_folder.back() != kSep) agent.app_folder += kSep;
}

}  // namespace

std::optional<CommandLineAccount> ParseAccount(const std::string& command_line) {
  CommandLineAccount out;
  if (command_line.empty()) return out;
  const std::string lower = Lower(command_line);
  const size_t a = lower.find("/account="), p = lower.find("/password=");
  if (a != std::string::npos && p != std::string::npos) {
    // 1-based positions as the routine counts them: the account ends before the character that
    // precedes "/password=".
    const long len = static_cast<long>(p + 1) - static_cast<long>(a + 1) - 10;
    if (len < 0) return std::nullopt;
    out.account = TrimBlanks(command_line.substr(a + 9, static_cast<size_t>(len)));
    out.password = TrimBlanks(command_line.substr(p + 10));
    if (Lower(out.account) != "ftp") out.account_given = out.password_given = true;
  } else if (a != std::string::npos) {
    out.account = command_line.substr(a + 9);
    if (Lower(out.account) != "ftp") out.account_given = true;
  }
  if (!out.account_given) out.account.clear();
  if (!out.password_given) out.password.clear();
  return out;
}

void HideMainWindow(Agent&) {
  // Nothing to move: the platform creates the form hidden, 1 x 1 at (-120, -120), and never shows it.
}

void Form_Load(Agent& agent) {
  WireLoginSocket(agent);
  if (!agent.startup_timer.on_tick) agent.startup_timer.on_tick = [&agent] { LoadTimer_Timer(agent); };
  if (!agent.request_file_timer.on_tick) agent.request_file_timer.on_tick = [&agent] { tmrMessage_Timer(agent); };
  if (!agent.trigger_file_timer.on_tick) agent.trigger_file_timer.on_tick = [&agent] { tmrPollForLogin_Timer(agent); };
  try {
    ResetProcessValues(agent);
    RecomputeAppFolder(agent);
    LoadComputerNames(agent);
    DetermineLocalIP(agent);
    DetectOSVersion(agent);
    HideMainWindow(agent);
    agent.command_line = agent.options().command_line;
    if (agent.UserSessionMode()) {
      if (agent.service_host().ServiceManagerWaitsForStart()) {
        RefuseServiceStartInUserSessionMode(agent);
        return;
      }
      Service_Start(agent);
      return;
    }
    LogMessage(agent, "Form_Load Invoked", "Trace");
    if (agent.service_host().StartedByServiceManager()) return;

    // Installer mode.
    const std::string& cmd = agent.command_line;
    const bool silent = Contains(cmd, "/s");
    if (Contains(cmd, "/u")) {
      agent.service_host().Uninstall();
      if (!silent)
        agent.dialogs().Information("The Tyndrel Agent Client Login Service has been uninstalled!", kTitle);
      agent.EndProcess();
      return;
    }
    if (!agent.service_host().IsInstalled()) {
      auto account = ParseAccount(cmd);
      if (!account) throw std::invalid_argument("Invalid procedure call or argument");
      // The parsed account is deliberately dropped: the service always runs as the local system
      // account.
      agent.service_host().Install("", "");
      if (!silent)
        agent.dialogs().Information(
            "The Tyndrel Agent Client Login Service has been installed. You may now run it from the "
            "WindowsNT Service Manager!",
            kTitle);
    } else if (!silent) {
      agent.dialogs().Information(
          "The Tyndrel Agent Client Login Service has already been installed. You can only run it from the "
          "WindowsNT Service Manager!",
          kTitle);
    }
    agent.EndProcess();
  } catch (const std::exception& e) {
    LogMessage(agent, DetectedErrorIn("Form_Load", Describe(e)), "Error");
    agent.EndProcess();
  }
}

void RefuseServiceStartInUserSessionMode(Agent& agent) {
  // Beside the marker the agent runs in every user's session and logs its user in there. Run as the
  // service as well, it would read the same request and trigger files and log the seat's user in a
  // second time, so the start ends at once, stopped with a code of its own, and the trace says why.
  LogMessage(agent,
             "THINTERMINAL - Started by the Service Manager, but [" + agent.AppPath("thinterminal.dat") +
                 "] is present: the agent runs in each user's session on this computer, so the service does not "
                 "start (service-specific exit code " +
                 std::to_string(kUserSessionMarkerExitCode) + ")",
             "Error");
  agent.service_host().ReportStartFailed(kUserSessionMarkerExitCode);
  agent.EndProcess();
}

void Form_QueryUnload(Agent& agent, bool& cancel) {
  TrapAndLog(agent, "Form_QueryUnload", [&] {
    if (agent.UserSessionMode()) {
      Service_Stop(agent);
      return;
    }
    LogMessage(agent, "Form_QueryUnload Invoked", "Trace");
    cancel = true;
  });
}

void Service_Start(Agent& agent) {
  TrapAndLog(agent, "Service_Start", [&] {
    ResetProcessValues(agent);
    agent.startup_timer.SetInterval(1000);
    agent.startup_timer.SetEnabled(true);
  });
}

std::string BuildStartupBanner(Agent& agent) {
  const Settings& s = agent.settings;
  std::string b = "TD Agent Client Login Service Started\r\n\r\n";
  b += "Version: 3.0 (Build: " + std::to_string(100 + agent.options().file_revision) + ")\r\n";
  if (Contains(s.Server, ":"))
    b += "TD Server: " + s.Server + "\r\n";
  else
    b += "TD Server: " + s.Server + "(Port: " + std::to_string(agent.login_socket.RemotePort()) + ")\r\n";
  b += "Extension: " + s.Ext + "\r\n";
  b += "Notification Method: " + s.NotificationMethod + "\r\n";
  b += "Use File Trace: " + s.UseTrace + "\r\n";
  b += "Listening Port: " + std::to_string(listener::ListenerOf(agent).Listener().LocalPort()) + "\r\n";
  b += agent.UserSessionMode() ? "Running As: UserSession (Terminal Server)\r\n" : "Running As: WinService\r\n";
  return b;
}

void LoadTimer_Timer(Agent& agent) {
  TrapAndLog(agent, "LoadTimer_Timer", [&] {
    agent.startup_timer.SetInterval(0);
    agent.startup_timer.SetEnabled(false);
    ResetProcessValues(agent);
    HideMainWindow(agent);
    agent.command_line = agent.options().command_line;
    RecomputeAppFolder(agent);
    LoadComputerNames(agent);
    DetectOSVersion(agent);
    DetermineLocalIP(agent);
    LoadConfiguration(agent);
    listener::ListenerOf(agent).allowed_consoles().Load(agent);
    agent.request_file_timer.SetInterval(1000);
    agent.request_file_timer.SetEnabled(true);

    auto& listen = listener::ListenerOf(agent);
    int retries = 0;
    for (;;) {
      const int16_t port = listener::GetListeningPort(agent);
      if (agent.UserSessionMode()) {
        listen.Listener().SetLocalPort(static_cast<uint16_t>(port));
        LogMessage(agent, "THINTERMINAL - Deferring opening of socket until after login!", "Trace!");
        break;
      }
      platform::SocketError err = listen.Listen(static_cast<uint16_t>(port));
      if (!err) break;
      if (retries == 30) {
        // The retries are spent; without a listener the console could never reach this agent again,
        // so the port is tried quietly every 30 s until it is free.
        listen.KeepTryingToListen(static_cast<uint16_t>(port));
        break;
      }
      ++retries;
      LogMessage(agent, "Error opening listening socket, attempting again (" + std::to_string(retries) + ")",
                 "Warning!");
      agent.WaitSeconds(2);
      if (agent.Ended()) return;
    }

    LogMessage(agent, BuildStartupBanner(agent), "Information");
    if (agent.settings.PollsTriggerFiles()) {
      agent.trigger_file_timer.SetInterval(3000);
      agent.trigger_file_timer.SetEnabled(true);
    }
  });
}

void Service_Stop(Agent& agent) {
  TrapAndLog(agent, "Service_Stop", [&] {
    LogMessage(agent, "TD Agent Client Login Service Stopped", "Information");
    WriteProgramTrace(agent, "**********", "Information");
    WriteProgramTrace(agent, "*  STOP  *", "Information");
    WriteProgramTrace(agent, "**********", "Information");
    agent.EndProcess();
  });
}

void Service_ShutDown(Agent& agent) {
  TrapAndLog(agent, "Service_ShutDown", [&] {
    LogMessage(agent, "Windows Shutdown", "Trace");
    Service_Stop(agent);
  });
}

void AttachServiceHost(Agent& agent, bool raise_start) {
  platform::ServiceEvents ev;
  auto& loop = agent.loop();
  Agent* a = &agent;
  ev.on_start = [&loop, a, raise_start] {
    loop.Post([a, raise_start] {
      if (!raise_start) return;  // user-session mode has started itself
      Service_Start(*a);
      a->service_host().ReportRunning();
    });
  };
  ev.on_stop = [&loop, a] { loop.Post([a] { Service_Stop(*a); }); };
  ev.on_shutdown = [&loop, a] { loop.Post([a] { Service_ShutDown(*a); }); };
  ev.on_pause = [&loop, a] { loop.Post([a] { Service_Pause(*a); }); };
  ev.on_continue = [&loop, a] { loop.Post([a] { Service_Continue(*a); }); };
  ev.on_control = [&loop, a](int code) { loop.Post([a, code] { Service_Control(*a, code); }); };
  agent.service_host().Attach(std::move(ev));
}

}  // namespace tdacli
