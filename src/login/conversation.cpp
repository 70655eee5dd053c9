#include "login/conversation.h"

#include <array>
#include <vector>

#include "common/errors.h"
#include "common/files.h"
#include "common/local_host.h"
#include "common/logging.h"
#include "common/text.h"
#include "config/configuration.h"
#include "config/result_files.h"
#include "state/agent.h"


namespace tdacli {

namespace {

constexpr std::string_view kGreeting = "TD Agent Connect OK";
constexpr std::string_view kDisconnect = "TD Agent Disconnect OK";
constexpr std::string_view kNoMatchingWinName = "NoMatchingWinName";

using Match = bool (*)(const Agent& agent, std::string_view data);
using Action = void (*)(Agent& agent, const std::string& data, const RequestSink& send, LoginOutcome& learned);

struct ReplyRule {
  std::string_view label;
  Match matches;
  Action act;
};

bool Kind(const Agent& agent, std::string_view kind) { return agent.login().LoginRequestKind == kind; }

}  // namespace

namespace {

void UpdateListeningPorts(Agent& agent, const std::string& data, LoginOutcome& learned) {
  std::string& ports = agent.settings.ListeningPorts;
  const std::string old = ports;
  ports = Mid(data, 12);
  const std::string now = ports;  // the save reloads the settings; log the value received
  LogMessage(agent, "Login Server Sent Listening Ports (" + now + ")", "Trace");
  if (now == old) {
    LogMessage(agent, "Listening Ports did not change from original value of (" + now + ")", "Trace");
    return;
  }
  // Saved here; the listener's move and the notice to the siblings are the top's, which then reports.
  if (SaveListeningPorts(agent))
    learned.saved_listening_ports = now;
  else
    ReportListeningPortsUpdate(agent, now, false);
}

void EndOfLogin(Agent& agent, const std::string& data, const RequestSink& send, LoginOutcome& learned) {
  LoginState& l = agent.WriteLogin();
  Settings& s = agent.settings;
  // Asked as "USETRACE", answered as "AGENTTRACE": the value may carry "webcam" and the web-cam flag.
  const std::string value = Mid(data, 11);
  const std::string lower = Lower(value);
  LogMessage(agent, "Login Server Sent UseTrace of (" + value + "), Sending Disconnect Signal", "Trace");
  l.UseWebCam = false;
  s.UseTrace = "False";
  const size_t p = lower.find("webcam");
  if (p != std::string::npos) {
    s.UseTrace = value.substr(0, p);
    l.UseWebCam = Contains(lower, "webcamtrue");
  } else {
    s.UseTrace = value;
  }
  l.ProtocolDone = true;
  l.LoginSucceeded = true;
  send(kDisconnect);

  StoreLoginResults(agent);
  learned.logged_in = true;
}

// The rules in the order they are tested; the first that matches handles the reply. Rules 1 and 3 are
// split by `LoginRequestKind` only: every kind but "Logoff" answers the greeting with the user name,
// and every kind but "Login" answers "ID OK" with the status.
const std::array<ReplyRule, 18>& Rules() {
  static const std::array<ReplyRule, 18> rules = {{
      {"1",
       [](const Agent& a, std::string_view d) { return d == kGreeting && !Kind(a, "Logoff"); },
       [](Agent& a, const std::string&, const RequestSink& send, LoginOutcome&) {
         LogMessage(a, "Connected To Login Server OK, Sending UserName (" + a.settings.CurrentUser + ")", "Trace");
         send("ID" + a.settings.CurrentUser);
       }},
      {"1'",
       [](const Agent& a, std::string_view d) { return d == kGreeting && Kind(a, "Logoff"); },
       [](Agent& a, const std::string&, const RequestSink& send, LoginOutcome&) {
         // The address goes out as it stands when the greeting arrives, even empty.
         const std::string request = "Logoff" + a.settings.CurrentUser + ":" + a.local_ip;
         LogMessage(a, "Connected To TD Server OK, Sending Logoff of UserName (" + a.settings.CurrentUser + ")",
                    "Trace");
         send(request);
       }},
      {"2", [](const Agent&, std::string_view d) { return d == "LOGOFF=OKAY"; },
       [](Agent& a, const std::string&, const RequestSink& send, LoginOutcome&) {
         LogMessage(a, "TD Server Sent 'Logoff = Okay', Sending Disconnect Signal", "Trace");
         a.WriteLogin().ProtocolDone = true;
         a.WriteLogin().LogoffSucceeded = true;
         send(kDisconnect);
       }},
      {"3", [](const Agent& a, std::string_view d) { return d == "ID OK" && !Kind(a, "Login"); },
       [](Agent& a, const std::string&, const RequestSink& send, LoginOutcome&) {
         const std::string status = std::to_string(a.temp_access_status);
         LogMessage(a, "Login Server Received UserName OK, Sending STATUS (" + status + ")", "Trace");
         send("STATUS" + status);
       }},
      {"3'", [](const Agent& a, std::string_view d) { return d == "ID OK" && Kind(a, "Login"); },
       [](Agent& a, const std::string&, const RequestSink& send, LoginOutcome&) {
         if (a.local_ip.empty()) DetermineLocalIP(a);
         LogMessage(a, "Login Server Received UserName OK, Sending IP (" + a.local_ip + ")", "Trace");
         send("IP" + a.local_ip);
       }},
      {"4", [](const Agent&, std::string_view d) { return d == "IP Addr OK"; },
       [](Agent& a, const std::string&, const RequestSink& send, LoginOutcome&) {
         LogMessage(a, "Login Server Received IP OK, Sending Extension (" + a.settings.Ext + ")", "Trace");
         send("EX" + a.settings.Ext);
       }},
      {"5", [](const Agent&, std::string_view d) { return d == "EXT OK"; },
       [](Agent& a, const std::string&, const RequestSink& send, LoginOutcome&) {
         LogMessage(a, "Login Server Received Extension OK, Sending Request for TD Live ID", "Trace");
         send("TDLIVEID");
       }},
      {"6", [](const Agent&, std::string_view d) { return StartsWith(d, "TDLIVEID"); },
       [](Agent& a, const std::string& d, const RequestSink& send, LoginOutcome&) {
         // The 9th character separates keyword and fields; it is skipped.
         StoreLiveIdFields(a, Mid(d, 10));
         LogMessage(a, "Login Server Sent TD Live ID (" + d + "), Sending Request for Server Temp Folder", "Trace");
         send("SERVERTEMP");
       }},
      // Pushed by the server at any time; nothing is answered.
      {"7", [](const Agent&, std::string_view d) { return StartsWith(d, "100SCREEN"); },
       [](Agent& a, const std::string& d, const RequestSink&, LoginOutcome&) {
         a.WriteLogin().HundredScreensParam = Mid(d, 10);
         LogMessage(a, "Login Server Sent 100% Screens Param of (" + a.WriteLogin().HundredScreensParam + ")!", "Trace");
         a.DoEvents();
       }},
      {"8",
       [](const Agent&, std::string_view d) { return StartsWith(d, "SERVERTEMP") && Mid(d, 11) != kNoMatchingWinName; },
       [](Agent& a, const std::string& d, const RequestSink& send, LoginOutcome&) {
         a.settings.SvrTemp = Mid(d, 11);
         LogMessage(a, "Login Server Sent Server Temp Folder (" + a.settings.SvrTemp +
                           "), Sending Request for Local Temp Folder",
                    "Trace");
         send("LOCALTEMP");
       }},
      {"8'",
       [](const Agent&, std::string_view d) { return StartsWith(d, "SERVERTEMP") && Mid(d, 11) == kNoMatchingWinName; },
       [](Agent& a, const std::string& d, const RequestSink& send, LoginOutcome&) {
         a.settings.SvrTemp = Mid(d, 11);
         const std::string text =
             "The windows login name of (" + a.settings.CurrentUser + ") does not exist in the TD Agent Database!";
         LogMessage(a, text, "Error");
         a.WriteLogin().LastLoginResult = "[ERROR]" + text;
         a.WriteLogin().LoginSucceeded = false;
         a.WriteLogin().ProtocolDone = true;
         send(kDisconnect);
       }},
      // A bare "LISTENPORTS" is taken here and ignored, so it never counts as unexpected data.
      {"9", [](const Agent&, std::string_view d) { return StartsWith(d, "LISTENPORTS"); },
       [](Agent& a, const std::string& d, const RequestSink&, LoginOutcome& learned) {
         if (d.size() >= 12) UpdateListeningPorts(a, d, learned);
       }},
      {"10", [](const Agent&, std::string_view d) { return StartsWith(d, "LOCALTEMP"); },
       [](Agent& a, const std::string& d, const RequestSink& send, LoginOutcome&) {
         a.settings.LocalTemp = ExpandLocalTemp(a, Mid(d, 10));
         LogMessage(a, "Login Server Sent Local Temp Folder (" + a.settings.LocalTemp + "), Sending Request for KekInfo",
                    "Trace");
         send("KEKINFO");
       }},
      {"11", [](const Agent&, std::string_view d) { return StartsWith(d, "KEKINFO"); },
       [](Agent& a, const std::string& d, const RequestSink& send, LoginOutcome&) {
         a.WriteLogin().KekInfo = Mid(d, 8);
         LogMessage(a, "Login Server Sent KekInfo (" + a.WriteLogin().KekInfo + "), Sending Request for ValidIPMask", "Trace");
         send("VALIDIPMASK");
       }},
      {"12", [](const Agent&, std::string_view d) { return StartsWith(d, "VALIDIPMASK"); },
       [](Agent& a, const std::string& d, const RequestSink& send, LoginOutcome&) {
         a.WriteLogin().ValidIPMask = Mid(d, 12);
         LogMessage(a, "Login Server Sent Valid IP Mask (" + a.WriteLogin().ValidIPMask + "), Sending Request for UseTrace",
                    "Trace");
         send("USETRACE");
       }},
      {"13", [](const Agent&, std::string_view d) { return StartsWith(d, "AGENTTRACE"); }, EndOfLogin},
      {"14", [](const Agent&, std::string_view d) { return d == "STATUS OK"; },
       [](Agent& a, const std::string&, const RequestSink& send, LoginOutcome&) {
         LogMessage(a, "Login Server Received Status Ok, Sending Disconnect Signal", "Trace");
         a.WriteLogin().ProtocolDone = true;
         send(kDisconnect);
       }},
      {"15", [](const Agent&, std::string_view) { return true; },
       [](Agent& a, const std::string& d, const RequestSink&, LoginOutcome&) {
         LogMessage(a, "Received Unexpected Data During Protocol: " + d, "Error");
         a.WriteLogin().ProtocolDone = true;
       }},
  }};
  return rules;
}

const ReplyRule& RuleFor(const Agent& agent, std::string_view data) {
  for (const ReplyRule& rule : Rules())
    if (rule.matches(agent, data)) return rule;
  return Rules().back();
}

// The data-arrival trap: any error is logged in the handler's own wording and ends the exchange.
template <typename Fn>
void WithTrap(Agent& agent, Fn&& fn) {
  const auto text = [](const TrappedError& e) {
    return "Error Detected in Broadcast_DataArrival() Routine, " + std::to_string(e.number) + ": " + e.description;
  };
  if (!TrapAndLog(agent, text, std::forward<Fn>(fn))) agent.WriteLogin().ProtocolDone = true;
}

}  // namespace

std::string_view ReplyRuleFor(const Agent& agent, std::string_view data) { return RuleFor(agent, data).label; }

LoginOutcome DispatchReply(Agent& agent, const std::string& data, const RequestSink& send) {
  LoginOutcome learned;
  RuleFor(agent, data).act(agent, data, send, learned);
  return learned;
}

LoginOutcome HandleReply(Agent& agent, const std::string& data, const RequestSink& send) {
  LoginOutcome learned;
  WithTrap(agent, [&] { RuleFor(agent, data).act(agent, data, send, learned); });
  return learned;
}

void ReportListeningPortsUpdate(Agent& agent, const std::string& ports, bool updated) {
  // "Registry" is what the suite has always called the configuration file.
  if (updated)
    LogMessage(agent, "Updated Registry with new Listening Ports (" + ports + ")", "Trace");
  else
    LogMessage(agent, "Error Updating Registry with new Listening Ports (" + ports + ")", "Error");
}

LoginOutcome Broadcast_DataArrival(Agent& agent, size_t /*bytes*/) {
  LoginOutcome learned;
  WithTrap(agent, [&] {
    auto& socket = agent.login_socket;
    auto connected = [&socket] { return socket.State() == platform::TcpSocket::kConnected; };
    if (!connected()) agent.WaitUntil(30, connected);
    if (agent.Ended()) return;
    if (!connected()) {
      LogMessage(agent, "Socket received data but was not connected", "Error");
      return;
    }
    const std::string data = socket.GetData();
    RuleFor(agent, data).act(agent, data, [&socket](std::string_view request) {
      if (platform::SocketError error = socket.SendData(request)) throw SendFault(error.number, error.description);
    }, learned);
  });
  return learned;
}

}  // namespace tdacli
