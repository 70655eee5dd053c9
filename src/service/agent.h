#pragma once
// The agent: the hidden main form of the service. It owns the settings, the shared login state, the
// reply flags and the controls (sockets and timers), and its own event loop. Several agents can live
// in one process (tests), each with its own application folder and clock.
#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "config/settings.h"
#include "platform/event_loop.h"
#include "platform/host_identity.h"
#include "platform/internet.h"
#include "platform/service_host.h"
#include "platform/tcp_socket.h"
#include "service/request_files.h"
#include "triggers/poller.h"

namespace tdacli {

namespace listener {
class CommandListener;
}

struct AgentFacilities {
  platform::Clock& clock;
  platform::HostIdentity& host;
  platform::EventLog& event_log;
  platform::ServiceControlClient& service_control;
  platform::Dialogs& dialogs;
  platform::ServiceHost& service_host;
  platform::HttpClient& http;
  platform::InternetConnection& internet;
};

struct AgentOptions {
  std::string exe_folder;               // folder of the executable (the application folder)
  std::string exe_base_name = "tdacli"; // base name as the system reports it
  std::string command_line;
  int file_revision = 0;                // revision of the program's own file version
};

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

class Agent {
  // Declared first: the controls below are built on the loop.
  AgentFacilities facilities_;
  AgentOptions options_;
  platform::EventLoop loop_;

 public:
  Agent(AgentFacilities facilities, AgentOptions options);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // --- facilities
  platform::EventLoop& loop() { return loop_; }
  platform::Clock& clock() { return facilities_.clock; }
  platform::HostIdentity& host() { return facilities_.host; }
  platform::EventLog& event_log() { return facilities_.event_log; }
  platform::ServiceControlClient& service_control() { return facilities_.service_control; }
  platform::Dialogs& dialogs() { return facilities_.dialogs; }
  platform::ServiceHost& service_host() { return facilities_.service_host; }
  platform::HttpClient& http() { return facilities_.http; }
  platform::InternetConnection& internet() { return facilities_.internet; }
  const AgentOptions& options() const { return options_; }

  // --- process-wide values
  std::string date_format = "YYYY-MM-DD";
  std::string language_label = "English";
  std::string app_folder;      // with a trailing separator
  std::string command_line;
  std::string windows_folder;  // with a trailing separator, or empty
  std::array<std::string, 8> computer_names;
  std::string local_ip;        // empty until determined
  int os_code = 99;
  bool startup_banner_written = false;

  // --- settings and the stored lines of the settings file
  Settings settings;
  std::array<std::string, 21> stored_lines;

  // --- shared login state, FTP values, capture parameters
  LoginState login;
  FtpState ftp;
  ScreenParams screen;
  int16_t TempAccessStatus = 0;

  // --- reply flags set by the control handler
  int16_t MediaTransferReply = 0;
  std::string TraceFileReply = "0";

  // --- console command state
  std::string ComponentReportText;

  // --- trigger-file poller and request files
  LoginPoller poller;
  RequestFiles requests;

  // --- controls
  platform::TcpSocket Broadcast;
  platform::Timer LoadTimer;
  platform::Timer tmrMessage;
  platform::Timer tmrPollForLogin;
  listener::CommandListener& listener() { return *listener_; }

  // --- waits: all let pending events run
  void DoEvents() { loop_.DoEvents(); }
  void WaitSeconds(double seconds);
  void PauseTicks(int count);
  // Runs events until done() or `seconds` have passed on the clock; returns done().
  bool WaitUntil(double seconds, const std::function<bool()>& done);

  // --- process end
  void EndProcess();
  bool Ended() const { return ended_; }
  std::function<void()> on_end_process;  // the real program exits here; tests observe

  // --- test seam: a folder that accepts files but refuses their deletion
  std::function<bool(const std::string& path)> refuse_delete;

  // --- helpers
  platform::LocalTime Now() const { return facilities_.clock.Local(); }
  std::string AppPath(std::string_view name) const { return app_folder + std::string(name); }
  // User-session mode: "thinterminal.dat" beside the executable, tested afresh each time.
  bool UserSessionMode() const;
  // The EXE part of the log names: the base name in capitals.
  std::string ExeUpper() const;

 private:
  std::unique_ptr<listener::CommandListener> listener_;
  bool ended_ = false;
};

}  // namespace tdacli
