#pragma once
// The one logging call of the agent and the three log writers behind it. Every line opens, appends
// and closes its file, so other programs of the suite can read and truncate the files at any time.
#include <cstddef>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/file_system.h"
#include "platform/service_host.h"

namespace tdacli {

// What logging needs of its owner and nothing more: the folder the files go to, the program and user
// they name, the trace switch, the clock, the event log and the file system the files are written
// through. The agent is one; tests may bring others.
class LogSink {
 public:
  std::string app_folder;  // with a trailing separator
  std::string local_ip;    // names the log files; empty until determined
  bool startup_banner_written = false;
  // Every file the agent writes goes through this: the system's own, or one a test puts in its place
  // (a full disk, a process killed between two steps of a save).
  platform::FileSystem* file_system = &platform::SystemFileSystem();

  std::string AppPath(std::string_view name) const { return app_folder + std::string(name); }
  // User-session mode: "thinterminal.dat" beside the executable, tested afresh each time.
  bool UserSessionMode() const;
  // The EXE part of the log names: the base name in capitals.
  std::string ExeUpper() const;

  virtual const std::string& ProgramName() const = 0;  // the base name as the system reports it
  virtual bool TraceOn() const = 0;                    // the UseTrace setting
  virtual const std::string& CurrentUserName() const = 0;
  virtual platform::LocalTime Now() const = 0;
  virtual platform::EventLog& event_log() = 0;
  virtual bool Ended() const = 0;  // once the process has ended nothing more is written
  // Fills `local_ip` when it is still empty.
  virtual void EnsureLocalIP() = 0;

 protected:
  ~LogSink() = default;
};

inline constexpr long long kLogSizeLimit = 5'120'000;
// A longer message (a peer's text quoted in full) is cut here, so that one line cannot push a log
// through its roll-over and wipe its history.
inline constexpr size_t kMaxLogMessage = 65536;

// The message as it is written: at most kMaxLogMessage bytes, then " ... (N bytes)" with its length.
std::string BoundLogMessage(std::string_view message);

// Categories: "Trace", "Error", "Warning", "Information", and the trace-only "Trace!" and "Warning!".
void LogMessage(LogSink& sink, std::string_view message, std::string_view category);
void WriteTraceLine(LogSink& sink, std::string_view message, std::string_view category);
void WriteProgramTrace(LogSink& sink, std::string_view message, std::string_view category);
void WriteErrorLog(LogSink& sink, std::string_view source, std::string_view message);

// Whether the Windows event log may be written: not in user-session mode ("thinterminal.dat") and not
// beside "thinterminal.root".
bool EventLogAllowed(const LogSink& sink);

// A value from outside that goes into a line-oriented file is cut at its first CR, LF or NUL (exactly
// what a later read of that line keeps), with one Warning line naming it: no value can plant lines.
void CutAtLineBreak(LogSink& sink, std::string& value, std::string_view name);

// File names, for the agent's current local IP.
std::string ProgramTracePath(LogSink& sink);
std::string HostTracePath(LogSink& sink);
std::string ErrorLogPath(LogSink& sink);

}  // namespace tdacli
