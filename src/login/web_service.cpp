#include "login/web_service.h"

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "common/errors.h"
#include "common/files.h"
#include "common/local_host.h"
#include "common/logging.h"
#include "common/text.h"
#include "config/configuration.h"
#include "login/login_results.h"
#include "state/agent.h"

namespace tdacli {

namespace {

constexpr std::string_view kLoginService = "/TDLoginWebService/TDLoginWebService.asmx/";
constexpr std::string_view kFrameService = "/TDFrameReceiverWebService/TDFrameReceiverWebService.asmx/";
constexpr std::string_view kNoResponse = " - Received the following Response: NO RESPONSE or 404 PAGE NOT FOUND!";
constexpr int kInternetTries = 20;
constexpr double kInternetPauseSeconds = 30;

// Web answers may carry line breaks anywhere; none may reach a stored value (they would plant lines
// in the settings and result files).
std::string WithoutLineBreaks(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s)
    if (c != '\r' && c != '\n') out += c;
  return out;
}

// A response as one trace line: CR LF shown as the "{CRLF}" marker, and a lone CR or LF likewise, so
// that a web answer cannot start lines of its own in the trace.
std::string ForTrace(std::string_view response) {
  std::string t = ReplaceAll(response, "\r\n", "{CRLF}");
  t = ReplaceAll(t, "\r", "{CRLF}");
  return ReplaceAll(t, "\n", "{CRLF}");
}

struct Fetched {
  std::string body;  // empty when nothing came back
  bool not_found = false;
};

// One OpenURL(): the URL as built, except that a blank cannot stand in a request line and goes out as
// "%20". What went wrong with a failed fetch goes to the trace on a line of its own, so that an
// administrator can tell a certificate problem from a dead server; the caller sees an empty response.
Fetched OpenUrl(Agent& agent, std::string_view routine, const std::string& url) {
  const platform::HttpResponse r = agent.http().Get(ReplaceAll(url, " ", "%20"));
  Fetched f;
  if (!r.received) {
    LogMessage(agent, std::string(routine) + " - The request failed: " + r.error, "Trace");
    return f;
  }
  if (r.status != 200)
    LogMessage(agent, std::string(routine) + " - The web service answered with HTTP status " + std::to_string(r.status),
               "Trace");
  f.body = r.body;
  f.not_found = r.status == 404;
  return f;
}

bool NoResponse(const Fetched& f) { return f.body.empty() || f.not_found || Contains(f.body, "HTTP 404"); }

// The web-service routines' trap: their wording has a blank after "Routine:".
template <typename Fn>
void Trapped(Agent& agent, std::string_view routine, Fn&& fn) {
  TrapAndLog(agent, [routine](const TrappedError& e) { return DetectedErrorIn(routine, e, " "); },
             std::forward<Fn>(fn));
}

// The common part of the three login-service requests (steps 4 to 9 of the login): fetch, log, and
// decide. Returns the response when it holds "SUCCESS|"; empty otherwise (outcome already recorded).
struct Request {
  std::string_view routine;    // "WebService_LoginUser", ...
  std::string failure_text;    // logged as "Error" and put into `LastLoginResult` on "ERROR|"
};

bool Exchange(Agent& agent, const Request& req, const std::string& url, std::string& response) {
  LoginState& l = agent.WriteLogin();
  LogMessage(agent, std::string(req.routine) + " - Performing an OpenURL() on: " + url, "Trace");
  const Fetched f = OpenUrl(agent, req.routine, url);
  if (NoResponse(f)) {
    LogMessage(agent, std::string(req.routine) + std::string(kNoResponse), "Trace");
    l.LastLoginResult = "[ERROR]" + std::string(req.routine) + std::string(kNoResponse);
    return false;
  }
  response = f.body;
  LogMessage(agent, std::string(req.routine) + " - Received the following Response: " + ForTrace(response),
             "Trace");
  if (Contains(response, "ERROR|")) {
    LogMessage(agent, req.failure_text, "Error");
    l.LastLoginResult = req.failure_text;
    return false;
  }
  return Contains(response, "SUCCESS|");
}

std::string Query(const std::string& name, const std::string& value) { return name + "=" + value; }

// Step 9 of the login: every field holding a key of the table sets what the key names.
using Apply = void (*)(Agent& agent, const std::string& value);
struct ReplyKey {
  std::string_view key;
  Apply apply;
};

const std::array<ReplyKey, 11>& ReplyKeys() {
  static const std::array<ReplyKey, 11> keys = {{
      {"SERVERTEMP=", [](Agent& a, const std::string& v) { a.settings.SvrTemp = ReplaceAll(v, "_", "|"); }},
      {"LOCALTEMP=", [](Agent& a, const std::string& v) { a.settings.LocalTemp = ExpandLocalTemp(a, v); }},
      // Taken by the service's reply and kept for nothing: accepted, no effect.
      {"RECORDINGMETHOD=", [](Agent&, const std::string&) {}},
      {"CAPTUREINFO=", [](Agent&, const std::string&) {}},
      {"USETRACE=", [](Agent& a, const std::string& v) { a.settings.UseTrace = v; }},
      {"WEBCAM=", [](Agent& a, const std::string& v) { a.WriteLogin().UseWebCam = ToBoolean(v); }},
      {"SCREEN100=", [](Agent& a, const std::string& v) { a.WriteLogin().HundredScreensParam = ReplaceAll(v, "_", "|"); }},
      {"PHONEHOME=",
       [](Agent& a, const std::string& v) {
         a.WriteLogin().PhoneHome = ToBoolean(v);
         if (a.WriteLogin().PhoneHome) a.WriteLogin().NextPhoneHomeMs = a.clock().NowMs();
       }},
      {"IPMASK=", [](Agent& a, const std::string& v) { a.WriteLogin().ValidIPMask = v; }},
      {"KEKINFO=", [](Agent& a, const std::string& v) { a.WriteLogin().KekInfo = v; }},
      {"TDLIVEID=", [](Agent& a, const std::string& v) { StoreLiveIdFields(a, v); }},
  }};
  return keys;
}

}  // namespace

