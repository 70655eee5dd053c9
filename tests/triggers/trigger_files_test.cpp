// The trigger-file login poller: logins and logoffs from files, their retries, the codec install, the
// live id and the phone-home schedule, on the simulated clock against the login server simulator.
#include <gtest/gtest.h>

#include <filesystem>

#include "login/login_fixture.h"
#include "service/control.h"
#include "service/request_files.h"
#include "triggers/trigger_files.h"

namespace tdacli {
namespace {

using testing::Exists;
using testing::ReadFile;
using testing::WriteFile;

size_t Count(const std::vector<std::string>& msgs, const std::string& m) {
  return static_cast<size_t>(std::count(msgs.begin(), msgs.end(), m));
}
bool Has(const std::vector<std::string>& msgs, const std::string& m) { return Count(msgs, m) > 0; }
bool HasPrefix(const std::vector<std::string>& msgs, const std::string& p) {
  return std::any_of(msgs.begin(), msgs.end(), [&](const std::string& m) { return m.rfind(p, 0) == 0; });
}
// Position of a message (msgs.size() when missing).
size_t At(const std::vector<std::string>& msgs, const std::string& m) {
  return static_cast<size_t>(std::find(msgs.begin(), msgs.end(), m) - msgs.begin());
}

struct TriggerFilePoller : ::testing::Test, testing::LoginFixture {
  TriggerFilePoller() {
    t->trigger_file_timer.on_tick = [this] { tmrPollForLogin_Timer(*t); };
    t->request_file_timer.on_tick = [this] { tmrMessage_Timer(*t); };
    // TDACMT answers the server-temp check at once, through the control handler; every code sent is
    // noted with the clock.
    t.service_control.on_send = [this](const std::string& service, int code) {
      sends.push_back({service + ":" + std::to_string(code), Now()});
      if (service == "TDACMT" && code == 130) t->loop().Post([this] { Service_Control(*t, 131); });
    };
  }
  void WriteSettings(const std::string& user) {
    WriteFile(App("TDRegInfo.TXT"), "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=4711\r\nServer=" +
                                        server->address() + "\r\nCurrentUser=" + user +
                                        "\r\nSvrTemp=Unknown\r\nListeningPorts=1,0,2,3\r\n");
  }
  static loginsim::UserRecord User() {
    loginsim::UserRecord u = testing::Jsmith();
    u.server_temp = "NoScreenCapture";
    u.local_temp = "c:\\%appdir%\\Capture";
    u.hundred_screen = "SCR:010|ATLOGO:2|010|001";
    return u;
  }
  void Start(const std::string& user = "jsmith", loginsim::UserRecord record = User()) {
    StartServer(testing::Users({record}));
    WriteSettings(user);
  }
  // Starts the poller as the start-up work does and runs the loop until `done` or `seconds` of clock.
  bool RunPoller(double seconds, const std::function<bool()>& done) {
    t->trigger_file_timer.SetInterval(3000);
    t->trigger_file_timer.SetEnabled(true);
    return t->WaitUntil(seconds, done);
  }
  std::vector<std::string> Sent() const {
    std::vector<std::string> out;
    for (const auto& s : sends) out.push_back(s.what);
    return out;
  }
  std::string LoginFile() { return App("PerformLogin.TXT"); }
  std::string LogoffFile() { return App("PerformLogoff.TXT"); }

