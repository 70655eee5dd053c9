#include "config/result_files.h"

#include <iterator>
#include <vector>

#include "common/files.h"
#include "common/logging.h"
#include "common/paths.h"
#include "common/text.h"
#include "state/agent.h"

namespace tdacli {

namespace {

std::string TrueFalse(bool b) { return b ? "True" : "False"; }

// The files the siblings read are rebuilt at every login: written whole (a sibling never reads half
// of one), not flushed. Errors are ignored, as the writers always ignored them.
void SaveLines(Agent& agent, const std::string& path, const std::vector<std::string>& lines) {
  TrappedError ignored;
  SaveWholeFile(agent, path, JoinLines(lines), {}, ignored);
}

// Takes the text before the first ":" off the front of `rest`. Without a ":" the field is empty and
// `rest` stays as it is.
std::string CutField(std::string& rest) {
  const size_t p = rest.find(':');
  if (p == std::string::npos) return "";
  std::string field = rest.substr(0, p);
  rest.erase(0, p + 1);
  return field;
}

}  // namespace

FtpCredentials ParseFtpCredentials(std::string_view svr_temp) {
  FtpCredentials c;
  if (!Contains(svr_temp, "FTP@") && !Contains(svr_temp, "SSH@")) return c;
  c.present = true;
  const bool with_port = Contains(svr_temp, "Port=");
  std::string rest(svr_temp);
  std::string field[7];
  field[1] = CutField(rest);
  field[2] = CutField(rest);
  field[3] = CutField(rest);
  if (with_port) {
    field[4] = CutField(rest);
    field[5] = CutField(rest);
    field[6] = rest;
  } else {
    field[4] = rest;
  }
  c.folder = field[1];
  c.protocol = Contains(field[2], "SSH@") ? "SSH" : "FTP";
  c.server = ReplaceAll(ReplaceAll(field[2], "FTP@", ""), "SSH@", "");
  if (!with_port) {
    c.user_name = field[3];
    c.encrypted_password = field[4];
    return c;
  }
  c.user_name = field[5];
  c.encrypted_password = field[6];
  c.port = ReplaceAll(field[3], "Port=", "");
  if (field[4].size() >= 4) {
    const std::string flags = Upper(field[4].substr(0, 4));
    c.ssl = flags[0] == 'T';
    c.auth_tls = flags[1] == 'T';
    c.passive = flags[2] == 'T';
    c.passive_use_host_addr = flags[3] == 'T';
  }
  return c;
}

void SaveFtpCredentials(Agent& agent) {
  FtpState& ftp = agent.WriteFtp();
  ftp = FtpState{};
  FtpCredentials c = ParseFtpCredentials(agent.settings.SvrTemp);
  if (!c.present) return;  // a bare folder: no transfer credentials, nothing written
  CutAtLineBreak(agent, c.folder, "ServerTemp");
  CutAtLineBreak(agent, c.server, "FTPServer");
  CutAtLineBreak(agent, c.user_name, "UserName");
  CutAtLineBreak(agent, c.encrypted_password, "EncryptedPassword");
  CutAtLineBreak(agent, c.port, "Port");

  agent.settings.SvrTemp = c.folder;
  ftp.FtpServer = c.server;
  ftp.FtpUserName = c.user_name;
  ftp.FtpEncryptedPassword = c.encrypted_password;  // stored and logged exactly as received
  ftp.FtpPort = c.port;
  ftp.FtpSsl = c.ssl;
  ftp.FtpAuthTLS = c.auth_tls;
  ftp.FtpPassive = c.passive;
  ftp.FtpPassiveUseHostAddr = c.passive_use_host_addr;

  // Written with errors ignored: an unwritable folder loses the file, the rest still runs.
  SaveLines(agent, agent.AppPath("TDACFTP.INI"),
            {"[Tyndrel - Agent Client - FTP Credentials]", "", "[Config]",
             "ServerTemp=" + agent.settings.SvrTemp, "FTPServer=" + ftp.FtpServer, "UserName=" + ftp.FtpUserName,
             "EncryptedPassword=" + ftp.FtpEncryptedPassword, "Port=" + ftp.FtpPort,
             "Ssl=" + TrueFalse(ftp.FtpSsl), "AuthTLS=" + TrueFalse(ftp.FtpAuthTLS),
             "Passive=" + TrueFalse(ftp.FtpPassive), "PassiveUseHostAddr=" + TrueFalse(ftp.FtpPassiveUseHostAddr),
             "Protocol=" + c.protocol});
  ftp.FtpCredentialsSaved = true;
  LogMessage(agent,
             "Saved the following Variables [SERVERTEMP=" + agent.settings.SvrTemp + "],[PROTOCOL=" + c.protocol +
                 "],[FTPSERVER=" + ftp.FtpServer + "],[FTPUSERNAME=" + ftp.FtpUserName +
                 "],[FTPPASSWORD=" + ftp.FtpEncryptedPassword + "],[FTPPORT=" + ftp.FtpPort +
                 "],[FTPSSL=" + TrueFalse(ftp.FtpSsl) + "],[FTPAUTHTLS=" + TrueFalse(ftp.FtpAuthTLS) +
                 "],[FTPPASSIVE=" + TrueFalse(ftp.FtpPassive) +
                 "],[FTPPASSIVEUSEHOSTADDR=" + TrueFalse(ftp.FtpPassiveUseHostAddr) + "]",
             "Trace");
}

void SaveValidIPMask(Agent& agent, std::string& mask) {
  mask = Upper(mask);
  if (mask == "NONE") return;
  CutAtLineBreak(agent, mask, "IPMask");
  const std::string path = agent.AppPath("TDIPMASK.INI");
  SaveLines(agent, path, {"[Tyndrel - Agent Client - Valid IP Mask]", "", "[Config]", "IPMask=" + mask});
  LogMessage(agent, "Saved the following Variables [IPMASK=" + mask + "] to file [" + path + "]", "Trace");
}

void SaveLiveID(Agent& agent) {
  // Whoever asks, the file never takes a line break: the values are cut as they go in (the login keeps
  // its own cut before the poller asks for this file, so they warn once).
  const LoginState& l = agent.login();
  std::string id = l.TDLiveID, repeater_ip = l.RepeaterIP, repeater_port = l.RepeaterPort;
  CutAtLineBreak(agent, id, "TDLiveID");
  CutAtLineBreak(agent, repeater_ip, "RepeaterIP");
  CutAtLineBreak(agent, repeater_port, "RepeaterPort");
  const std::string path = agent.AppPath("TDLiveID.INI");
  SaveLines(agent, path, {"[LiveID]", "TDLiveID=" + id, "RepeaterIP=" + repeater_ip,
                          "RepeaterPort=" + repeater_port, "PeerToPeerCapable=" + TrueFalse(l.PeerToPeerCapable)});
  LogMessage(agent, "Saved [TDLiveID=" + id + "] to [" + path + "]", "Trace");
  LogMessage(agent, "Saved [RepeaterIP=[" + repeater_ip + "] to [" + path + "]", "Trace");
  LogMessage(agent, "Saved [RepeaterPort=" + repeater_port + "] to [" + path + "]", "Trace");
  LogMessage(agent, "Saved [PeerToPeerCapable=" + TrueFalse(l.PeerToPeerCapable) + "] to [" + path + "]", "Trace");
}

void CreateRemoteControlSettings(Agent& agent) {
  // The log lines name the file the way the suite knows it, "RC\TDACVC.INI", on every platform; the
  // path itself uses the platform's separator.
  const std::string path = agent.app_folder + "RC" + kSepStr + "TDACVC.INI";
  if (FileExists(path)) {
    LogMessage(agent, "[RC\\TDACVC.INI] Exists, Do Not Create!", "Trace");
    return;
  }
  // "[Permissions]" stays empty on purpose: "[admin]" follows it directly.
  static constexpr const char* kLines[] = {"[Permissions]",   "[admin]",
                                           "DisableTrayIcon=1", "AutoPortSelect=0",
                                           "PortNumber=5017", "HTTPPortNumber=5018",
                                           "HTTPConnect=1",   "AuthRequired=0"};
  // The "RC" folder is not created here: without it the file is simply not written, and the log
  // lines still follow. A file that appeared meanwhile is never replaced: an edited one stays.
  std::vector<std::string> lines(std::begin(kLines), std::end(kLines));
  WholeFileSave how;
  how.replace = false;
  TrappedError ignored;
  SaveWholeFile(agent, path, JoinLines(lines), how, ignored);
  for (const auto& line : lines) LogMessage(agent, "[RC\\TDACVC.INI] Not Found, Creating With: " + line, "Trace");
}

}  // namespace tdacli