bool ToBoolean(std::string_view text) {
  const std::string t = Lower(TrimBlanks(text));
  if (t == "true") return true;
  if (t == "false") return false;
  if (!t.empty() && t.size() < 64) {
    char* end = nullptr;
    const double d = std::strtod(t.c_str(), &end);
    if (end == t.c_str() + t.size()) return d != 0;
  }
  throw NumberedError(13, "Type mismatch");
}

WebServer ParseWebServer(std::string_view server) {
  WebServer w;
  const size_t colon = server.find(':');
  if (colon == std::string_view::npos) {
    w.host = std::string(server);
    return w;
  }
  w.host = std::string(server.substr(0, colon));
  std::string rest = Lower(server.substr(colon + 1));
  w.https = Contains(rest, "https");
  rest = ReplaceAll(ReplaceAll(rest, "https", ""), "http", "");
  // "host:https:8443" and "host:8443:https" name the port 8443: the ":" that stood beside the scheme
  // word goes with it.
  while (!rest.empty() && rest.front() == ':') rest.erase(0, 1);
  while (!rest.empty() && rest.back() == ':') rest.pop_back();
  if (!rest.empty()) w.host += ":" + rest;
  return w;
}

void ApplyLoginReplyFields(Agent& agent, std::string_view fields) {
  std::vector<std::string> field;
  const int n = SplitString(ReplaceAll(fields, "</string>", ""), "|", field);
  for (int i = 1; i <= n; ++i) {
    const std::string f = WithoutLineBreaks(field[static_cast<size_t>(i)]);
    for (const ReplyKey& k : ReplyKeys()) {
      const size_t at = f.find(k.key);
      if (at != std::string::npos) k.apply(agent, f.substr(at + k.key.size()));
    }
  }
}

void WebService_LoginUser(Agent& agent) {
  constexpr std::string_view routine = "WebService_LoginUser";
  Trapped(agent, routine, [&] {
    LoginState& l = agent.WriteLogin();
    Settings& s = agent.settings;
    for (int attempt = 0;;) {
      LogMessage(agent, "Testing Internet Connection ...", "Trace");
      std::string kind;
      if (agent.internet().Connected(kind)) {
        LogMessage(agent, "Internet Connection Successful via [" + kind + "]", "Trace");
        break;
      }
      if (++attempt > kInternetTries) {
        LogMessage(agent, "Could not connect to the internet after max-tries, abort!", "Trace");
        LogMessage(agent,
                   "The Tyndrel Agent Client could not execute a login for (" + s.CurrentUser + ") to (" + s.Server + ")",
                   "Error");
        return;
      }
      LogMessage(agent,
                 "No Internet Connection, Pausing [30] Seconds and Trying Again, Attempt [" + std::to_string(attempt) +
                     " of 20]",
                 "Trace");
      agent.WaitSeconds(kInternetPauseSeconds);
      if (agent.Ended()) return;
    }

    l.HundredScreensParam.clear();
    const std::string param_file = agent.AppPath("100ScreenParam.TXT");
    DeleteFile(agent, param_file);
    if (FileExists(param_file)) LogMessage(agent, "Error Removing File (" + param_file + ")!", "Error");
    l.UseWebCam = false;

    if (agent.local_ip.empty()) DetermineLocalIP(agent);
    if (s.CurrentUser.empty()) LoadConfiguration(agent);

    const WebServer server = ParseWebServer(s.Server);
    const std::string url = server.Base() + std::string(kLoginService) + "LoginMethod?" +
                            Query("WinName", s.CurrentUser) + "&" + Query("LocalIP", agent.local_ip) + "&" +
                            Query("Extension", s.Ext);
    l.LoginSucceeded = false;
    std::string response;
    const Request req{routine, "The Tyndrel Agent Client could not execute a login for (" + s.CurrentUser + ") to (" +
                                   s.Server + ")"};
    if (!Exchange(agent, req, url, response)) return;

    l.LoginSucceeded = true;
    ApplyLoginReplyFields(agent, Mid(response, response.find("SUCCESS|") + 1 + 8));
    StoreLoginResults(agent);
    const std::string text =
        "The Tyndrel Agent Client Successfully Logged in User (" + s.CurrentUser + ") to Server (" + s.Server + ")";
    LogMessage(agent, text, "Information");
    // The result text repeats the log line and closes it once more.
    l.LastLoginResult = text + ").";
  });
}

