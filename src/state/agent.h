#pragma once
// The agent's state: what the hidden main form of the service holds. Its settings, the shared login
// state, the reply flags, the controls (sockets and timers) and its own event loop. The handlers that
// act on it live in the rooms above; the top builds an agent and wires them. Several agents can live
// in one process (tests), each with its own application folder and clock.
#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "common/workstation.h"
#include "platform/event_loop.h"
#include "platform/tcp_socket.h"
#include "state/facilities.h"
#include "state/settings.h"
#include "state/shared_state.h"
#include "state/sibling_reply.h"

namespace tdacli {

// A control that the top builds and the form owns (the console listener): the agent keeps it alive
// for as long as it lives, and only the room that built it knows what it is.
class OwnedControl {
 public:
  virtual ~OwnedControl() = default;
};

class Agent final : public Workstation {
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
  platform::HostIdentity& host() override { return facilities_.host; }
  platform::EventLog& event_log() override { return facilities_.event_log; }
  platform::ServiceControlClient& service_control() { return facilities_.service_control; }
  platform::Dialogs& dialogs() { return facilities_.dialogs; }
  platform::ServiceHost& service_host() { return facilities_.service_host; }
  platform::HttpClient& http() { return facilities_.http; }
  platform::InternetConnection& internet() { return facilities_.internet; }
  const AgentOptions& options() const { return options_; }

  // --- process-wide values (the application folder, local IP and computer names are the Workstation's)
  std::string date_format = "YYYY-MM-DD";
  std::string language_label = "English";
  std::string command_line;
  std::string windows_folder;  // with a trailing separator, or empty

  // --- settings and the stored lines of the settings file
  Settings settings;
  std::array<std::string, 21> stored_lines;

  // --- login state, FTP values, capture parameters: each written only by the room that owns it
  // (ARCHITECTURE.md, "Who writes the shared state"; checked by the StateOwners test), read by all
  const LoginState& login() const { return login_; }
  const FtpState& ftp() const { return ftp_; }
  const ScreenParams& screen() const { return screen_; }
  LoginState& WriteLogin() { return login_; }      // login/
  FtpState& WriteFtp() { return ftp_; }            // config/
  ScreenParams& WriteScreen() { return screen_; }  // triggers/
  int16_t temp_access_status = 0;  // `TempAccessStatus`: +1 local, +2 server temp folder not writable

  // --- answers of TDACMT, resolved by the control handler: `MediaTransferReply` (131/132 to a 130)
  // and `TraceFileReply` (141/142 to a 140)
  SiblingReply media_transfer_reply;
  SiblingReply trace_file_reply;

  // --- console command state, trigger-file poller, request files
  std::string component_report_text;
  LoginPoller poller;
  RequestFiles requests;

  // --- controls
  platform::TcpSocket login_socket;     // `Broadcast`: the client socket to the TD Login Server
  platform::Timer startup_timer;        // `LoadTimer`: the start-up work, once, a second after Start
  platform::Timer request_file_timer;   // `tmrMessage`: one "*.TDACLI" request file a second
  platform::Timer trigger_file_timer;   // `tmrPollForLogin`: trigger files and the phone-home schedule
  OwnedControl* console_listener() { return console_listener_.get(); }
  void SetConsoleListener(std::unique_ptr<OwnedControl> listener) { console_listener_ = std::move(listener); }

  // --- waits: all let pending events run
  void DoEvents() { loop_.DoEvents(); }
  void WaitSeconds(double seconds) override;
  void PauseTicks(int count);
  // Runs events until done() or `seconds` have passed on the clock; returns done().
  bool WaitUntil(double seconds, const std::function<bool()>& done);

  // --- process end
  void EndProcess();
  bool Ended() const override { return ended_; }
  std::function<void()> on_end_process;  // the real program exits here; tests observe

  // --- what logging reads
  platform::LocalTime Now() const override { return facilities_.clock.Local(); }
  const std::string& ProgramName() const override { return options_.exe_base_name; }
  bool TraceOn() const override { return settings.TraceOn(); }
  const std::string& CurrentUserName() const override { return settings.CurrentUser; }

 private:
  LoginState login_;
  FtpState ftp_;
  ScreenParams screen_;
  // Last: the listener's sockets go before the loop they live on.
  std::unique_ptr<OwnedControl> console_listener_;
  bool ended_ = false;
};

}  // namespace tdacli
