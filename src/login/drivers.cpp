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

// What sets the three drivers apart once their exchange has ended.
struct DriverKind {
  bool LoginState::*succeeded;  // `LoginSucceeded`, `LogoffSucceeded` or `StatusSucceeded`
  const char* close_timeout;
  const char* connect_timeout;
  const char* protocol_timeout;
  bool timeouts_set_result;     // the status report leaves `LastLoginResult` alone
  void (*done)(Agent& agent);   // the exchange ran to its end
};

// The login's and the logoff's end: the flag the conversation left decides.
void ReportLoginOrLogoff(Agent& agent, bool succeeded, const char* logged, const char* request) {
  const Settings& s = agent.settings;
  LoginState& l = agent.WriteLogin();
  if (succeeded) {
    LogMessage(agent,
               std::string("The Tyndrel Agent Client Successfully Logged ") + logged + " User (" + s.CurrentUser +
                   ") to Server (" + s.Server + ")",
               "Information");
    l.LastLoginResult = std::string("The Tyndrel Agent Client Successfully Logged ") + logged + " User (" +
                        s.CurrentUser + ").";
  } else {
    const std::string text = std::string("The Tyndrel Agent Client could not execute a ") + request + " for (" +
                             s.CurrentUser + ") to (" + s.Server + ":5003)";
    LogMessage(agent, text, "Error");
    l.LastLoginResult = text;
  }
}

const DriverKind kLogin{
    &LoginState::LoginSucceeded, "Login Attempt - Timeout closing socket prior to connection",
    "Login Attempt - Timeout connecting socket for login", "Login Attempt - Timeout executing protocol", true,
    // `LoginSucceeded` is whatever the conversation left: an exchange that ended without touching it
    // keeps the previous login's value.
    [](Agent& agent) { ReportLoginOrLogoff(agent, agent.login().LoginSucceeded, "in", "login"); }};

const DriverKind kLogoff{
    &LoginState::LogoffSucceeded, "Logoff Attempt - Timeout closing socket prior to connection",
    "Logoff Attempt - Timeout connecting socket for logoff", "Logoff Attempt - Timeout executing protocol", true,
    [](Agent& agent) { ReportLoginOrLogoff(agent, agent.login().LogoffSucceeded, "off", "logoff"); }};

// The time-outs reuse the login wording on purpose, and leave `LastLoginResult` alone.
const DriverKind kStatus{
    &LoginState::StatusSucceeded, "Login Attempt - Timeout closing socket prior to connection",
    "Login Attempt - Timeout connecting socket for login", "Login Attempt - Timeout executing protocol", false,
    [](Agent& agent) {
      // Whatever the server answered, a finished exchange counts as reported.
      agent.WriteLogin().StatusSucceeded = true;
      if (agent.temp_access_status != 0)
        LogMessage(agent,
                   "The Tyndrel Agent Client Successfully Updated Agent Status to (" +
                       std::to_string(agent.temp_access_status) + ") for User (" + agent.settings.CurrentUser +
                       "). However the user does not have proper permissions!",
                   "Warning");
      else
        agent.DoEvents();
    }};

void TimedOut(Agent& agent, const DriverKind& kind, const char* text) {
  agent.WriteLogin().*kind.succeeded = false;
  LogMessage(agent, text, "Error");
  if (kind.timeouts_set_result) agent.WriteLogin().LastLoginResult = "[ERROR]" + std::string(text);
}

// The end of an exchange, the same for the three drivers but for their texts and flags.
void Finish(Agent& agent, const DriverKind& kind, Outcome outcome) {
  switch (outcome) {
    case Outcome::kEnded:
      return;
    case Outcome::kCloseTimeout:
      TimedOut(agent, kind, kind.close_timeout);  // the socket is not closed again
      return;
    case Outcome::kConnectTimeout:
      TimedOut(agent, kind, kind.connect_timeout);  // the socket is left as it is
      return;
    case Outcome::kProtocolTimeout:
      TimedOut(agent, kind, kind.protocol_timeout);
      agent.login_socket.Close();
      return;
    case Outcome::kProtocolDone:
      kind.done(agent);
      agent.login_socket.Close();
      return;
  }
}

}  // namespace

void LoginUser(Agent& agent) {
  const std::string live_id = agent.AppPath("TDLiveID.INI");
  if (FileExists(live_id)) {
    DeleteFile(agent, live_id);
    LogMessage(agent, "Deleted [TDLiveID.INI] file before Login!", "Trace");
  }
  if (Contains(agent.settings.Server, ":")) {
    WebService_LoginUser(agent);
    return;
  }
  Finish(agent, kLogin,
         RunExchange(agent, "Login", "Contacting the TD Login Server for Login at (" + agent.settings.Server + ":5003)",
                     [&agent] {
                       LoginState& l = agent.WriteLogin();
                       l.HundredScreensParam.clear();
                       const std::string param_file = agent.AppPath("100ScreenParam.TXT");
                       DeleteFile(agent, param_file);
                       if (FileExists(param_file))
                         LogMessage(agent, "Error Removing File (" + param_file + ")!", "Error");
                       l.UseWebCam = false;
                     }));
}

void LogOffUser(Agent& agent) {
  if (Contains(agent.settings.Server, ":")) {
    WebService_LogOffUser(agent);
    return;
  }
  agent.WriteLogin().LogoffSucceeded = false;
  Finish(agent, kLogoff,
         RunExchange(agent, "Logoff", "Contacting the TD Server for Logoff at (" + agent.settings.Server + ":5003)",
                     nullptr));
}

void LoginStatus(Agent& agent) {
  if (Contains(agent.settings.Server, ":")) {
    WebService_LoginStatus(agent);
    return;
  }
  Finish(agent, kStatus,
         RunExchange(agent, "Status",
                     "Contacting the TD Login Server for Status Report at (" + agent.settings.Server + ")", nullptr));
}

void Broadcast_Error(Agent& agent, int number, const std::string& description) {
  // Logged only: no message box, and the waiting driver is not told.
  LogMessage(agent, "The Broadcast WinSock Control Received The Error, " + std::to_string(number) + ": " + description,
             "Error");
  agent.login_socket.Close();
}

}  // namespace tdacli
