#include "service/lifecycle.h"

#include <gtest/gtest.h>

#include <memory>

#include "common/logging.h"
#include "listener/listener.h"
#include "service/control.h"
#include "support/test_agent.h"


namespace tdacli {
namespace {

using testing::Exists;
using testing::Lines;
using testing::ReadFile;
using testing::TestAgent;
using testing::WriteFile;

// Runs a service start as the service manager would: Form_Load, the host's Start, the start-up timer.
void StartService(TestAgent& t) {
  Form_Load(*t);
  AttachServiceHost(*t, true);
  t.service_host.events.on_start();
  t->loop().RunFor(1000);
}

TEST(Lifecycle, ServiceRunLogsTheExactBanner) {
  TestAgent t;
  WriteFile(t.dir.File("TDRegInfo.TXT"),
            "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=4711\r\nServer=10.1.1.9\r\nUseTrace=False\r\n"
            "NotificationMethod=Manual\r\nListeningPorts=1,0,2,3\r\n");
  StartService(t);
  const uint16_t port = listener::ListenerOf(*t).Listener().LocalPort();
  ASSERT_NE(port, 0);
  EXPECT_EQ(listener::ListenerOf(*t).Listener().State(), 2);
  const std::string banner =
      "2026-11-14 11:15:03 PM  -  Information in TDACLI: TD Agent Client Login Service Started\r\n"
      "\r\n"
      "Version: 3.0 (Build: 107)\r\n"
      "TD Server: 10.1.1.9(Port: 5003)\r\n"
      "Extension: 4711\r\n"
      "Notification Method: Manual\r\n"
      "Use File Trace: False\r\n"
      "Listening Port: " + std::to_string(port) + "\r\n"
      "Running As: WinService\r\n"
      "\r\n";
  std::string trace = ReadFile(t.ProgramTrace());
  ASSERT_GE(trace.size(), banner.size());
  EXPECT_EQ(trace.substr(trace.size() - banner.size()), banner);
  EXPECT_EQ(t.event_log.entries.back().first, 4);
  EXPECT_EQ(t.service_host.running_reports, 1);
  EXPECT_TRUE(t->request_file_timer.Enabled());
  EXPECT_FALSE(t->trigger_file_timer.Enabled());  // "Manual" is not the file-message method
}

TEST(Lifecycle, ServiceRunTraceOpensWithStartupFormLoadAndLocalIp) {
  TestAgent t;
  WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1,0,2,3\r\n");
  StartService(t);
  auto msgs = t.Messages();
  ASSERT_GE(msgs.size(), 8u);
  EXPECT_EQ(msgs[0], "Trace in TDACLI: *************");
  EXPECT_EQ(msgs[1], "Trace in TDACLI: *  STARTUP  *");
  EXPECT_EQ(msgs[2], "Trace in TDACLI: *************");
  EXPECT_EQ(msgs[3], "Trace in TDACLI: Set Local IP to: 192.168.5.20");
  EXPECT_EQ(msgs[4], "Trace in TDACLI: Form_Load Invoked");
  EXPECT_EQ(msgs[5], "Trace in TDACLI: Set Local IP to: 192.168.5.20");  // the start-up work again
  EXPECT_EQ(msgs[6], "Information in TDACLI: TD Agent Client Login Service Started");
  // The STARTUP lines appear once per run.
  int startup = 0;
  for (const auto& m : msgs) startup += m.find("*  STARTUP  *") != std::string::npos;
  EXPECT_EQ(startup, 1);
  EXPECT_TRUE(t->trigger_file_timer.Enabled());  // default "FileMessage"
  EXPECT_EQ(t->trigger_file_timer.Interval(), 3000);
}

TEST(Lifecycle, StartupWorkRunsOnceAfterOneSecond) {
  TestAgent t;
  WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1,0,2,3\r\n");
  Form_Load(*t);
  AttachServiceHost(*t, true);
  t.service_host.events.on_start();
  t->loop().RunFor(999);
  EXPECT_EQ(ReadFile(t.ProgramTrace()).find("Service Started"), std::string::npos);
  t->loop().RunFor(10'000);
  std::string trace = ReadFile(t.ProgramTrace());
  EXPECT_NE(trace.find("Service Started"), std::string::npos);
  EXPECT_EQ(trace.find("Service Started"), trace.rfind("Service Started"));
  EXPECT_FALSE(t->startup_timer.Enabled());
}

TEST(Lifecycle, UserSessionRunDefersTheSocketAndSaysSo) {
  TestAgent t;
  WriteFile(t.dir.File("thinterminal.dat"), "");
  t.service_host.started_by_scm = false;
  Form_Load(*t);  // calls the Start handler itself
  t->loop().RunFor(1000);
  EXPECT_EQ(t.service_host.install_calls, 0);
  EXPECT_TRUE(t.dialogs.shown.empty());
  EXPECT_EQ(listener::ListenerOf(*t).Listener().State(), 0);
  auto msgs = t.Messages();
  for (const auto& m : msgs) EXPECT_EQ(m.find("Form_Load Invoked"), std::string::npos);
  EXPECT_NE(std::find(msgs.begin(), msgs.end(),
                      "Trace! in TDACLI: THINTERMINAL - Deferring opening of socket until after login!"),
            msgs.end());
  std::string trace = ReadFile(t.ProgramTrace());
  EXPECT_NE(trace.find("Listening Port: 5002\r\nRunning As: UserSession (Terminal Server)\r\n"), std::string::npos);
  EXPECT_TRUE(t.event_log.entries.empty());
}

TEST(Lifecycle, PortInUseGivesThirtyWarningsTwoSecondsApartThenTheBanner) {
  TestAgent t;
  platform::EventLoop other(t.clock);
  platform::TcpSocket blocker(other);
  // The listening port is a 16-bit signed number: take one below 32768.
  uint16_t port = 0;
  for (uint16_t p = 21000 + static_cast<uint16_t>(t.clock.NowMs() % 7000); p < 32000 && !port; p += 7) {
    blocker.SetLocalPort(p);
    if (!blocker.Listen()) port = p;
  }
  ASSERT_NE(port, 0);
  WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1," + std::to_string(port) + ",2,3\r\n");
  StartService(t);
  const int64_t start = t.clock.NowMs();
  t->loop().RunFor(70'000);
  std::vector<std::string> warnings;
  for (const auto& m : t.Messages())
    if (m.find("Error opening listening socket") != std::string::npos) warnings.push_back(m);
  ASSERT_EQ(warnings.size(), 30u) << ReadFile(t.ProgramTrace());
  EXPECT_EQ(warnings.front(), "Warning! in TDACLI: Error opening listening socket, attempting again (1)");
  EXPECT_EQ(warnings.back(), "Warning! in TDACLI: Error opening listening socket, attempting again (30)");
  EXPECT_GE(t.clock.NowMs() - start, 60'000 - 1000);
  std::string trace = ReadFile(t.ProgramTrace());
  EXPECT_LT(trace.find("attempting again (30)"), trace.find("Service Started"));
  EXPECT_NE(trace.find("Listening Port: " + std::to_string(port) + "\r\n"), std::string::npos);
  EXPECT_EQ(listener::ListenerOf(*t).Listener().State(), 0);
  // The warnings stay out of the event log.
  for (const auto& e : t.event_log.entries) EXPECT_EQ(e.second.find("attempting again"), std::string::npos);
  // Two seconds apart.
  auto lines = Lines(t.ProgramTrace());
  std::vector<std::string> stamps;
  for (const auto& l : lines)
    if (l.find("attempting again (") != std::string::npos) stamps.push_back(l.substr(0, 22));
  EXPECT_EQ(stamps[0], "2026-11-14 11:15:03 PM");
  EXPECT_EQ(stamps[1], "2026-11-14 11:15:05 PM");
  EXPECT_EQ(stamps[29], "2026-11-14 11:16:01 PM");
}

TEST(Lifecycle, AfterTheRetriesTheListenerKeepsTryingQuietlyEveryThirtySeconds) {
  TestAgent t;
  platform::EventLoop other(t.clock);
  auto blocker = std::make_unique<platform::TcpSocket>(other);
  uint16_t port = 0;
  for (uint16_t p = 21000 + static_cast<uint16_t>(t.clock.NowMs() % 7000); p < 32000 && !port; p += 13) {
    blocker->SetLocalPort(p);
    if (!blocker->Listen()) port = p;
  }
  ASSERT_NE(port, 0);
  WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1," + std::to_string(port) + ",2,3\r\n");
  StartService(t);
  t->loop().RunFor(70'000);
  const std::string trace = ReadFile(t.ProgramTrace());
  ASSERT_NE(trace.find("Listening Port: " + std::to_string(port) + "\r\n"), std::string::npos);
  EXPECT_TRUE(listener::ListenerOf(*t).RetryingListen());
  const size_t lines = Lines(t.ProgramTrace()).size();
  t->loop().RunFor(120'000);  // four quiet attempts while the port is taken
  EXPECT_EQ(Lines(t.ProgramTrace()).size(), lines);
  EXPECT_NE(listener::ListenerOf(*t).Listener().State(), platform::TcpSocket::kListening);
  blocker.reset();  // the port is free: the next attempt takes it
  t->loop().RunFor(30'000);
  EXPECT_EQ(listener::ListenerOf(*t).Listener().State(), platform::TcpSocket::kListening);
  EXPECT_EQ(listener::ListenerOf(*t).Listener().LocalPort(), port);
  EXPECT_FALSE(listener::ListenerOf(*t).RetryingListen());
  EXPECT_EQ(Lines(t.ProgramTrace()).size(), lines);
}

TEST(Lifecycle, ServerWithAColonIsShownWithoutThePortSuffix) {
  TestAgent t;
  WriteFile(t.dir.File("TDRegInfo.TXT"), "Server=login.example:https\r\nListeningPorts=1,0,2,3\r\n");
  StartService(t);
  std::string trace = ReadFile(t.ProgramTrace());
  EXPECT_NE(trace.find("\r\nTD Server: login.example:https\r\nExtension: 1234\r\n"), std::string::npos);
}

TEST(Lifecycle, StopWritesTheStopBannerToTheProgramTraceOnly) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  Service_Stop(*t);
  auto msgs = t.Messages();
  ASSERT_GE(msgs.size(), 4u);
  EXPECT_EQ(msgs[msgs.size() - 4], "Information in TDACLI: TD Agent Client Login Service Stopped");
  EXPECT_EQ(msgs[msgs.size() - 3], "Information in TDACLI: **********");
  EXPECT_EQ(msgs[msgs.size() - 2], "Information in TDACLI: *  STOP  *");
  EXPECT_EQ(msgs[msgs.size() - 1], "Information in TDACLI: **********");
  std::string host = ReadFile(t.HostTrace());
  EXPECT_NE(host.find("TD Agent Client Login Service Stopped"), std::string::npos);
  EXPECT_EQ(host.find("STOP  *"), std::string::npos);
  EXPECT_TRUE(t->Ended());
}

TEST(Lifecycle, ShutdownLogsWindowsShutdownThenStops) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  Service_ShutDown(*t);
  auto msgs = t.Messages();
  EXPECT_EQ(msgs[3], "Trace in TDACLI: Windows Shutdown");
  EXPECT_EQ(msgs[4], "Information in TDACLI: TD Agent Client Login Service Stopped");
  EXPECT_TRUE(t->Ended());
}

TEST(Lifecycle, ServiceStartBesideTheUserSessionMarkerEndsAtOnceAsFailedAndSaysWhy) {
  TestAgent t;
  WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1,0,2,3\r\n");
  WriteFile(t.dir.File("thinterminal.dat"), "");
  t.service_host.scm_waits = true;  // a Windows service manager started the process
  Form_Load(*t);
  EXPECT_TRUE(t->Ended());
  EXPECT_EQ(t.service_host.start_failures, std::vector<unsigned long>{1});
  EXPECT_EQ(t.service_host.running_reports, 0);
  EXPECT_EQ(t.service_host.install_calls, 0);
  EXPECT_TRUE(t.dialogs.shown.empty());
  // Nothing of a run started: no start-up timer, no listener, no login timers.
  EXPECT_FALSE(t->startup_timer.Enabled());
  EXPECT_FALSE(t->request_file_timer.Enabled());
  EXPECT_FALSE(t->trigger_file_timer.Enabled());
  EXPECT_EQ(listener::ListenerOf(*t).Listener().State(), 0);
  const std::string line = "Error in TDACLI: THINTERMINAL - Started by the Service Manager, but [" +
                           t.dir.File("thinterminal.dat") +
                           "] is present: the agent runs in each user's session on this computer, so the service "
                           "does not start (service-specific exit code 1)";
  EXPECT_EQ(t.Messages(), (std::vector<std::string>{"Trace in TDACLI: *************", "Trace in TDACLI: *  STARTUP  *",
                                                    "Trace in TDACLI: *************",
                                                    "Trace in TDACLI: Set Local IP to: 192.168.5.20", line}));
  // Both trace files hold it; beside the marker nothing goes to the event log or the error log.
  EXPECT_NE(ReadFile(t.HostTrace()).find("Error in tdacli: " + line.substr(line.find("THINTERMINAL"))),
            std::string::npos);
  EXPECT_TRUE(t.event_log.entries.empty());
  EXPECT_FALSE(Exists(t.ErrorLog()));
}

TEST(Lifecycle, WithoutAServiceManagerWaitingTheMarkerStillMeansUserSessionMode) {
  // The POSIX foreground run: nobody waits for a start report, so the marker selects the user session.
  TestAgent t;
  WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1,0,2,3\r\n");
  WriteFile(t.dir.File("thinterminal.dat"), "");
  ASSERT_FALSE(t.service_host.scm_waits);
  Form_Load(*t);
  t->loop().RunFor(1000);
  EXPECT_FALSE(t->Ended());
  EXPECT_TRUE(t.service_host.start_failures.empty());
  EXPECT_NE(ReadFile(t.ProgramTrace()).find("Running As: UserSession (Terminal Server)\r\n"), std::string::npos);
}

TEST(Lifecycle, ServiceStartWithoutTheMarkerRunsAsTheService) {
  TestAgent t;
  WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1,0,2,3\r\n");
  t.service_host.scm_waits = true;
  StartService(t);
  EXPECT_FALSE(t->Ended());
  EXPECT_TRUE(t.service_host.start_failures.empty());
  EXPECT_EQ(t.service_host.running_reports, 1);
  EXPECT_NE(ReadFile(t.ProgramTrace()).find("Running As: WinService\r\n"), std::string::npos);
}

TEST(Lifecycle, StopRequestFromTheHostEndsTheLoop) {
  TestAgent t;
  WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1,0,2,3\r\n");
  StartService(t);
  t.service_host.events.on_stop();
  t->loop().Run();  // returns because the process ended
  EXPECT_TRUE(t->Ended());
  EXPECT_EQ(t.Messages().back(), "Information in TDACLI: **********");
}

TEST(Lifecycle, ClosingTheFormIsRefusedInServiceMode) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  bool cancel = false;
  Form_QueryUnload(*t, cancel);
  EXPECT_TRUE(cancel);
  EXPECT_EQ(t.Messages().back(), "Trace in TDACLI: Form_QueryUnload Invoked");
  EXPECT_FALSE(t->Ended());
}

TEST(Lifecycle, ClosingTheFormInUserSessionModeStops) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  WriteFile(t.dir.File("thinterminal.dat"), "");
  bool cancel = false;
  Form_QueryUnload(*t, cancel);
  EXPECT_FALSE(cancel);
  EXPECT_TRUE(t->Ended());
  EXPECT_EQ(t.Messages().back(), "Information in TDACLI: **********");
}

TEST(Lifecycle, PauseContinueAndUnknownCodesAreRefusedWithWarnings) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  Service_Pause(*t);
  Service_Continue(*t);
  for (int code : {129, 130, 134, 140}) Service_Control(*t, code);
  auto msgs = t.Messages();
  EXPECT_EQ(msgs[3],
            "Warning in TDACLI: The service received, and discarded, a 'Pause' request. This service does not "
            "accept pause/continue requests.");
  EXPECT_EQ(msgs[4],
            "Warning in TDACLI: The service received, and discarded, a 'Continue' request. This service does not "
            "accept pause/continue requests.");
  EXPECT_EQ(msgs[5],
            "Warning in TDACLI: The message (129) was recevied and discarded. The service does not recognize that "
            "request");
  EXPECT_EQ(msgs[8],
            "Warning in TDACLI: The message (140) was recevied and discarded. The service does not recognize that "
            "request");
  EXPECT_EQ(t.event_log.entries.size(), 6u);
}

TEST(Lifecycle, ReplyCodesSetTheReplyFlags) {
  TestAgent t;
  Service_Control(*t, 131);
  EXPECT_EQ(t->media_transfer_reply.value(), 1);
  Service_Control(*t, 132);
  EXPECT_EQ(t->media_transfer_reply.value(), 2);
  Service_Control(*t, 141);
  EXPECT_EQ(t->trace_file_reply.Text(), "1");
  Service_Control(*t, 142);
  EXPECT_EQ(t->trace_file_reply.Text(), "2");
  EXPECT_FALSE(Exists(t.ProgramTrace()));
}

// --- installer mode

struct Installer : ::testing::Test {
  Installer() { t.service_host.started_by_scm = false; }
  void Run(const std::string& cmd) {
    AgentOptions o;
    o.exe_folder = t.dir.path();
    o.command_line = cmd;
    t.agent = NewAgent(
        AgentFacilities{t.clock, t.host, t.event_log, t.service_control, t.dialogs, t.service_host, t.http, t.internet}, o);
    Form_Load(*t);
  }
  TestAgent t;
};

TEST_F(Installer, InstallsUnderTheLocalSystemAccountAndTellsTheUser) {
  Run("tdacli.exe");
  EXPECT_EQ(t.service_host.install_calls, 1);
  EXPECT_EQ(t.service_host.installed_account, "");
  EXPECT_EQ(t.service_host.installed_password, "");
  ASSERT_EQ(t.dialogs.shown.size(), 1u);
  EXPECT_EQ(t.dialogs.shown[0].first,
            "The Tyndrel Agent Client Login Service has been installed. You may now run it from the WindowsNT "
            "Service Manager!");
  EXPECT_EQ(t.dialogs.shown[0].second, "Tyndrel - By Marlock!");
  EXPECT_TRUE(t->Ended());
  EXPECT_EQ(t.Messages().back(), "Trace in TDACLI: Form_Load Invoked");
}

TEST_F(Installer, SilentInstallShowsNoMessageBox) {
  Run("tdacli.exe /s");
  EXPECT_EQ(t.service_host.install_calls, 1);
  EXPECT_TRUE(t.dialogs.shown.empty());
}

TEST_F(Installer, AccountAndPasswordAreParsedThenDropped) {
  Run("tdacli.exe /account=CORP\\svc-agent /password=Secret1");
  EXPECT_EQ(t.service_host.install_calls, 1);
  EXPECT_EQ(t.service_host.installed_account, "");
  EXPECT_EQ(t.service_host.installed_password, "");
}

TEST_F(Installer, AlreadyInstalledIsReported) {
  t.service_host.installed = true;
  Run("tdacli.exe");
  EXPECT_EQ(t.service_host.install_calls, 0);
  ASSERT_EQ(t.dialogs.shown.size(), 1u);
  EXPECT_EQ(t.dialogs.shown[0].first,
            "The Tyndrel Agent Client Login Service has already been installed. You can only run it from the "
            "WindowsNT Service Manager!");
}

TEST_F(Installer, AlreadyInstalledAndSilentSaysNothing) {
  t.service_host.installed = true;
  Run("tdacli.exe /s");
  EXPECT_TRUE(t.dialogs.shown.empty());
  EXPECT_TRUE(t->Ended());
}

TEST_F(Installer, UninstallWithSilentShowsNoMessageBox) {
  t.service_host.installed = true;
  Run("tdacli.exe /u /s");
  EXPECT_EQ(t.service_host.uninstall_calls, 1);
  EXPECT_TRUE(t.dialogs.shown.empty());
  EXPECT_FALSE(t.service_host.installed);
  EXPECT_TRUE(t->Ended());
}

TEST_F(Installer, UninstallTellsTheUser) {
  t.service_host.installed = true;
  Run("tdacli.exe /u");
  EXPECT_EQ(t.service_host.uninstall_calls, 1);
  ASSERT_EQ(t.dialogs.shown.size(), 1u);
  EXPECT_EQ(t.dialogs.shown[0].first, "The Tyndrel Agent Client Login Service has been uninstalled!");
}

TEST_F(Installer, UninstallSwitchIsCaseSensitive) {
  Run("tdacli.exe /U /s");
  EXPECT_EQ(t.service_host.uninstall_calls, 0);
  EXPECT_EQ(t.service_host.install_calls, 1);
}

TEST_F(Installer, StartedByTheServiceManagerDoesNotInstall) {
  t.service_host.started_by_scm = true;
  Run("tdacli.exe /s");
  EXPECT_EQ(t.service_host.install_calls, 0);
  EXPECT_FALSE(t->Ended());
}

TEST_F(Installer, PasswordBeforeAccountIsAnErrorThatEndsTheProcess) {
  Run("tdacli.exe /password=x /account=y");
  EXPECT_EQ(t.service_host.install_calls, 0);
  EXPECT_TRUE(t->Ended());
  EXPECT_EQ(t.Messages().back(),
            "Error in TDACLI: Detected Error In Form_Load() Routine:5, Invalid procedure call or argument");
}

TEST(AccountParsing, BothParts) {
  auto a = ParseAccount("tdacli.exe /Account= CORP\\svc  /PASSWORD= pw 1 ");
  ASSERT_TRUE(a);
  EXPECT_TRUE(a->account_given);
  EXPECT_TRUE(a->password_given);
  EXPECT_EQ(a->account, "CORP\\svc");
  EXPECT_EQ(a->password, "pw 1");
}

TEST(AccountParsing, AccountEndsBeforeTheCharacterPrecedingPassword) {
  auto a = ParseAccount("/account=bob/password=x");
  ASSERT_TRUE(a);
  EXPECT_EQ(a->account, "bo");
  EXPECT_EQ(a->password, "x");
}

TEST(AccountParsing, OnlyTheAccountIsTakenUntrimmed) {
  auto a = ParseAccount("tdacli.exe /account= bob ");
  ASSERT_TRUE(a);
  EXPECT_TRUE(a->account_given);
  EXPECT_FALSE(a->password_given);
  EXPECT_EQ(a->account, " bob ");
}

TEST(AccountParsing, NeitherPartOrOnlyPasswordGivesNothing) {
  for (const char* cmd : {"tdacli.exe /s", "tdacli.exe /password=x", ""}) {
    auto a = ParseAccount(cmd);
    ASSERT_TRUE(a);
    EXPECT_FALSE(a->account_given) << cmd;
    EXPECT_FALSE(a->password_given) << cmd;
  }
}

TEST(AccountParsing, FtpInAnyCaseIsNotTaken) {
  for (const char* cmd : {"/account=FTP /password=x", "/account=Ftp", "/account=ftp /password=y"}) {
    auto a = ParseAccount(cmd);
    ASSERT_TRUE(a);
    EXPECT_FALSE(a->account_given) << cmd;
    EXPECT_EQ(a->account, "") << cmd;
    EXPECT_EQ(a->password, "") << cmd;
  }
}

}  // namespace
}  // namespace tdacli
