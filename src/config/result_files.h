#pragma once
// The small files written from what the login server hands out, read by the sibling programs:
// "TDACFTP.INI", "TDIPMASK.INI", "TDLiveID.INI" and "RC\TDACVC.INI".
#include <string>
#include <string_view>

namespace tdacli {

class Agent;

void SaveFtpCredentials(Agent& agent);
void SaveValidIPMask(Agent& agent, std::string& mask);
void SaveLiveID(Agent& agent);
void CreateRemoteControlSettings(Agent& agent);

// The server temp reply taken apart: the folder and, behind it, the transfer credentials.
struct FtpCredentials {
  bool present = false;  // false: no "FTP@" or "SSH@" in the value, nothing else is filled
  std::string folder;
  std::string protocol;  // "FTP" or "SSH"
  std::string server, user_name, encrypted_password;
  std::string port = "21";
  bool ssl = false, auth_tls = false, passive = false, passive_use_host_addr = false;
};
FtpCredentials ParseFtpCredentials(std::string_view svr_temp);

}  // namespace tdacli
