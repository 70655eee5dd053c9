#include "login/drivers.h"

#include <functional>

#include "common/files.h"
#include "common/logging.h"
#include "common/text.h"
#include "login/web_service.h"
#include "state/agent.h"

namespace tdacli {

namespace {

constexpr uint16_t kLoginServerPort = 5003;
constexpr double kStageSeconds = 30;

using platform::TcpSocket;

// One waiting stage: ends as soon as `done` holds (events are only run while it does not), or after
// 30 seconds.
bool Stage(Agent& agent, const std::function<bool()>& done) {
  if (done()) return true;
  return agent.WaitUntil(kStageSeconds, done);
}

enum class Outcome { kCloseTimeout, kConnectTimeout, kProtocolTimeout, kProtocolDone, kEnded };

// The stages shared by the three drivers. `before_connect` runs between the close and the connect
// stages (the login clears its capture parameters there).
Outcome RunExchange(Agent& agent, const std::string& kind, const std::string& contact_line,
                    const std::function<void()>& before_connect) {
  LoginState& l = agent.WriteLogin();
  TcpSocket& socket = agent.login_socket;
  l.ProtocolDone = false;
  l.LoginRequestKind = kind;
  socket.SetRemoteHost(agent.settings.Server);
  socket.SetRemotePort(kLoginServerPort);
  LogMessage(agent, contact_line, "Trace");

  if (socket.State() != TcpSocket::kClosed) socket.Close();
  const bool closed = Stage(agent, [&socket] { return socket.State() == TcpSocket::kClosed; });
  if (agent.Ended()) return Outcome::kEnded;
  if (!closed) return Outcome::kCloseTimeout;

  if (before_connect) before_connect();

  // A connect the control refuses outright is skipped like any failing statement: the stage below
  // then times out.
  (void)socket.Connect();
  const bool connected = Stage(agent, [&socket] { return socket.State() == TcpSocket::kConnected; });
  if (agent.Ended()) return Outcome::kEnded;
  if (!connected) return Outcome::kConnectTimeout;

  const bool done = Stage(agent, [&l] { return l.ProtocolDone; });
  if (agent.Ended()) return Outcome::kEnded;
  return done ? Outcome::kProtocolDone : Outcome::kProtocolTimeout;
}

void TimedOut(Agent& agent, bool& flag, const std::string& text, bool sets_result) {
  flag = false;
  LogMessage(agent, text, "Error");
  if (sets_result) agent.WriteLogin().LastLoginResult = "[ERROR]" + text;
}

}  // namespace

void LoginUser(Agent& agent) {
  LoginState& l = agent.WriteLogin();
  const std::string live_id = agent.AppPath("TDLiveID.INI");
  if (FileExists(live_id)) {
    DeleteFile(agent, live_id);
    LogMessage(agent, "Deleted [TDLiveID.INI] file before Login!", "Trace");
  }
  if (Contains(agent.settings.Server, ":")) {
    WebService_LoginUser(agent);
    return;
  }

  const Outcome outcome =
      RunExchange(agent, "Login", "Contacting the TD Login Server for Login at (" + agent.settings.Server + ":5003)",
                  [&agent, &l] {
                    l.HundredScreensParam.clear();
                    const std::string param_file = agent.AppPath("100ScreenParam.TXT");
                    DeleteFile(agent, param_file);
                    if (FileExists(param_file)) LogMessage(agent, "Error Removing File (" + param_file + ")!", "Error");
                    l.UseWebCam = false;
                  });
  switch (outcome) {
    case Outcome::kEnded:
      return;
    case Outcome::kCloseTimeout:
      // The socket is not closed again.
      TimedOut(agent, l.LoginSucceeded, "Login Attempt - Timeout closing socket prior to connection", true);
      return;
    case Outcome::kConnectTimeout:
      // The socket is left as it is.
      TimedOut(agent, l.LoginSucceeded, "Login Attempt - Timeout connecting socket for login", true);
      return;
    case Outcome::kProtocolTimeout:
      TimedOut(agent, l.LoginSucceeded, "Login Attempt - Timeout executing protocol", true);
      agent.login_socket.Close();
      return;
    case Outcome::kProtocolDone:
      // `LoginSucceeded` is whatever the conversation left: an exchange that ended without touching it
      // keeps the previous login's value.
      if (l.LoginSucceeded) {
        LogMessage(agent,
                   "The Tyndrel Agent Client Successfully Logged in User (" + agent.settings.CurrentUser +
                       ") to Server (" + agent.settings.Server + ")",
                   "Information");
        l.LastLoginResult =
            "The Tyndrel Agent Client Successfully Logged in User (" + agent.settings.CurrentUser + ").";
      } else {
        const std::string text = "The Tyndrel Agent Client could not execute a login for (" +
                                 agent.settings.CurrentUser + ") to (" + agent.settings.Server + ":5003)";
        LogMessage(agent, text, "Error");
        l.LastLoginResult = text;
      }
      agent.login_socket.Close();
      return;
  }
}

void LogOffUser(Agent& agent) {
  LoginState& l = agent.WriteLogin();
  if (Contains(agent.settings.Server, ":")) {
    WebService_LogOffUser(agent);
    return;
  }
  l.LogoffSucceeded = false;

  const Outcome outcome = RunExchange(
      agent, "Logoff", "Contacting the TD Server for Logoff at (" + agent.settings.Server + ":5003)", nullptr);
  switch (outcome) {
    case Outcome::kEnded:
      return;
    case Outcome::kCloseTimeout:
      TimedOut(agent, l.LogoffSucceeded, "Logoff Attempt - Timeout closing socket prior to connection", true);
      return;
    case Outcome::kConnectTimeout:
      TimedOut(agent, l.LogoffSucceeded, "Logoff Attempt - Timeout connecting socket for logoff", true);
      return;
    case Outcome::kProtocolTimeout:
      TimedOut(agent, l.LogoffSucceeded, "Logoff Attempt - Timeout executing protocol", true);
      agent.login_socket.Close();
      return;
    case Outcome::kProtocolDone:
      if (l.LogoffSucceeded) {
        LogMessage(agent,
                   "The Tyndrel Agent Client Successfully Logged off User (" + agent.settings.CurrentUser +
                       ") to Server (" + agent.settings.Server + ")",
                   "Information");
        l.LastLoginResult =
            "The Tyndrel Agent Client Successfully Logged off User (" + agent.settings.CurrentUser + ").";
      } else {
        const std::string text = "The Tyndrel Agent Client could not execute a logoff for (" +
                                 agent.settings.CurrentUser + ") to (" + agent.settings.Server + ":5003)";
        LogMessage(agent, text, "Error");
        l.LastLoginResult = text;
      }
      agent.login_socket.Close();
      return;
  }
}

void LoginStatus(Agent& agent) {
  LoginState& l = agent.WriteLogin();
  if (Contains(agent.settings.Server, ":")) {
    WebService_LoginStatus(agent);
    return;
  }

  // The time-outs reuse the login wording on purpose, and leave `LastLoginResult` alone.
  const Outcome outcome = RunExchange(
      agent, "Status", "Contacting the TD Login Server for Status Report at (" + agent.settings.Server + ")", nullptr);
  switch (outcome) {
    case Outcome::kEnded:
      return;
    case Outcome::kCloseTimeout:
      TimedOut(agent, l.StatusSucceeded, "Login Attempt - Timeout closing socket prior to connection", false);
      return;
    case Outcome::kConnectTimeout:
      TimedOut(agent, l.StatusSucceeded, "Login Attempt - Timeout connecting socket for login", false);
      return;
    case Outcome::kProtocolTimeout:
      TimedOut(agent, l.StatusSucceeded, "Login Attempt - Timeout executing protocol", false);
      agent.login_socket.Close();
      return;
    case Outcome::kProtocolDone:
      // Whatever the server answered, a finished exchange counts as reported.
      l.StatusSucceeded = true;
      if (agent.temp_access_status != 0)
        LogMessage(agent,
                   "The Tyndrel Agent Client Successfully Updated Agent Status to (" +
                       std::to_string(agent.temp_access_status) + ") for User (" + agent.settings.CurrentUser +
                       "). However the user does not have proper permissions!",
                   "Warning");
      else
        agent.DoEvents();
      agent.login_socket.Close();
      return;
  }
}

void Broadcast_Error(Agent& agent, int number, const std::string& description) {
  // Logged only: no message box, and the waiting driver is not told.
  LogMessage(agent, "The Broadcast WinSock Control Received The Error, " + std::to_string(number) + ": " + description,
             "Error");
  agent.login_socket.Close();
}

}  // namespace tdacli
