#include "common/logging.h"

#include <filesystem>
#include <fstream>

#include "common/files.h"
#include "common/host_identity.h"
#include "common/text.h"
#include "service/agent.h"

namespace tdacli {

namespace {

std::string IpPart(Agent& agent) {
  if (agent.local_ip.empty()) DetermineLocalIP(agent);
  return ReplaceAll(agent.local_ip, ".", "-");
}

// Appends one line; a file that grows past the limit is restarted with a notice and the line.
// Failures are swallowed: the line is lost.
void AppendWithLimit(const std::string& path, const std::string& block, const std::string& last_line) {
  long long size = -1;
  {
    std::ofstream f(std::filesystem::u8path(path), std::ios::binary | std::ios::app);
    if (!f) return;
    f.write(block.data(), static_cast<std::streamsize>(block.size()));
    // Flushed first: with the Windows C runtime an appending stream only learns that it writes at the
    // end of the file when the data goes out, so before that its position counts from 0.
    if (!f.flush()) return;
    size = static_cast<long long>(f.tellp());
  }
  if (size > kLogSizeLimit) {
    std::ofstream f(std::filesystem::u8path(path), std::ios::binary | std::ios::trunc);
    if (!f) return;
    f << "Log Initialized, It Was Greater than 5 MEG!\r\n" << last_line;
  }
}

}  // namespace

std::string BoundLogMessage(std::string_view message) {
  if (message.size() <= kMaxLogMessage) return std::string(message);
  return std::string(message.substr(0, kMaxLogMessage)) + " ... (" + std::to_string(message.size()) + " bytes)";
}

void CutAtLineBreak(Agent& agent, std::string& value, std::string_view name) {
  // NUL too: some readers of these files end a line there and others do not, so two programs would see
  // two different values.
  const size_t p = value.find_first_of(std::string_view("\r\n\0", 3));
  if (p == std::string::npos) return;
  value.erase(p);
  LogMessage(agent, "The value of (" + std::string(name) + ") held a line break and was cut at it.", "Warning");
}

std::string ProgramTracePath(Agent& agent) {
  return agent.AppPath(IpPart(agent) + "-" + agent.ExeUpper() + "-TraceFile.TXT");
}

std::string HostTracePath(Agent& agent) { return agent.AppPath(IpPart(agent) + "-TraceFile.TXT"); }

std::string ErrorLogPath(Agent& agent) {
  if (agent.UserSessionMode())
    return agent.AppPath(IpPart(agent) + "-" + agent.settings.CurrentUser + "-Error.LOG");
  return agent.AppPath(IpPart(agent) + "-Error.LOG");
}

void WriteProgramTrace(Agent& agent, std::string_view message, std::string_view category) {
  const std::string path = ProgramTracePath(agent);
  const std::string head = FormatStamp(agent.Now()) + "  -  " + std::string(category) + " in " +
                           agent.ExeUpper() + ": ";
  std::string block;
  if (!agent.startup_banner_written) {
    agent.startup_banner_written = true;
    for (const char* b : {"*************", "*  STARTUP  *", "*************"}) block += head + b + "\r\n";
  }
  std::string line = head + BoundLogMessage(message) + "\r\n";
  block += line;
  AppendWithLimit(path, block, line);
}

void WriteTraceLine(Agent& agent, std::string_view message, std::string_view category) {
  WriteProgramTrace(agent, message, category);
  const std::string path = HostTracePath(agent);
  std::string line = FormatStamp(agent.Now()) + "  -  " + std::string(category) + " in " +
                     agent.options().exe_base_name + ": " + BoundLogMessage(message) + "\r\n";
  AppendWithLimit(path, line, line);
}

void WriteErrorLog(Agent& agent, std::string_view source, std::string_view message) {
  // In user-session mode the name holds the user's name: one that would leave the folder loses the
  // line, as any failed log write does.
  if (agent.UserSessionMode() && !IsSafeFileName(agent.settings.CurrentUser)) return;
  const std::string path = ErrorLogPath(agent);
  std::string line =
      FormatStamp(agent.Now()) + "  - " + std::string(source) + " - " + BoundLogMessage(message) + "\r\n";
  AppendWithLimit(path, line, line);
}

bool EventLogAllowed(Agent& agent) {
  return !FileExists(agent.AppPath("thinterminal.dat")) && !FileExists(agent.AppPath("thinterminal.root"));
}

void LogMessage(Agent& agent, std::string_view message, std::string_view category) {
  if (agent.Ended()) return;  // the process has ended: nothing more is written
  WriteTraceLine(agent, message, category);
  if (category != "Trace" || agent.settings.UseTrace == "True") {
    if (!EventLogAllowed(agent)) return;
    const std::string msg = BoundLogMessage(message);
    if (category == "Error") {
      agent.event_log().Write(1, msg);
      WriteErrorLog(agent, "TDACLI", message);
    } else if (category == "Warning" || category == "Trace") {
      agent.event_log().Write(2, msg);  // a trace line reaches the event log as a warning
    } else if (category == "Information") {
      agent.event_log().Write(4, msg);
    }
  }
}

}  // namespace tdacli
