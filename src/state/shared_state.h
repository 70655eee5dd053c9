#pragma once
// The parts of the main form's state that several rooms share: the login server's answers, the FTP
// values, the capture parameters read back at logoff, and what the timers keep between ticks.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tdacli {

class Agent;

// Values received from the login server and shared by the login drivers, the conversation, the
// post-login work and the console commands.
struct LoginState {
  std::string LoginRequestKind;  // "Login", "Logoff" or "Status"
  bool ProtocolDone = false;
  bool LoginSucceeded = false;
  bool LogoffSucceeded = false;
  bool StatusSucceeded = false;
  std::string LastLoginResult;
  std::string TDLiveID, RepeaterIP, RepeaterPort;
  bool PeerToPeerCapable = false;
  std::string KekInfo;
  std::string ValidIPMask;
  std::string HundredScreensParam;
  bool UseWebCam = false;
  // Phone-home for screen-grabber tasks: switched on by a web-service login, whose time it also sets;
  // the trigger-file poller calls when the clock (ms) has passed the next time.
  bool PhoneHome = false;
  int64_t NextPhoneHomeMs = 0;
};

struct FtpState {
  std::string FtpServer, FtpUserName, FtpEncryptedPassword;
  std::string FtpPort = "21";
  bool FtpSsl = false, FtpAuthTLS = false, FtpPassive = false, FtpPassiveUseHostAddr = false;
  bool FtpCredentialsSaved = false;
};

// The 100% screen parameters as read back at logoff.
struct ScreenParams {
  std::string line = "NOTSET";
  int first_number = 10;
  std::string schedule = "02:00 AM";
  int max_age_days = 4;
  int second_number = 10;
  int third_number = 1;
};

// What the trigger-file poller keeps between its ticks.
struct LoginPoller {
  // Failed attempts for the current "PerformLogin.TXT"; back to 0 after a success or after giving up.
  int16_t retry_counter = 0;
  // How programs are started and how the phone-home call is made; empty: the platform's hidden start
  // and the web-service client. Tests put observers here.
  std::function<unsigned long(const std::string& command_line)> start_process;
  std::function<void(Agent&)> phone_home;
};

// What the request-file timer keeps between its ticks.
struct RequestFiles {
  // Names of the files that ticks still running (waiting inside a control code) are handling, in the
  // order they were taken: a tick that starts inside another takes the next file instead.
  std::vector<std::string> in_hand;
};

}  // namespace tdacli
