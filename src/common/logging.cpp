#include "common/logging.h"

#include <cctype>

#include "common/files.h"
#include "common/text.h"

namespace tdacli {

namespace {

std::string IpPart(LogSink& sink) {
  sink.EnsureLocalIP();
  return ReplaceAll(sink.local_ip, ".", "-");
}

// Appends one line; a file that grows past the limit is restarted with a notice and the line.
// Failures are swallowed: the line is lost. On a full disk that is all that happens: nothing is
// retried and nothing is logged about it, so logging can never spin or wedge the agent.
void AppendWithLimit(LogSink& sink, const std::string& path, const std::string& block, const std::string& last_line) {
  long long size = -1;
  if (!sink.file_system->Append(path, block, size)) return;
  // Restarted in place, not through a file beside it: the other programs of the suite append to the
  // same host-wide trace and may hold it open.
  if (size > kLogSizeLimit)
    sink.file_system->Write(path, "Log Initialized, It Was Greater than 5 MEG!\r\n" + last_line, /*flush=*/false);
}

}  // namespace

bool LogSink::UserSessionMode() const { return FileExists(AppPath("thinterminal.dat")); }

std::string LogSink::ExeUpper() const {
  std::string s = ProgramName();
  for (auto& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

std::string BoundLogMessage(std::string_view message) {
  if (message.size() <= kMaxLogMessage) return std::string(message);
  return std::string(message.substr(0, kMaxLogMessage)) + " ... (" + std::to_string(message.size()) + " bytes)";
}

void CutAtLineBreak(LogSink& sink, std::string& value, std::string_view name) {
  // NUL too: some readers of these files end a line there and others do not, so two programs would see
  // two different values.
  const size_t p = value.find_first_of(std::string_view("\r\n\0", 3));
  if (p == std::string::npos) return;
  value.erase(p);
  LogMessage(sink, "The value of (" + std::string(name) + ") held a line break and was cut at it.", "Warning");
}

std::string ProgramTracePath(LogSink& sink) {
  return sink.AppPath(IpPart(sink) + "-" + sink.ExeUpper() + "-TraceFile.TXT");
}

std::string HostTracePath(LogSink& sink) { return sink.AppPath(IpPart(sink) + "-TraceFile.TXT"); }

std::string ErrorLogPath(LogSink& sink) {
  if (sink.UserSessionMode())
    return sink.AppPath(IpPart(sink) + "-" + sink.CurrentUserName() + "-Error.LOG");
  return sink.AppPath(IpPart(sink) + "-Error.LOG");
}

void WriteProgramTrace(LogSink& sink, std::string_view message, std::string_view category) {
  const std::string path = ProgramTracePath(sink);
  const std::string head = FormatStamp(sink.Now()) + "  -  " + std::string(category) + " in " +
                           sink.ExeUpper() + ": ";
  std::string block;
  if (!sink.startup_banner_written) {
    sink.startup_banner_written = true;
    for (const char* b : {"*************", "*  STARTUP  *", "*************"}) block += head + b + "\r\n";
  }
  std::string line = head + BoundLogMessage(message) + "\r\n";
  block += line;
  AppendWithLimit(sink, path, block, line);
}

void WriteTraceLine(LogSink& sink, std::string_view message, std::string_view category) {
  WriteProgramTrace(sink, message, category);
  const std::string path = HostTracePath(sink);
  std::string line = FormatStamp(sink.Now()) + "  -  " + std::string(category) + " in " +
                     sink.ProgramName() + ": " + BoundLogMessage(message) + "\r\n";
  AppendWithLimit(sink, path, line, line);
}

void WriteErrorLog(LogSink& sink, std::string_view source, std::string_view message) {
  // In user-session mode the name holds the user's name: one that would leave the folder loses the
  // line, as any failed log write does.
  if (sink.UserSessionMode() && !IsSafeFileName(sink.CurrentUserName())) return;
  const std::string path = ErrorLogPath(sink);
  std::string line =
      FormatStamp(sink.Now()) + "  - " + std::string(source) + " - " + BoundLogMessage(message) + "\r\n";
  AppendWithLimit(sink, path, line, line);
}

bool EventLogAllowed(const LogSink& sink) {
  return !FileExists(sink.AppPath("thinterminal.dat")) && !FileExists(sink.AppPath("thinterminal.root"));
}

void LogMessage(LogSink& sink, std::string_view message, std::string_view category) {
  if (sink.Ended()) return;  // the process has ended: nothing more is written
  WriteTraceLine(sink, message, category);
  if (category != "Trace" || sink.TraceOn()) {
    if (!EventLogAllowed(sink)) return;
    const std::string msg = BoundLogMessage(message);
    if (category == "Error") {
      sink.event_log().Write(1, msg);
      WriteErrorLog(sink, "TDACLI", message);
    } else if (category == "Warning" || category == "Trace") {
      sink.event_log().Write(2, msg);  // a trace line reaches the event log as a warning
    } else if (category == "Information") {
      sink.event_log().Write(4, msg);
    }
  }
}

}  // namespace tdacli
