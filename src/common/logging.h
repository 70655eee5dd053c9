#pragma once
// The one logging call of the agent and the three log writers behind it. Every line opens, appends
// and closes its file, so other programs of the suite can read and truncate the files at any time.
#include <string>
#include <string_view>

namespace tdacli {

class Agent;

inline constexpr long long kLogSizeLimit = 5'120'000;

// Categories: "Trace", "Error", "Warning", "Information", and the trace-only "Trace!" and "Warning!".
void LogMessage(Agent& agent, std::string_view message, std::string_view category);
void WriteTraceLine(Agent& agent, std::string_view message, std::string_view category);
void WriteProgramTrace(Agent& agent, std::string_view message, std::string_view category);
void WriteErrorLog(Agent& agent, std::string_view source, std::string_view message);

// File names, for the agent's current local IP.
std::string ProgramTracePath(Agent& agent);
std::string HostTracePath(Agent& agent);
std::string ErrorLogPath(Agent& agent);

}  // namespace tdacli
