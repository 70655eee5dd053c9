#include "triggers/capture_files.h"

#include "common/files.h"
#include "common/logging.h"
#include "common/paths.h"
#include "common/text.h"
#include "login/login_results.h"
#include "state/agent.h"

namespace tdacli {

namespace {

// A job name comes from the network. Characters that no file name may hold (a path separator of
// either system, a drive's ":", NUL and other control characters) would write somewhere else than the
// one job file: the write fails instead. Dots are harmless inside "SendFrames-<job>.TSF" (no ".."
// component can form behind the prefix), and an empty job gives "SendFrames-.TSF".
bool IsPlainFileName(const std::string& name) {
  return !HasControlCharacter(name) && name.find_first_of("<>:\"/\\|?*") == std::string::npos;
}

void WriteSendFramesFile(Agent& agent, const std::string& received, const std::string& job) {
  const std::string path = agent.AppPath("SendFrames-" + job + ".TSF");
  // The job file is one line that the sending sibling reads: a line break inside the request (it comes
  // from the network) would plant lines of its own, so the request is cut at it.
  std::string request = received;
  CutAtLineBreak(agent, request, "SendFrames");
  if (!IsPlainFileName(job)) {
    LogMessage(agent, "Error saving 'Send Frames' info to file (" + path + ") - 52, Bad file name or number",
               "Error");
    return;
  }
  TrappedError error;
  if (!SaveWholeFile(agent, path, request + "\r\n", {}, error)) {
    LogMessage(agent,
               "Error saving 'Send Frames' info to file (" + path + ") - " + std::to_string(error.number) + ", " +
                   error.description,
               "Error");
    return;
  }
  LogMessage(agent, "Made 'Send Frames' File (" + path + ") with values (" + request + ")", "Trace");
}

}  // namespace

void Make100ScreensParamFile(Agent& agent) {
  CutReceivedValues(agent, {{&LoginState::KekInfo, "KekInfo"}, {&LoginState::HundredScreensParam, "HundredScreensParam"}});
  const std::string& kek = agent.login().KekInfo;
  TrappedError error;
  auto fail = [&](const std::string& path) {
    LogMessage(agent,
               "Error save 100% Screen Capture Params to file (" + path + ") - " + std::to_string(error.number) +
                   ", " + error.description,
               "Error");
  };
  std::string path = agent.AppPath("100Screen.KEK");
  if (kek != "N/A" && !kek.empty()) {
    if (!SaveWholeFile(agent, path, kek + "\r\n", {}, error)) return fail(path);
    LogMessage(agent, "Made 100% Screen KEK   File (" + path + ") with values (" + kek + ")", "Trace");
  }
  path = agent.AppPath("100ScreenParam.TXT");
  const std::string& line = agent.login().HundredScreensParam;
  if (!SaveWholeFile(agent, path, line + "\r\n", {}, error)) return fail(path);
  LogMessage(agent, "Made 100% Screen Param File (" + path + ") with values (" + line + ")", "Trace");
}

void HandleWebCamTrigger(Agent& agent) {
  const std::string path = agent.AppPath("UseWebCam.TXT");
  if (agent.login().UseWebCam) {
    LogMessage(agent, "WebCam Enabled, Making Trigger File (" + path + ")", "Trace");
    TrappedError error;
    if (!FileExists(path) && !SaveWholeFile(agent, path, "WEBCAM=True\r\n", {}, error))
      LogMessage(agent, "Error in HandleWebCamTrigger() Routine: [FilNam=" + path + "], [Error=" + error.description + "]",
                 "Error");
  } else {
    LogMessage(agent, "WebCam Disabled, Deleting Trigger File (" + path + ")", "Trace");
    if (FileExists(path)) DeleteFile(agent, path);
  }
}

void ParseScreenParamLine(const std::string& line, ScreenParams& p) {
  p = ScreenParams{};
  p.line = line;
  if (line == "NOTSET") return;
  // Each field is read only when the line is long enough; a field that is not a number ends parsing.
  if (line.size() >= 7) {
    auto v = ToInt16(Mid(line, 5).substr(0, 3));
    if (!v) return;
    p.first_number = *v;
  }
  if (line.size() >= 16) {
    const std::string field = line.substr(8, 8);
    if (field[6] == ':') {
      // The digit is read first: a field whose digit is not a number ends the parsing before the
      // schedule is touched, so that no cleanup runs with the default age on a malformed line.
      auto digit = ToInt16(field.substr(7, 1));
      if (!digit) return;
      const std::string head = field.substr(0, 6);
      p.schedule = head == "AT-LOG" ? "AT-LOGIN" : head == "ATLOGO" ? "ATLOGOUT" : field.substr(0, 5);
      p.max_age_days = *digit;
    } else {
      p.schedule = field;
    }
  }
  if (line.size() >= 20) {
    auto v = ToInt16(line.substr(17, 3));
    if (!v) return;
    p.second_number = *v;
  }
  if (line.size() >= 24) {
    auto v = ToInt16(line.substr(21, 3));
    if (!v) return;
    p.third_number = *v;
  }
}

void LoadScreenParams(Agent& agent) {
  agent.WriteScreen() = ScreenParams{};
  // The folder already ends in a separator; the doubled one is harmless and kept.
  std::vector<std::string> lines;
  if (!ReadLines(agent.app_folder + kSepStr + "100ScreenParam.TXT", lines)) return;
  std::string line = "NOTSET";
  for (const auto& l : lines) {
    line = l;
    if (!l.empty()) break;
  }
  ParseScreenParamLine(line, agent.WriteScreen());
}

std::string SendFramesJobName(const std::string& request) {
  std::string copy = request;
  if (copy.size() >= 12 && StartsWith(copy, "|SENDFRAMES|")) copy = copy.substr(12);
  std::vector<std::string> parts;
  if (SplitString(copy, "@", parts) >= 3) return parts[3];
  return "";
}

void SendFrames(Agent& agent, const std::string& request) {
  std::string job = SendFramesJobName(request);
  if (job.empty()) job = FormatCompact(agent.Now());
  WriteSendFramesFile(agent, request, job);
}

void SendFramesForGrabberTask(Agent& agent, const std::string& request) {
  std::string job = SendFramesJobName(request);
  if (job.empty()) job = FormatCompact(agent.Now());
  auto bar = job.find('|');
  if (bar != std::string::npos) job = job.substr(0, bar);
  WriteSendFramesFile(agent, request, job);
}

}  // namespace tdacli
