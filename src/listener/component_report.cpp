// "|GETVER|": the report of the suite's components installed beside the agent (version, date, time
// and size of each file, state and account of the services), then the main and the FTP settings.
#include "listener/component_report.h"

#include <exception>
#include <filesystem>
#include <system_error>

#include "common/errors.h"
#include "common/files.h"
#include "common/logging.h"
#include "common/paths.h"
#include "common/text.h"
#include "config/configuration.h"
#include "listener/command_replies.h"
#include "platform/file_times.h"
#include "platform/version_info.h"
#include "state/agent.h"

namespace tdacli::listener {

namespace {

constexpr std::string_view kCrlf = "{CRLF}";

std::string TwoDigits(int v) { return std::string(1, static_cast<char>('0' + v / 10 % 10)) + static_cast<char>('0' + v % 10); }

std::string Bool(bool b) { return b ? "True" : "False"; }

std::string Underscored(std::string_view value) { return ReplaceAll(value, " ", "_"); }

std::string Dotted(std::string_view details) { return ReplaceAll(details, ", ", "."); }

// A component's file, found as Windows would find it whatever the case of its name.
std::string Resolve(const std::string& path) { return platform::ResolvePathNoCase(path); }

bool ComponentExists(const std::string& path) { return FileExists(Resolve(path)); }

bool ModernWindows(int os_code) {
  switch (os_code) {
    case 60: case 61: case 62: case 63: case 10: return true;
    default: return false;
  }
}

struct ServiceRow {
  const char* file;
  const char* service;
  const char* long_label;
  const char* short_label;
  std::string_view short_ending;
};

void AppendServiceRow(Agent& agent, std::string& report, const ServiceRow& row) {
  const std::string details = GetFileDetails(agent, agent.AppPath(row.file));
  if (!Contains(Upper(details), "UNAVAILABLE")) {
    report += row.long_label + details;
    const ServiceColumns c = GetWinServiceDetails(agent, row.service);
    report += "     " + c.state + "     " + c.account + std::string(kCrlf);
  } else {
    report += row.short_label + details + std::string(row.short_ending);
  }
}

}  // namespace

ServiceColumns GetWinServiceDetails(Agent& agent, const std::string& service) {
  const platform::ServiceDetails d = platform::QueryServiceDetails(agent.app_folder, service);
  if (!d.ok) {
    LogMessage(agent, "GetWinServiceDetails: Error - " + d.error, "Error");
    return {};
  }
  return {d.state, d.account, d.description};
}

bool ReadVersionInfo(const std::string& path, platform::VersionStrings& info) {
  return platform::ReadFileVersionStrings(Resolve(path), info);
}

std::string FormatFileSize(unsigned long long size) {
  std::string digits = std::to_string(size), out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i != 0 && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return out;
}

std::string GetFileDetails(Agent&, const std::string& path) {
  const std::string file = Resolve(path);
  platform::VersionStrings v;
  if (!ReadVersionInfo(file, v)) return "Unavailable!";
  platform::LocalTime t;
  std::error_code ec;
  const auto size = std::filesystem::file_size(std::filesystem::u8path(file), ec);
  if (ec || !platform::FileModifiedLocal(file, t)) return "Unavailable!";
  return v.FileVersion + ",[date=" + std::to_string(t.year) + "-" + TwoDigits(t.month) + "-" + TwoDigits(t.day) +
         "],[time=" + TwoDigits(t.hour) + ":" + TwoDigits(t.minute) + ":" + TwoDigits(t.second) +
         "],[size=" + FormatFileSize(size) + "]";
}

std::string ParseRemoteControlPort(std::string_view content) {
  std::string result = "(Unknown)";
  for (const std::string& line : SplitLines(content)) {
    const size_t e = line.find('=');
    // "=" missing, first or last: the line is skipped.
    if (e == std::string::npos || e == 0 || e + 1 >= line.size()) continue;
    if (std::string_view(line).substr(0, e) == "ServerPort") result = line.substr(e + 1);
  }
  return result;
}

std::string ReadRemoteControlPort(Agent& agent) {
  const std::string path = Resolve(agent.app_folder + "RC" + kSepStr + "TDACLM.INI");
  std::string content;
  // Only a regular file is opened: a pipe put in its place would block the agent's thread.
  if (!FileExists(path) || !ReadTextFile(path, content)) return "(Unknown)";
  return ParseRemoteControlPort(content);
}

void BuildComponentReport(Agent& agent) {
  const std::string crlf(kCrlf);
  const std::string rc = "RC" + kSepStr;
  const bool user_session = agent.UserSessionMode();
  const bool modern = ModernWindows(agent.os_code);
  auto details = [&agent](const std::string& name) { return GetFileDetails(agent, agent.AppPath(name)); };
  std::string r = "Agent Client Components Information:{CRLF}{CRLF}"
                  "Component name                     Version       State                 Account{CRLF}{CRLF}";

  Ignoring([&] {
    if (user_session)
      r += "Agent Login Service: " + details("tdacli.exe") + crlf;
    else
      AppendServiceRow(agent, r, {"TDACLI.EXE", "TDACLI", "Agent Login Service:              ",
                                  "Agent Login Service: ", kCrlf});
  });
  Ignoring([&] {
    if (!modern)
      AppendServiceRow(agent, r, {"TDACSC.EXE", "TDACSC", "Screen Capture Service :         ",
                                  "Screen Capture Service : ", kCrlf});
  });
  Ignoring([&] {
    if (user_session)
      r += "Media Transfer Service: " + details("tdacmt.exe") + crlf;
    else
      AppendServiceRow(agent, r, {"TDACMT.EXE", "TDACMT", "Media Transfer Service:           ",
                                  "Media Transfer Service: ", "{CRLF}{CRLF}"});
  });
  Ignoring([&] {
    if (!modern)
      AppendServiceRow(agent, r, {"TDACLM.EXE", "TDACLM", "Live Monitor Service:             ",
                                  "Live Monitor Service:   ", "{CRLF}{CRLF}"});
  });
  Ignoring([&] {
    if (!modern) return;
    r += "Screen Capture Service: " + details("tdacsc.exe") + crlf;
    r += "Live Monitor Service: " + details("tdaclm.exe") + crlf;
  });
  Ignoring([&] {
    r += "System Event Detector: " +
         (ComponentExists(agent.AppPath("TDACSE.EXE")) ? Dotted(details("TDACSE.EXE")) : std::string("N/A")) + crlf;
  });
  Ignoring([&] {
    r += "Web Cam Control: " +
         (ComponentExists(agent.AppPath("TDACWC.EXE")) ? Dotted(details("TDACWC.EXE")) : std::string("N/A")) + crlf;
  });
  Ignoring([&] { r += "Update Manager: " + details("UPDMGR.EXE") + crlf; });
  Ignoring([&] { r += "Agent Login Detector: " + details("TDACLD.EXE") + crlf; });
  Ignoring([&] { r += "Agent Configuration: " + details("TDACCF.EXE") + crlf; });
  Ignoring([&] { r += "Agent Desktop: " + details("TDACAD.EXE") + "{CRLF}{CRLF}"; });
  Ignoring([&] { r += "TDNTService Control: " + Dotted(details("SVCCTL.OCX")) + crlf; });
  Ignoring([&] {
    r += "TDCamCorder Control: " +
         (ComponentExists(agent.AppPath("SCRREC3.OCX")) ? details("SCRREC3.OCX") : details("SCRREC2.OCX")) + crlf;
  });
  Ignoring([&] { r += "Agent Client Remote Control: " + Dotted(details(rc + "TDACVC.EXE")) + crlf; });
  Ignoring([&] {
    r += "Agent Client Remote Library: " +
         Dotted(ComponentExists(agent.AppPath(rc + "RCHOOKS.DLL")) ? details(rc + "RCHOOKS.DLL")
                                                                   : details(rc + "rchooks2.dll")) +
         crlf;
  });
  Ignoring([&] { r += "Agent Client Remote Contro2: " + Dotted(details(rc + "TDACV2.EXE")) + crlf; });
  Ignoring([&] { r += "Agent Client Remote IP Port: " + ReadRemoteControlPort(agent) + "{CRLF}{CRLF}"; });
  r += " - - - - - - - - - - - - - - : " + crlf;
  Ignoring([&] { r += "Agent Client FTP Control: " + Dotted(details("FTPLIB2.DLL")) + crlf; });

  const Settings& s = agent.settings;
  r += "TD Server: " + Underscored(s.Server) + crlf;
  r += "Local Temp: " + Underscored(s.LocalTemp) + crlf;
  r += "TD Server Temp: " + Underscored(s.SvrTemp) + crlf;
  r += "Current User: " + Underscored(s.CurrentUser) + crlf;
  r += "Current Event: " + Underscored(s.CurrentEvent) + crlf;
  r += "Use WebCam: " + Bool(agent.login().UseWebCam) + crlf;
  const FtpState& f = agent.ftp();
  r += "Use FTP: " + Bool(f.FtpCredentialsSaved) + crlf;
  if (f.FtpCredentialsSaved) {
    r += "FTP Server: " + Underscored(f.FtpServer) + crlf;
    r += "FTP Username: " + Underscored(f.FtpUserName) + crlf;
    r += "FTP Encrypted pw: " + Underscored(f.FtpEncryptedPassword) + crlf;
    r += "FTP Port: " + Underscored(f.FtpPort) + crlf;
    r += "FTP Ssl: " + Bool(f.FtpSsl) + crlf;
    r += "FTP AuthTLS: " + Bool(f.FtpAuthTLS) + crlf;
    r += "FTP Passive: " + Bool(f.FtpPassive) + crlf;
    r += "FTP PassiveUseHostAddr: " + Bool(f.FtpPassiveUseHostAddr) + crlf;
  } else {
    for (const char* label : {"FTP Server: ", "FTP Username: ", "FTP Encrypted pw: ", "FTP Port: ", "FTP Ssl: ",
                              "FTP AuthTLS: ", "FTP Passive: ", "FTP PassiveUseHostAddr: "})
      r += std::string(label) + "N/A" + crlf;
  }
  // Line breaks are only ever the marker: a version text from a file written by others, or a value
  // from the server, cannot break the console's lines.
  for (char& c : r)
    if (c == '\r' || c == '\n') c = ' ';
  agent.component_report_text = std::move(r);
}

void HandleGetVer(Agent& agent, const std::string&, CommandReplies& replies) {
  LogMessage(agent,
             "Received GETVER command from Agent Explorer (IP = " + replies.RemoteHostIP() +
                 "), calling svcMain_Control()",
             "Trace");
  LoadConfiguration(agent);
  BuildComponentReport(agent);
  replies.SendCommandReply("|GETVER|<Status>" + agent.component_report_text, kAgentExplorerPeer);
}

}  // namespace tdacli::listener
