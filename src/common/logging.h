#pragma once
// The one logging call of the agent and the three log writers behind it. Every line opens, appends
// and closes its file, so other programs of the suite can read and truncate the files at any time.
#include <cstddef>
#include <string>
#include <string_view>

namespace tdacli {

class Agent;

inline constexpr long long kLogSizeLimit = 5'120'000;
// A longer message (a peer's text quoted in full) is cut here, so that one line cannot push a log
// through its roll-over and wipe its history.
inline constexpr size_t kMaxLogMessage = 65536;

// The message as it is written: at most kMaxLogMessage bytes, then " ... (N bytes)" with its length.
std::string BoundLogMessage(std::string_view message);

// Categories: "Trace", "Error", "Warning", "Information", and the trace-only "Trace!" and "Warning!".
void LogMessage(Agent& agent, std::string_view message, std::string_view category);
void WriteTraceLine(Agent& agent, std::string_view message, std::string_view category);
void WriteProgramTrace(Agent& agent, std::string_view message, std::string_view category);
void WriteErrorLog(Agent& agent, std::string_view source, std::string_view message);

// Whether the Windows event log may be written: not in user-session mode ("thinterminal.dat") and not
// beside "thinterminal.root".
bool EventLogAllowed(Agent& agent);

// A value from outside that goes into a line-oriented file is cut at its first CR, LF or NUL (exactly
// what a later read of that line keeps), with one Warning line naming it: no value can plant lines.
void CutAtLineBreak(Agent& agent, std::string& value, std::string_view name);

// File names, for the agent's current local IP.
std::string ProgramTracePath(Agent& agent);
std::string HostTracePath(Agent& agent);
std::string ErrorLogPath(Agent& agent);

}  // namespace tdacli
