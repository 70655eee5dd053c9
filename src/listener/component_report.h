#pragma once
// "|GETVER|": the component report of the suite's programs and services on this workstation.
#include <string>
#include <string_view>

#include "listener/command_replies.h"
#include "platform/version_info.h"

namespace tdacli {
class Agent;
}

namespace tdacli::listener {

void HandleGetVer(Agent& agent, const std::string& data, CommandReplies& replies);

// Rebuilds the report text the command sends.
void BuildComponentReport(Agent& agent);
// The eight strings of a file's version resource (first translation); false without one.
bool ReadVersionInfo(const std::string& path, platform::VersionStrings& info);
// State word and account of a service of the suite; both empty (and an "Error" line) when it cannot be
// queried.
struct ServiceColumns {
  std::string state, account, description;
};
ServiceColumns GetWinServiceDetails(Agent& agent, const std::string& service);
// Version, date, time and size of a file ("Unavailable!" without a version resource).
std::string GetFileDetails(Agent& agent, const std::string& path);
// Thousands separators, at least one digit: 1234567 -> "1,234,567".
std::string FormatFileSize(unsigned long long size);
// The "ServerPort" value of "RC\TDACLM.INI", or "(Unknown)".
std::string ReadRemoteControlPort(Agent& agent);
// The same for the file's text: the last line "ServerPort=<value>" with a value wins.
std::string ParseRemoteControlPort(std::string_view content);

}  // namespace tdacli::listener