  struct Send {
    std::string what;
    int64_t at;
  };
  std::vector<Send> sends;
};

TEST_F(TriggerFilePoller, LoginFileLogsTheUserInRunsThePostLoginStepsAndGoes) {
  Start();
  WriteFile(LoginFile(), "");
  tmrPollForLogin_Timer(*t);
  EXPECT_FALSE(Exists(LoginFile()));
  EXPECT_TRUE(t->login().LoginSucceeded);
  EXPECT_EQ(t->poller.retry_counter, 0);
  auto msgs = t.Messages();
  const size_t notified = At(msgs,
                             "Trace in TDACLI: Received notification user (jsmith) just logged in, updating TD Server "
                             "via FILE TRIGGERED login.");
  const size_t logged_in =
      At(msgs, "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User (jsmith) to Server (" +
                   server->address() + ")");
  const size_t deleted = At(msgs, "Trace in TDACLI: Deleted File After login [" + LoginFile() + "]");
  ASSERT_LT(deleted, msgs.size());
  EXPECT_LT(notified, logged_in);
  EXPECT_LT(logged_in, deleted);
  // The post-login steps: parameter and web-cam files, and 131 to TDACMT ("NoScreenCapture": no check).
  EXPECT_EQ(ReadFile(App("100ScreenParam.TXT")), "SCR:010|ATLOGO:2|010|001\r\n");
  EXPECT_EQ(ReadFile(App("UseWebCam.TXT")), "WEBCAM=True\r\n");
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACMT:131"}));
  // The timer is on again at the end of the pass.
  EXPECT_TRUE(t->trigger_file_timer.Enabled());
}

TEST_F(TriggerFilePoller, TheFileTriggeredLoginRunsTheTempCheckAndStatusReport) {
  loginsim::UserRecord u = User();
  u.server_temp = "\\\\fs01\\tdtemp\\";
  Start("jsmith", u);
  WriteFile(LoginFile(), "");
  tmrPollForLogin_Timer(*t);
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACMT:130", "TDACMT:131"}));
  EXPECT_TRUE(t->login().StatusSucceeded);
  auto requests = server->Requests();
  EXPECT_NE(std::find(requests.begin(), requests.end(), "STATUS0"), requests.end());
}

TEST_F(TriggerFilePoller, BothTriggerFilesTheLogoffFileGoesAndOnlyTheLoginRuns) {
  Start();
  WriteFile(LoginFile(), "");
  WriteFile(LogoffFile(), "");
  tmrPollForLogin_Timer(*t);
  EXPECT_FALSE(Exists(LogoffFile()));
  EXPECT_FALSE(Exists(LoginFile()));
  auto msgs = t.Messages();
  EXPECT_EQ(msgs.front(), "Trace in TDACLI: Found PerformLogin.TXT and PerformLogoff.TXT Files, Deleted Logoff File [" +
                              LogoffFile() + "]");
  EXPECT_TRUE(Has(msgs, "Trace in TDACLI: Deleted File After login [" + LoginFile() + "]"));
  EXPECT_FALSE(Has(msgs, "Trace in TDACLI: Received notification user (jsmith) just logged off."));
  for (const auto& r : server->Requests()) EXPECT_NE(r.rfind("Logoff", 0), 0u) << r;
}

TEST_F(TriggerFilePoller, ALogoffFileThatCannotBeDeletedAtLoginIsReportedAndThenRunsTheLogoff) {
  Start();
  WriteFile(LoginFile(), "");
  WriteFile(LogoffFile(), "");
  t->refuse_delete = [this](const std::string& p) { return p == LogoffFile(); };
  tmrPollForLogin_Timer(*t);
  auto msgs = t.Messages();
  EXPECT_EQ(msgs.front(), "Trace in TDACLI: File Exists After Deletion[1], [" + LogoffFile() + "]");
  // The file is still there after the login, so the same pass runs the logoff for it.
  const size_t login = At(msgs, "Trace in TDACLI: Deleted File After login [" + LoginFile() + "]");
  const size_t logoff = At(msgs, "Trace in TDACLI: Received notification user (jsmith) just logged off.");
  ASSERT_LT(logoff, msgs.size());
  EXPECT_LT(login, logoff);
  EXPECT_EQ(msgs.back(), "Trace in TDACLI: File Exists After Deletion[4], [" + LogoffFile() + "]");
}

TEST_F(TriggerFilePoller, LogoffFileGoesBeforeTheLogoffRuns) {
  Start();
  WriteFile(LogoffFile(), "");
  bool file_gone_at_logoff = false;
  t->os_code = 51;  // TDACSC hears 130 as a control code
  auto previous = t.service_control.on_send;
  t.service_control.on_send = [&, previous](const std::string& service, int code) {
    if (service == "TDACSC") file_gone_at_logoff = !Exists(LogoffFile());
    previous(service, code);
  };
  tmrPollForLogin_Timer(*t);
  EXPECT_TRUE(file_gone_at_logoff);
  EXPECT_TRUE(t->login().LogoffSucceeded);
  auto msgs = t.Messages();
  EXPECT_EQ(msgs.front(), "Trace in TDACLI: Received notification user (jsmith) just logged off.");
  EXPECT_EQ(msgs.back(), "Trace in TDACLI: Deleted File After LogOff [" + LogoffFile() + "]");
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACSC:130"}));
}

TEST_F(TriggerFilePoller, ALoginFileThatCannotBeDeletedAfterSuccessLogsInAgainAtTheNextTick) {
  Start();
  WriteFile(LoginFile(), "");
  t->refuse_delete = [this](const std::string& p) { return p == LoginFile(); };
  const std::string again =
      "Trace in TDACLI: Received notification user (jsmith) just logged in, updating TD Server via FILE TRIGGERED "
      "login.";
  ASSERT_TRUE(RunPoller(30, [&] { return Count(t.Messages(), again) >= 2; }));
  auto msgs = t.Messages();
  // One line after each of the two logins.
  EXPECT_EQ(Count(msgs, "Trace in TDACLI: File Exists After Deletion[2], [" + LoginFile() + "]"), 2u);
  EXPECT_FALSE(HasPrefix(msgs, "Trace in TDACLI: Deleted File After login ["));
  EXPECT_EQ(t->poller.retry_counter, 0);
}

TEST_F(TriggerFilePoller, AFailingLoginEarnsSixteenAttemptsWithFifteenWaitsThenTheFileGoes) {
  Start("nobody");
  WriteFile(LoginFile(), "");
  ASSERT_TRUE(RunPoller(600, [&] { return !Exists(LoginFile()); }));
  auto msgs = t.Messages();
  EXPECT_EQ(Count(msgs,
                  "Trace in TDACLI: Received notification user (nobody) just logged in, updating TD Server via FILE "
                  "TRIGGERED login."),
            16u);
  for (int i = 1; i <= 15; ++i)
    EXPECT_EQ(Count(msgs, "Trace in TDACLI: LOGIN NOT OKAY, Delaying 15 Seconds, Trying Again [Attempt=" +
                              std::to_string(i) + "]."),
              1u)
        << i;
  EXPECT_FALSE(HasPrefix(msgs, "Trace in TDACLI: LOGIN NOT OKAY, Delaying 15 Seconds, Trying Again [Attempt=16]"));
  EXPECT_EQ(msgs[msgs.size() - 2], "Trace in TDACLI: LOGIN NOT OKAY, Tried 15 Times, Giving Up!");
  EXPECT_EQ(msgs.back(), "Trace in TDACLI: Deleted File After Failed Login [" + LoginFile() + "]");
  EXPECT_EQ(t->poller.retry_counter, 0);
  // Every attempt ends with 131 to TDACMT; between two of them lie the 15-s wait and the 3-s interval.
  ASSERT_EQ(sends.size(), 16u);
  for (size_t i = 1; i < sends.size(); ++i) {
    const int64_t gap = sends[i].at - sends[i - 1].at;
    EXPECT_GE(gap, 18'000) << i;
    EXPECT_LT(gap, 19'000) << i;
  }
  // The giving-up tick is the last: nothing more happens for the missing file.
  t->WaitSeconds(30);
  EXPECT_EQ(sends.size(), 16u);
  EXPECT_TRUE(t->trigger_file_timer.Enabled());
}

TEST_F(TriggerFilePoller, ALoginFileThatSurvivesGivingUpStartsAFreshRoundOfAttempts) {
  Start("nobody");
  WriteFile(LoginFile(), "");
  t->refuse_delete = [this](const std::string& p) { return p == LoginFile(); };
  const std::string gave_up = "Trace in TDACLI: File Exists After Deletion[3], [" + LoginFile() + "]";
  ASSERT_TRUE(RunPoller(600, [&] { return Has(t.Messages(), gave_up); }));
  EXPECT_EQ(t->poller.retry_counter, 0);
  EXPECT_EQ(sends.size(), 16u);
  ASSERT_TRUE(t->WaitUntil(30, [&] { return sends.size() == 17u; }));
  EXPECT_EQ(t->poller.retry_counter, 1);
}

TEST_F(TriggerFilePoller, TheTimerIsOffWhileThePassWaitsAndTheNextTickComesThreeSecondsAfterIt) {
  Start("nobody");
  WriteFile(LoginFile(), "");
  int depth = 0, max_depth = 0;
  std::vector<int64_t> starts, ends;
  t->trigger_file_timer.on_tick = [&] {
    max_depth = std::max(max_depth, ++depth);
    starts.push_back(Now());
    tmrPollForLogin_Timer(*t);
    ends.push_back(Now());
    --depth;
  };
  // Looks at the timer from inside the passes' waits.
  platform::Timer probe(t->loop());
  std::vector<bool> enabled_in_pass;
  probe.SetInterval(1000);
  probe.on_tick = [&] {
    if (depth > 0) enabled_in_pass.push_back(t->trigger_file_timer.Enabled());
  };
  probe.SetEnabled(true);
  ASSERT_TRUE(RunPoller(120, [&] { return ends.size() >= 3u; }));
  EXPECT_EQ(max_depth, 1);
  ASSERT_GE(enabled_in_pass.size(), 30u);  // 15 s of waiting in each pass
  for (bool e : enabled_in_pass) EXPECT_FALSE(e);
  for (size_t i = 0; i < 3; ++i) EXPECT_GE(ends[i] - starts[i], 15'000) << i;
  for (size_t i = 1; i < 3; ++i) EXPECT_EQ(starts[i] - ends[i - 1], 3'000) << i;
}

TEST_F(TriggerFilePoller, RequestFilesAreHandledDuringTheRetryWait) {
  Start("nobody");
  WriteFile(LoginFile(), "");
  t->request_file_timer.SetEnabled(true);
  bool in_pass = false, written = false, handled_in_wait = false;
  t->trigger_file_timer.on_tick = [&] {
    in_pass = true;
    tmrPollForLogin_Timer(*t);
    in_pass = false;
  };
  platform::Timer probe(t->loop());
  probe.SetInterval(1000);
  probe.on_tick = [&] {
    if (!in_pass || t->poller.retry_counter != 1) return;
    if (!written) {
      WriteFile(App("20261114231510.TDACLI"), "Code=141\r\n");
      written = true;
    } else if (t->trace_file_reply.Text() == "1") {
      handled_in_wait = true;
    }
  };
  probe.SetEnabled(true);
  ASSERT_TRUE(RunPoller(60, [&] { return t->poller.retry_counter >= 1 && !in_pass; }));
  EXPECT_TRUE(written);
  EXPECT_TRUE(handled_in_wait);
  EXPECT_FALSE(Exists(App("20261114231510.TDACLI")));
}

TEST_F(TriggerFilePoller, TsccBatWithoutALoginFileIsIgnored) {
  Start();
  WriteFile(App("TSCC.bat"), "");
  int started = 0;
  t->poller.start_process = [&](const std::string&) { return static_cast<unsigned long>(++started); };
  ASSERT_FALSE(RunPoller(10, [] { return false; }));
  EXPECT_EQ(started, 0);
  EXPECT_TRUE(Exists(App("TSCC.bat")));
  EXPECT_TRUE(t.Messages().empty());
}

TEST_F(TriggerFilePoller, TsccBatWithALoginFileInstallsTheCodecWaitsAndDeletesIt) {
  Start();
  WriteFile(LoginFile(), "");
  WriteFile(App("TSCC.bat"), "");
  std::vector<std::string> commands;
  int64_t started_at = 0, bat_deleted_at = 0;
  t->poller.start_process = [&](const std::string& command) {
    commands.push_back(command);
    started_at = Now();
    WriteFile(App("TSCCLog.txt"), std::string(1234, 'x'));  // the installer's log
    return 4242ul;
  };
  t->refuse_delete = [&](const std::string& p) {
    if (p == App("TSCC.bat")) bat_deleted_at = Now();
    return false;
  };
  tmrPollForLogin_Timer(*t);
  const std::string command = "MSIExec.exe /package \"" + App("TSCC.msi") + "\" /quiet /Log \"" + App("TSCCLog.txt") + "\"";
  EXPECT_EQ(commands, std::vector<std::string>{command});
  EXPECT_FALSE(Exists(App("TSCC.bat")));
  // 20 s inside the install, then 5 s before the delete.
  EXPECT_GE(bat_deleted_at - started_at, 25'000);
  EXPECT_LT(bat_deleted_at - started_at, 26'000);
  auto msgs = t.Messages();
  const std::vector<std::string> expected = {
      "Trace in TDACLI: Found TSCC.bat, Installing Codec!",
      "Trace in TDACLI: INSTALL CODEC: Set Command to [" + command + "] Set LogFileName to [" + App("TSCCLog.txt") + "]",
      "Trace in TDACLI: INSTALL CODEC: Shell Execute [" + command + "]",
      "Trace in TDACLI: INSTALL CODEC: Return Code [4242], Pausing 20 Seconds",
      "Trace in TDACLI: INSTALL CODEC: Install Log [" + App("TSCCLog.txt") + "] has [1234] bytes",
      "Trace in TDACLI: Deleted TSCC.bat after Install!",
      "Trace in TDACLI: Received notification user (jsmith) just logged in, updating TD Server via FILE TRIGGERED "
      "login."};
  ASSERT_GE(msgs.size(), expected.size());
  EXPECT_EQ(std::vector<std::string>(msgs.begin(), msgs.begin() + static_cast<long>(expected.size())), expected);
  EXPECT_FALSE(Exists(LoginFile()));
}

TEST_F(TriggerFilePoller, ACodecInstallThatCannotStartLogsProcessIdZeroAndStillDeletesTheBat) {
  Start();
  WriteFile(LoginFile(), "");
  WriteFile(App("TSCC.bat"), "");
  t->poller.start_process = [](const std::string&) { return 0ul; };
  tmrPollForLogin_Timer(*t);
  EXPECT_FALSE(Exists(App("TSCC.bat")));
  auto msgs = t.Messages();
  EXPECT_TRUE(Has(msgs, "Trace in TDACLI: INSTALL CODEC: Return Code [0], Pausing 20 Seconds"));
  // No installer, no log: the size line is left out silently.
  EXPECT_FALSE(HasPrefix(msgs, "Trace in TDACLI: INSTALL CODEC: Install Log ["));
  EXPECT_TRUE(Has(msgs, "Trace in TDACLI: Deleted TSCC.bat after Install!"));
  EXPECT_TRUE(t->login().LoginSucceeded);
}

#ifndef _WIN32
// Here the real process start looks the installer up on PATH, where no "MSIExec.exe" exists. (Under
// Windows the system's own installer would run: the Wine end-to-end run puts a stand-in beside the
// agent instead.)
TEST_F(TriggerFilePoller, TheRealProcessStartWithoutAnInstallerLogsProcessIdZero) {
  WriteFile(App("TSCC.bat"), "");
  InstallCodec(*t);
  EXPECT_TRUE(Has(t.Messages(), "Trace in TDACLI: INSTALL CODEC: Return Code [0], Pausing 20 Seconds"));
}
#endif

TEST_F(TriggerFilePoller, AUsableLiveIdWritesItsFileTheRemoteControlSettingsAndTheLoadRequest) {
  loginsim::UserRecord u = User();
  u.live_id = "48213:10.1.2.3:5020:F";
  Start("jsmith", u);
  std::filesystem::create_directories(t->app_folder + "RC");
  WriteFile(LoginFile(), "");
  tmrPollForLogin_Timer(*t);
  EXPECT_EQ(ReadFile(App("TDLiveID.INI")),
            "[LiveID]\r\nTDLiveID=48213\r\nRepeaterIP=10.1.2.3\r\nRepeaterPort=5020\r\nPeerToPeerCapable=False\r\n");
  EXPECT_TRUE(Exists(t->app_folder + "RC" + kSepStr + "TDACVC.INI"));
  int load_requests = 0;
  for (auto& e : std::filesystem::directory_iterator(t.dir.path()))
    if (e.path().extension() == ".TDACLD") load_requests += ReadFile(e.path().string()) == "LOAD=TDACVC\r\n";
  EXPECT_EQ(load_requests, 1);
}

TEST_F(TriggerFilePoller, APeerToPeerWorkstationGetsNoLoadRequest) {
  Start();  // live id ends in ":T"
  WriteFile(LoginFile(), "");
  tmrPollForLogin_Timer(*t);
  EXPECT_TRUE(Exists(App("TDLiveID.INI")));
  for (auto& e : std::filesystem::directory_iterator(t.dir.path())) EXPECT_NE(e.path().extension(), ".TDACLD");
}

class PollerLiveId : public TriggerFilePoller, public ::testing::WithParamInterface<std::string> {};

TEST_P(PollerLiveId, AnUnusableLiveIdSkipsActOnLiveID) {
  loginsim::UserRecord u = User();
  u.live_id = GetParam() + ":10.1.2.3:5020:F";
  Start("jsmith", u);
  WriteFile(LoginFile(), "");
  tmrPollForLogin_Timer(*t);
  ASSERT_TRUE(t->login().LoginSucceeded);
  EXPECT_EQ(t->login().TDLiveID, GetParam());
  EXPECT_FALSE(Exists(App("TDLiveID.INI")));
  for (auto& e : std::filesystem::directory_iterator(t.dir.path())) EXPECT_NE(e.path().extension(), ".TDACLD");
  EXPECT_FALSE(HasPrefix(t.Messages(), "Trace in TDACLI: Saved [TDLiveID="));
}

INSTANTIATE_TEST_SUITE_P(ZeroMinusOneEmpty, PollerLiveId, ::testing::Values("0", "-1", ""));

TEST_F(TriggerFilePoller, WithThePhoneHomeFlagOffNoCallIsEverMade) {
  int calls = 0;
  t->poller.phone_home = [&](Agent&) { ++calls; };
  t->WriteLogin().PhoneHome = false;
  t->WriteLogin().NextPhoneHomeMs = 0;  // long past
  RunPoller(120, [] { return false; });
  EXPECT_EQ(calls, 0);
}

TEST_F(TriggerFilePoller, WithThePhoneHomeFlagOnTheCallComesWhenDueAndThirtySecondsLaterAgain) {
  std::vector<int64_t> calls;
  t->poller.phone_home = [&](Agent&) { calls.push_back(Now()); };
  t->WriteLogin().PhoneHome = true;
  const int64_t start = Now();
  t->WriteLogin().NextPhoneHomeMs = start + 7'000;
  RunPoller(80, [] { return false; });
  // Ticks every 3 s: the first one past the time is at 9 s; then 30 s later on, the first tick past it.
  ASSERT_GE(calls.size(), 3u);
  EXPECT_EQ(calls[0] - start, 9'000);
  EXPECT_GT(calls[1] - calls[0], 30'000);
  EXPECT_LE(calls[1] - calls[0], 33'000);
  EXPECT_GT(calls[2] - calls[1], 30'000);
  EXPECT_EQ(t->login().NextPhoneHomeMs, calls.back() + 30'000);
}

TEST_F(TriggerFilePoller, FoldersNamedLikeTheTriggerFilesAreNoTriggersAndStay) {
  Start();
  std::filesystem::create_directory(LoginFile());
  std::filesystem::create_directory(LogoffFile());
  RunPoller(10, [] { return false; });
  EXPECT_TRUE(std::filesystem::is_directory(LoginFile()));
  EXPECT_TRUE(std::filesystem::is_directory(LogoffFile()));
  EXPECT_TRUE(server->Requests().empty());
}

#ifndef _WIN32
TEST_F(TriggerFilePoller, ALinkNamedPerformLogoffGoesItselfAndItsTargetKeepsItsMode) {
  Start();
  testing::TempDir outside;
  const std::string victim = outside.File("victim.txt");
  WriteFile(victim, "outside");
  std::filesystem::permissions(victim, std::filesystem::perms::owner_read, std::filesystem::perm_options::replace);
  std::filesystem::create_symlink(victim, LogoffFile());
  tmrPollForLogin_Timer(*t);
  EXPECT_TRUE(t->login().LogoffSucceeded);
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(LogoffFile())));
  EXPECT_EQ(ReadFile(victim), "outside");
  EXPECT_EQ(std::filesystem::status(victim).permissions(), std::filesystem::perms::owner_read);
  EXPECT_EQ(t.Messages().back(), "Trace in TDACLI: Deleted File After LogOff [" + LogoffFile() + "]");
}

TEST_F(TriggerFilePoller, ALinkNamedTDLiveIDGoesBeforeTheLoginAndItsTargetStays) {
  Start();
  testing::TempDir outside;
  const std::string victim = outside.File("victim.INI");
  WriteFile(victim, "outside");
  std::filesystem::permissions(victim, std::filesystem::perms::owner_read, std::filesystem::perm_options::replace);
  std::filesystem::create_symlink(victim, App("TDLiveID.INI"));
  LoginUser(*t);
  EXPECT_TRUE(t->login().LoginSucceeded);
  EXPECT_EQ(ReadFile(victim), "outside");
  EXPECT_EQ(std::filesystem::status(victim).permissions(), std::filesystem::perms::owner_read);
  EXPECT_FALSE(std::filesystem::is_symlink(App("TDLiveID.INI")));
}
#endif

}  // namespace
}  // namespace tdacli