void WebService_LogOffUser(Agent& agent) {
  constexpr std::string_view routine = "WebService_LogOffUser";
  Trapped(agent, routine, [&] {
    LoginState& l = agent.WriteLogin();
    const Settings& s = agent.settings;
    const WebServer server = ParseWebServer(s.Server);
    const std::string url = server.Base() + std::string(kLoginService) + "LogOffMethod?" +
                            Query("WinName", s.CurrentUser) + "&" + Query("LocalIP", agent.local_ip);
    l.LogoffSucceeded = false;
    std::string response;
    const Request req{routine, "The Tyndrel Agent Client could not execute a logoff for (" + s.CurrentUser + ") to (" +
                                   s.Server + ")"};
    if (!Exchange(agent, req, url, response)) return;
    l.LogoffSucceeded = true;
    LogMessage(agent,
               "The Tyndrel Agent Client Successfully Logged off User (" + s.CurrentUser + ") to Server (" + s.Server + ")",
               "Information");
  });
}

void WebService_LoginStatus(Agent& agent) {
  constexpr std::string_view routine = "WebService_LoginStatus";
  Trapped(agent, routine, [&] {
    LoginState& l = agent.WriteLogin();
    const Settings& s = agent.settings;
    const std::string status = std::to_string(agent.temp_access_status);
    const WebServer server = ParseWebServer(s.Server);
    const std::string url = server.Base() + std::string(kLoginService) + "StatusMethod?" +
                            Query("WinName", s.CurrentUser) + "&" + Query("Status", status);
    l.StatusSucceeded = false;
    std::string response;
    const Request req{routine, "The Tyndrel Agent Client could not execute a status update for (" + s.CurrentUser +
                                   ") to (" + s.Server + ")"};
    if (!Exchange(agent, req, url, response)) return;
    l.StatusSucceeded = true;
    if (agent.temp_access_status != 0)
      LogMessage(agent,
                 "The Tyndrel Agent Client Successfully Updated Agent Status to (" + status + ") for User (" +
                     s.CurrentUser + "). However the user does not have proper permissions!",
                 "Warning");
    else
      LogMessage(agent,
                 "The Tyndrel Agent Client Successfully Updated Agent Status to (0) for User (" + s.CurrentUser + ").",
                 "Trace");
  });
}

PhoneHomeOutcome HandlePhoneHomeReply(Agent& agent, const std::string& url, const std::string& response) {
  constexpr std::string_view routine = "WebService_PhoneHomeForScreenGrabberTasks";
  PhoneHomeOutcome got;
  if (response.empty() || Contains(response, "HTTP 404")) {
    LogMessage(agent, std::string(routine) + std::string(kNoResponse), "Trace");
    return got;
  }
  if (Contains(response, "ERROR|")) {
    LogMessage(agent, std::string(routine) + " - Performing an OpenURL() on: " + url, "Trace");
    LogMessage(agent, "The Tyndrel Agent Client could not get screen grabber tasks", "Error");
    return got;
  }
  if (Contains(response, "SUCCESS|NONE")) return got;
  got.task_received = true;
  constexpr std::string_view keyword = "|SENDFRAMES|";
  const size_t at = response.find(keyword);
  if (at != std::string::npos) {
    std::string task = response.substr(at + keyword.size());
    task = ReplaceAll(ReplaceAll(task, "{CRLF}", ""), "</string>", "");
    // The task becomes one line of a file the frame sender reads.
    got.send_frames = WithoutLineBreaks(task);
  }
  return got;
}

void AcknowledgeGrabberTask(Agent& agent) {
  LogMessage(agent, "The Tyndrel Agent Client Received a Screen Grabber Task", "Trace");
  agent.DoEvents();
}

void ScheduleNextPhoneHome(Agent& agent) { agent.WriteLogin().NextPhoneHomeMs = agent.clock().NowMs() + 30'000; }

PhoneHomeOutcome WebService_PhoneHomeForScreenGrabberTasks(Agent& agent) {
  constexpr std::string_view routine = "WebService_PhoneHomeForScreenGrabberTasks";
  PhoneHomeOutcome got;
  Trapped(agent, routine, [&] {
    const WebServer server = ParseWebServer(agent.settings.Server);
    const std::string url =
        server.Base() + std::string(kFrameService) + "GrabberMethod?" + Query("Machine", agent.computer_names[3]);
    LogMessage(agent, std::string(routine) + " - Performing an OpenURL() on: " + url, "Trace");
    const Fetched f = OpenUrl(agent, routine, url);
    // A 404 status counts as not found whatever body came with it.
    const std::string response = f.not_found ? std::string() : f.body;
    LogMessage(agent, std::string(routine) + " - Received: " + ForTrace(f.body), "Trace");
    got = HandlePhoneHomeReply(agent, url, response);
  });
  return got;
}

}  // namespace tdacli
