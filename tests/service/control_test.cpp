// The service messages that drive a login and a logoff from end to end, against the login server
// simulator and a stand-in media-transfer service.
#include "service/control.h"

#include <gtest/gtest.h>

#include "login/login_fixture.h"
#include "platform/file_times.h"
#include "support/fault_file_system.h"
#include "triggers/frames.h"

namespace tdacli {
namespace {

using testing::Exists;
using testing::ReadFile;
using testing::WriteFile;

struct ControlChain : ::testing::Test, testing::LoginFixture {
  // TDACMT answers 130 with `code` (0: never) after a short while, through the control handler.
  void MediaTransferAnswers(int code) {
    t.service_control.on_send = [this, code](const std::string& service, int sent) {
      if (service != "TDACMT" || sent != 130 || code == 0) return;
      t->loop().Post([this, code] { Service_Control(*t, code); });
    };
  }
  void WriteSettings(const std::string& user) {
    WriteFile(t.dir.File("TDRegInfo.TXT"), "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=4711\r\nServer=" +
                                               server->address() + "\r\nCurrentUser=" + user +
                                               "\r\nListeningPorts=1,0,2,3\r\n");
  }
  static loginsim::UserRecord User(const std::string& server_temp) {
    loginsim::UserRecord u = testing::Jsmith();
    u.server_temp = server_temp;
    u.local_temp = "c:\\%appdir%\\Capture";
    u.hundred_screen = "SCR:010|ATLOGO:2|010|001";
    return u;
  }
  std::vector<std::string> Sent() const {
    std::vector<std::string> out;
    for (const auto& [service, code] : t.service_control.sent) out.push_back(service + ":" + std::to_string(code));
    return out;
  }
};

TEST_F(ControlChain, Code128RunsTheWholeLoginChain) {
  StartServer(testing::Users({User("\\\\fs01\\tdtemp\\:FTP@ftp.example.com:tduser:9F8E7D6C")}));
  WriteSettings("jsmith");
  MediaTransferAnswers(131);
  Service_Control(*t, 128);
  EXPECT_TRUE(t->login().LoginSucceeded);
  EXPECT_TRUE(t->login().StatusSucceeded);
  EXPECT_EQ(t->temp_access_status, 0);
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACMT:130", "TDACMT:131"}));
  // The server heard the status report after the login.
  auto requests = server->Requests();
  EXPECT_NE(std::find(requests.begin(), requests.end(), "STATUS0"), requests.end());
  EXPECT_EQ(ReadFile(App("100ScreenParam.TXT")), "SCR:010|ATLOGO:2|010|001\r\n");
  EXPECT_EQ(ReadFile(App("100Screen.KEK")), "KEK-0001\r\n");
  EXPECT_EQ(ReadFile(App("UseWebCam.TXT")), "WEBCAM=True\r\n");
  EXPECT_TRUE(Exists(App("TDACFTP.INI")));
  EXPECT_EQ(t->login().LastLoginResult,
            "The Tyndrel Agent Client Successfully Logged in User (jsmith).{CRLF}{CRLF}User has proper access to both "
            "temp folders.");
  auto msgs = t.Messages();
  EXPECT_NE(std::find(msgs.begin(), msgs.end(),
                      "Trace in TDACLI: Received notification user (jsmith) just logged in, updating TD Server via "
                      "SERVICE MESSAGE login."),
            msgs.end());
  // Parameters arrived, so nothing was wiped.
  for (const auto& m : msgs) EXPECT_EQ(m.find("WIPE OUT"), std::string::npos);
}

TEST_F(ControlChain, MediaTransferWithoutServerTempAccessIsReportedToTheServer) {
  StartServer(testing::Users({User("\\\\fs01\\tdtemp\\")}));
  WriteSettings("jsmith");
  MediaTransferAnswers(132);
  Service_Control(*t, 128);
  EXPECT_EQ(t->temp_access_status, 2);
  auto requests = server->Requests();
  EXPECT_NE(std::find(requests.begin(), requests.end(), "STATUS2"), requests.end());
  EXPECT_NE(t->login().LastLoginResult.find("{CRLF}{CRLF}[ERROR]User Can't Write to Server Temp of: \\\\fs01\\tdtemp\\"),
            std::string::npos);
  auto msgs = t.Messages();
  EXPECT_NE(std::find(msgs.begin(), msgs.end(),
                      "Warning in TDACLI: The Tyndrel Agent Client Successfully Updated Agent Status to (2) for User "
                      "(jsmith). However the user does not have proper permissions!"),
            msgs.end());
  EXPECT_EQ(Sent().back(), "TDACMT:131");
}

TEST_F(ControlChain, ALocalTempFolderOnAFullDiskIsReportedAsDiskFullAndStatusThree) {
  StartServer(testing::Users({User("\\\\fs01\\tdtemp\\")}));
  WriteSettings("jsmith");
  MediaTransferAnswers(132);
  testing::FaultFileSystem files;
  // The disk of the local temp folder the server names is full; the application folder's is not.
  const std::string capture = t->app_folder + "capture";
  files.full = [&](const std::string& p) { return p.rfind(capture, 0) == 0; };
  t->file_system = &files;
  const size_t mark = Mark();
  Service_Control(*t, 128);
  EXPECT_TRUE(t->login().LoginSucceeded);
  EXPECT_EQ(t->temp_access_status, 3);
  auto requests = server->Requests();
  EXPECT_NE(std::find(requests.begin(), requests.end(), "STATUS3"), requests.end());
  const std::string local = capture + kSepStr;
  const auto msgs = Since(mark);
  const auto at = std::find(msgs.begin(), msgs.end(),
                            "Error in TDACLI: Error during 'CanWriteToFolder' Routine(): 61-Disk full");
  ASSERT_NE(at, msgs.end());
  ASSERT_NE(at + 1, msgs.end());
  EXPECT_EQ(*(at + 1), "Error in TDACLI: TD Agent Client Can't Write to Local Temp of: " + local);
  EXPECT_NE(t->login().LastLoginResult.find("{CRLF}{CRLF}[ERROR]User Can't Write to Local Temp of: " + local +
                                          "{CRLF}{CRLF}[ERROR]User Can't Write to Server Temp of: \\\\fs01\\tdtemp\\"),
            std::string::npos);
  EXPECT_TRUE(std::filesystem::is_empty(capture));  // no test file left behind

  // Space back: the next login finds the folder fine.
  files.SpaceBack();
  MediaTransferAnswers(131);
  Service_Control(*t, 128);
  EXPECT_EQ(t->temp_access_status, 0);
  requests = server->Requests();
  EXPECT_NE(std::find(requests.begin(), requests.end(), "STATUS0"), requests.end());
}

TEST_F(ControlChain, MediaTransferThatNeverAnswersCostsThirtyOneSecondsOfClock) {
  StartServer(testing::Users({User("\\\\fs01\\tdtemp\\")}));
  WriteSettings("jsmith");
  MediaTransferAnswers(0);
  const int64_t start = Now();
  Service_Control(*t, 128);
  EXPECT_GE(Now() - start, 31'000);
  EXPECT_EQ(t->temp_access_status, 2);
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACMT:130", "TDACMT:131"}));
}

TEST_F(ControlChain, UnknownUserSendsNoStatusReportButStillWipesAndNotifies) {
  StartServer(testing::Users({User("x")}));
  WriteSettings("nobody");
  MediaTransferAnswers(131);
  Service_Control(*t, 128);
  EXPECT_FALSE(t->login().LoginSucceeded);
  for (const auto& r : server->Requests()) EXPECT_NE(r.rfind("STATUS", 0), 0u) << r;
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACMT:131"}));
  auto msgs = t.Messages();
  EXPECT_NE(std::find(msgs.begin(), msgs.end(),
                      "Warning in TDACLI: The WIPE OUT Routine was skipped as the previous login did not succeed!"),
            msgs.end());
  EXPECT_FALSE(Exists(App("UseWebCam.TXT")));
}

TEST_F(ControlChain, NoScreenCaptureSkipsTheTempCheckButWritesTheFiles) {
  StartServer(testing::Users({User("NoScreenCapture")}));
  WriteSettings("jsmith");
  MediaTransferAnswers(131);
  Service_Control(*t, 128);
  EXPECT_TRUE(t->login().LoginSucceeded);
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACMT:131"}));
  for (const auto& r : server->Requests()) EXPECT_NE(r.rfind("STATUS", 0), 0u) << r;
  EXPECT_TRUE(Exists(App("100ScreenParam.TXT")));
  EXPECT_TRUE(Exists(App("UseWebCam.TXT")));
}

TEST_F(ControlChain, LoginWithoutParametersWipesCaptureActivity) {
  loginsim::UserRecord u = User("NoScreenCapture");
  u.hundred_screen.reset();
  StartServer(testing::Users({u}));
  WriteSettings("jsmith");
  WriteFile(App("SendFrames-old.TSF"), "x");
  WriteFile(App("100ScreenParam.TXT"), "stale\r\n");  // removed by the login itself
  Service_Control(*t, 128);
  EXPECT_FALSE(Exists(App("SendFrames-old.TSF")));
  auto msgs = t.Messages();
  EXPECT_NE(std::find(msgs.begin(), msgs.end(),
                      "Information in TDACLI: The Tyndrel Agent Client removed all 100% Screen Activity!"),
            msgs.end());
}

TEST_F(ControlChain, InUserSessionModeTheMessagesAreRequestFiles) {
  StartServer(testing::Users({User("NoScreenCapture")}));
  WriteSettings("jsmith");
  WriteFile(App("thinterminal.dat"), "");
  Service_Control(*t, 128);
  EXPECT_TRUE(t.service_control.sent.empty());
  bool found = false;
  for (auto& e : std::filesystem::directory_iterator(t.dir.path()))
    if (e.path().extension() == ".TDACMT") found = ReadFile(e.path().string()) == "Code=131\r\n";
  EXPECT_TRUE(found);
}

TEST_F(ControlChain, Code133LogsOffTellsTheScreenCaptureAndCleansUpAtLogout) {
  StartServer(testing::Users({User("x")}));
  t->os_code = 51;  // control codes to TDACSC
  t->settings.LocalTemp = t->app_folder;
  std::filesystem::create_directories(t->app_folder + "100Screens");
  const std::string old = t->app_folder + "100Screens" + kSepStr + "a.TVF";
  WriteFile(old, "x");
  ASSERT_TRUE(platform::SetFileModifiedLocal(old, {2026, 11, 1, 10, 0, 0}));
  WriteFile(App("100ScreenParam.TXT"), "SCR:010|ATLOGO:2|010|001\r\n");
  Service_Control(*t, 133);
  EXPECT_TRUE(t->login().LogoffSucceeded);
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACSC:130"}));
  EXPECT_FALSE(Exists(old));
  auto msgs = t.Messages();
  EXPECT_EQ(msgs[0], "Trace in TDACLI: Received notification user (jsmith) just logged off.");
  EXPECT_NE(std::find(msgs.begin(), msgs.end(), "Trace in TDACLI: Successfully Sent Message [130] to TDACSC!"),
            msgs.end());
  EXPECT_EQ(msgs.back(),
            "Information in TDACLI: The Tyndrel 100% Screen Capture Component Analyzed (1) Frame File(s) at (Log Off) "
            "and Deleted (1).");
}

TEST_F(ControlChain, Code133WithAScheduleDigitThatIsNoNumberDeletesNoFrame) {
  StartServer(testing::Users({User("x")}));
  t->os_code = 51;
  t->settings.LocalTemp = t->app_folder;
  std::filesystem::create_directories(t->app_folder + "100Screens");
  const std::string old = t->app_folder + "100Screens" + kSepStr + "a.TVF";
  WriteFile(old, "x");
  // Ten days before the agent's today (2026-11-14): older than the default four days.
  ASSERT_EQ(t.clock.Local().day, 14);
  ASSERT_TRUE(platform::SetFileModifiedLocal(old, {2026, 11, 4, 10, 0, 0}));
  WriteFile(App("100ScreenParam.TXT"), "SCR:010|ATLOGO:x|010|001\r\n");
  Service_Control(*t, 133);
  EXPECT_TRUE(t->login().LogoffSucceeded);
  EXPECT_TRUE(Exists(old));
  EXPECT_EQ(t->screen().line, "SCR:010|ATLOGO:x|010|001");
  EXPECT_EQ(t->screen().schedule, "02:00 AM");
  auto msgs = t.Messages();
  EXPECT_EQ(msgs.back(), "Trace in TDACLI: Successfully Sent Message [130] to TDACSC!");
  for (const auto& m : msgs) EXPECT_EQ(m.find("frame files"), std::string::npos) << m;
  for (const auto& m : msgs) EXPECT_EQ(m.find("Deleting file"), std::string::npos) << m;
}

TEST_F(ControlChain, Code133OnVistaAndLaterWritesTheRequestFile) {
  StartServer(testing::Users({User("x")}));
  t->os_code = 10;
  t.service_control.results["TDACSC"] = 1060;
  Service_Control(*t, 133);
  EXPECT_TRUE(t.service_control.sent.empty());
  auto msgs = t.Messages();
  EXPECT_NE(std::find(msgs.begin(), msgs.end(), "Trace in TDACLI: Sent Message [130] to TDACSC!"), msgs.end());
}

TEST_F(ControlChain, Code133ReportsAFailedMessageToTheScreenCapture) {
  StartServer(testing::Users({User("x")}));
  t->os_code = 99;
  t.service_control.results["TDACSC"] = 1060;
  Service_Control(*t, 133);
  auto msgs = t.Messages();
  EXPECT_NE(std::find(msgs.begin(), msgs.end(), "Error in TDACLI: Error Sending Message [130] to TDACSC: 1060"),
            msgs.end());
}

}  // namespace
}  // namespace tdacli
