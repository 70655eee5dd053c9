// The drivers' stages and outcomes: the web-service hand-over, the three time-outs on the simulated
// clock, the error event, unknown users, and drivers started inside the wait of another.
#include <gtest/gtest.h>

#include "common/files.h"
#include "login/drivers.h"
#include "login/login_fixture.h"
#include "service/lifecycle.h"

namespace tdacli {
namespace {

using ::testing::ElementsAre;
using testing::LoginFixture;

// ---- web-service address

TEST(LoginDrivers, WebServiceAddressRunsOnlyTheWebServicePathAfterDeletingTheStaleLiveId) {
  LoginFixture f;
  f.t->settings.Server = "td.example.com:https:8443";
  testing::WriteFile(f.App("TDLiveID.INI"), "[LiveID]\r\nTDLiveID=1\r\n");
  LoginState& l = f.t->WriteLogin();
  l.LoginRequestKind = "Status";
  l.ProtocolDone = true;
  const size_t mark = f.Mark();
  const int64_t start = f.Now();

  LoginUser(*f.t);

  const auto lines = f.Since(mark);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "Trace in TDACLI: Deleted [TDLiveID.INI] file before Login!");
  EXPECT_EQ(lines[1], "Trace in TDACLI: Testing Internet Connection ...");
  EXPECT_FALSE(testing::Exists(f.App("TDLiveID.INI")));
  // One GET to the web service; nothing of the TCP driver ran: its flags and socket are untouched.
  ASSERT_EQ(f.t.http.urls.size(), 1u);
  EXPECT_EQ(f.t.http.urls[0].rfind("https://td.example.com:8443/TDLoginWebService/", 0), 0u) << f.t.http.urls[0];
  EXPECT_EQ(l.LoginRequestKind, "Status");
  EXPECT_TRUE(l.ProtocolDone);
  EXPECT_EQ(f.t->login_socket.RemoteHost(), "");
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
  EXPECT_EQ(f.Now(), start);
}

TEST(LoginDrivers, WebServiceAddressWithoutStaleLiveIdGoesStraightToTheWebService) {
  LoginFixture f;
  f.t->settings.Server = "10.0.0.5:80";
  const size_t mark = f.Mark();
  LoginUser(*f.t);
  const auto lines = f.Since(mark);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "Trace in TDACLI: Testing Internet Connection ...");
  EXPECT_EQ(f.t->login_socket.RemoteHost(), "");
}

TEST(LoginDrivers, WebServiceAddressForLogoffAndStatusUsesOnlyTheWebService) {
  LoginFixture f;
  f.t->settings.Server = "td.example.com:8080";
  testing::WriteFile(f.App("TDLiveID.INI"), "[LiveID]\r\n");
  LoginState& l = f.t->WriteLogin();
  l.LoginRequestKind = "Login";
  l.ProtocolDone = true;

  LogOffUser(*f.t);
  LoginStatus(*f.t);

  EXPECT_TRUE(testing::Exists(f.App("TDLiveID.INI")));  // only a login removes it
  ASSERT_EQ(f.t.http.urls.size(), 2u);
  EXPECT_EQ(f.t.http.urls[0],
            "http://td.example.com:8080/TDLoginWebService/TDLoginWebService.asmx/LogOffMethod?WinName=jsmith&"
            "LocalIP=192.168.5.20");
  EXPECT_EQ(f.t.http.urls[1],
            "http://td.example.com:8080/TDLoginWebService/TDLoginWebService.asmx/StatusMethod?WinName=jsmith&Status=0");
  EXPECT_EQ(l.LoginRequestKind, "Login");
  EXPECT_TRUE(l.ProtocolDone);
  EXPECT_EQ(f.t->login_socket.RemoteHost(), "");
}

// ---- a server that accepts and never answers

TEST(LoginDrivers, SilentServerLoginTimesOutExecutingProtocolAfterThirtySeconds) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = loginsim::Fault::kSilent;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  f.t->WriteLogin().LoginSucceeded = true;
  const size_t mark = f.Mark();
  const int64_t start = f.Now();

  LoginUser(*f.t);

  const int64_t elapsed = f.Now() - start;
  EXPECT_GE(elapsed, 30000);
  EXPECT_LT(elapsed, 31000);
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Contacting the TD Login Server for Login at (" + f.server->address() +
                              ":5003)",
                          "Error in TDACLI: Login Attempt - Timeout executing protocol"));
  EXPECT_FALSE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]Login Attempt - Timeout executing protocol");
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
  EXPECT_TRUE(f.server->Requests().empty());
  EXPECT_TRUE(f.server->Replies().empty());
}

TEST(LoginDrivers, SilentServerLogoffAndStatusTimeOutWithTheirOwnTexts) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = loginsim::Fault::kSilent;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  f.t->WriteLogin().LogoffSucceeded = true;
  f.t->WriteLogin().StatusSucceeded = true;

  size_t mark = f.Mark();
  LogOffUser(*f.t);
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Contacting the TD Server for Logoff at (" + f.server->address() + ":5003)",
                          "Error in TDACLI: Logoff Attempt - Timeout executing protocol"));
  EXPECT_FALSE(f.t->login().LogoffSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]Logoff Attempt - Timeout executing protocol");

  f.t->WriteLogin().LastLoginResult = "earlier";
  mark = f.Mark();
  const int64_t start = f.Now();
  LoginStatus(*f.t);
  EXPECT_GE(f.Now() - start, 30000);
  EXPECT_THAT(f.Since(mark), ElementsAre("Trace in TDACLI: Contacting the TD Login Server for Status Report at (" +
                                             f.server->address() + ")",
                                         "Error in TDACLI: Login Attempt - Timeout executing protocol"));
  EXPECT_FALSE(f.t->login().StatusSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult, "earlier");
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
}

// ---- nothing listening

TEST(LoginDrivers, RefusedConnectionLogsTheErrorEventThenTheConnectTimeout) {
  LoginFixture f;
  f.t->settings.Server = f.DeadAddress();
  f.t->WriteLogin().LoginSucceeded = true;
  const size_t mark = f.Mark();
  const int64_t start = f.Now();

  LoginUser(*f.t);

  const int64_t elapsed = f.Now() - start;
  EXPECT_GE(elapsed, 30000);
  EXPECT_LT(elapsed, 31000);
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Contacting the TD Login Server for Login at (" + f.t->settings.Server +
                              ":5003)",
                          "Error in TDACLI: The Broadcast WinSock Control Received The Error, 10061: Connection is "
                          "forcefully rejected",
                          "Error in TDACLI: Login Attempt - Timeout connecting socket for login"));
  EXPECT_FALSE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]Login Attempt - Timeout connecting socket for login");
  // The error handler closed the socket.
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
  // Errors reach the event log and the error log too.
  EXPECT_EQ(testing::Lines(f.t.ErrorLog()).size(), 2u);
}

TEST(LoginDrivers, RefusedConnectionForLogoffAndStatus) {
  LoginFixture f;
  f.t->settings.Server = f.DeadAddress();
  f.t->WriteLogin().LastLoginResult = "earlier";
  f.t->WriteLogin().StatusSucceeded = true;

  size_t mark = f.Mark();
  LoginStatus(*f.t);
  auto lines = f.Since(mark);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1].rfind("Error in TDACLI: The Broadcast WinSock Control Received The Error, 10061: ", 0), 0u);
  EXPECT_EQ(lines[2], "Error in TDACLI: Login Attempt - Timeout connecting socket for login");
  EXPECT_FALSE(f.t->login().StatusSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult, "earlier");

  mark = f.Mark();
  LogOffUser(*f.t);
  lines = f.Since(mark);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2], "Error in TDACLI: Logoff Attempt - Timeout connecting socket for logoff");
  EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]Logoff Attempt - Timeout connecting socket for logoff");
}

// ---- unknown Windows user

TEST(LoginDrivers, UnknownUserEndsAtOnceAndTheDriverTextReplacesTheConversationText) {
  LoginFixture f;
  f.StartServer();
  const std::string server = f.server->address();
  f.t->settings.CurrentUser = "nobody";
  f.t->WriteLogin().LoginSucceeded = true;
  const size_t mark = f.Mark();
  const int64_t start = f.Now();

  LoginUser(*f.t);
  f.Drain();

  EXPECT_LT(f.Now() - start, 1000);
  EXPECT_THAT(f.server->Requests(), ElementsAre("IDnobody", "IP192.168.5.20", "EX1234", "TDLIVEID", "SERVERTEMP",
                                                "TD Agent Disconnect OK"));
  const auto lines = f.Since(mark);
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[5], "Trace in TDACLI: Login Server Sent TD Live ID (TDLIVEID=), Sending Request for Server Temp Folder");
  EXPECT_EQ(lines[6], "Error in TDACLI: The windows login name of (nobody) does not exist in the TD Agent Database!");
  EXPECT_EQ(lines[7], "Error in TDACLI: The Tyndrel Agent Client could not execute a login for (nobody) to (" + server +
                          ":5003)");
  EXPECT_FALSE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult,
            "The Tyndrel Agent Client could not execute a login for (nobody) to (" + server + ":5003)");
  EXPECT_EQ(f.t->settings.SvrTemp, "NoMatchingWinName");
  EXPECT_FALSE(testing::Exists(f.App("TDACFTP.INI")));
  EXPECT_FALSE(testing::Exists(f.App("TDRegInfo.TXT")));
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
}

TEST(LoginDrivers, UnknownUserLogoffCouldNotBeExecuted) {
  LoginFixture f;
  f.StartServer();
  const std::string server = f.server->address();
  f.t->settings.CurrentUser = "nobody";
  const size_t mark = f.Mark();

  LogOffUser(*f.t);

  EXPECT_THAT(f.server->Replies(), ElementsAre("TD Agent Connect OK", "LOGOFF=NoMatchingWinName"));
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Contacting the TD Server for Logoff at (" + server + ":5003)",
                          "Trace in TDACLI: Connected To TD Server OK, Sending Logoff of UserName (nobody)",
                          "Error in TDACLI: Received Unexpected Data During Protocol: LOGOFF=NoMatchingWinName",
                          "Error in TDACLI: The Tyndrel Agent Client could not execute a logoff for (nobody) to (" +
                              server + ":5003)"));
  EXPECT_FALSE(f.t->login().LogoffSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult,
            "The Tyndrel Agent Client could not execute a logoff for (nobody) to (" + server + ":5003)");
}

// ---- unexpected replies, hang-ups, late replies

TEST(LoginDrivers, UnexpectedReplyEndsTheLoginAndKeepsThePreviousSuccessFlag) {
  for (bool before : {false, true}) {
    LoginFixture f;
    loginsim::Options o;
    o.fault = loginsim::Fault::kUnexpected;
    f.StartServer(testing::Users({testing::Jsmith()}), o);
    const std::string server = f.server->address();
    f.t->WriteLogin().LoginSucceeded = before;
    const size_t mark = f.Mark();
    const int64_t start = f.Now();

    LoginUser(*f.t);

    EXPECT_LT(f.Now() - start, 1000);
    const auto lines = f.Since(mark);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2], "Error in TDACLI: Received Unexpected Data During Protocol: " +
                            std::string(loginsim::kUnexpectedReply));
    // The conversation never touched the flag: the outcome is the previous login's.
    if (before) {
      EXPECT_EQ(lines[3], "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User (jsmith) to "
                          "Server (" + server + ")");
      EXPECT_EQ(f.t->login().LastLoginResult, "The Tyndrel Agent Client Successfully Logged in User (jsmith).");
    } else {
      EXPECT_EQ(lines[3], "Error in TDACLI: The Tyndrel Agent Client could not execute a login for (jsmith) to (" +
                              server + ":5003)");
    }
    EXPECT_EQ(f.t->login().LoginSucceeded, before);
  }
}

TEST(LoginDrivers, UnexpectedReplyToAStatusReportStillCountsAsReported) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = loginsim::Fault::kUnexpected;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  f.t->WriteLogin().StatusSucceeded = false;
  f.t->temp_access_status = 2;
  LoginStatus(*f.t);
  EXPECT_TRUE(f.t->login().StatusSucceeded);
  EXPECT_EQ(f.Since(0).back(),
            "Warning in TDACLI: The Tyndrel Agent Client Successfully Updated Agent Status to (2) for User (jsmith). "
            "However the user does not have proper permissions!");
}

TEST(LoginDrivers, ServerHangingUpMidwayLeadsToTheProtocolTimeout) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = loginsim::Fault::kCloseMid;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  const size_t mark = f.Mark();
  const int64_t start = f.Now();

  LoginUser(*f.t);

  EXPECT_GE(f.Now() - start, 30000);
  EXPECT_THAT(f.server->Requests(), ElementsAre("IDjsmith"));
  // An orderly close is no error: the socket has no close handler, and the driver times out.
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Contacting the TD Login Server for Login at (" + f.server->address() +
                              ":5003)",
                          "Trace in TDACLI: Connected To Login Server OK, Sending UserName (jsmith)",
                          "Error in TDACLI: Login Attempt - Timeout executing protocol"));
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
}

TEST(LoginDrivers, ServerResettingMidwayRaisesTheErrorEventThenTheProtocolTimeout) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = loginsim::Fault::kResetMid;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  f.t->WriteLogin().LoginSucceeded = true;
  const size_t mark = f.Mark();
  const int64_t start = f.Now();

  LoginUser(*f.t);

  // The error event closes the socket and tells the driver nothing: it runs into its protocol stage's
  // time-out, 30 s after the connection was made.
  const int64_t elapsed = f.Now() - start;
  EXPECT_GE(elapsed, 30000);
  EXPECT_LT(elapsed, 31000);
  EXPECT_THAT(f.server->Requests(), ElementsAre("IDjsmith"));
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Contacting the TD Login Server for Login at (" + f.server->address() +
                              ":5003)",
                          "Trace in TDACLI: Connected To Login Server OK, Sending UserName (jsmith)",
                          "Error in TDACLI: The Broadcast WinSock Control Received The Error, 10054: Connection "
                          "reset by peer",
                          "Error in TDACLI: Login Attempt - Timeout executing protocol"));
  EXPECT_FALSE(f.t->login().LoginSucceeded);
  EXPECT_FALSE(f.t->login().ProtocolDone);
  EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]Login Attempt - Timeout executing protocol");
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
  EXPECT_EQ(f.server->TranscriptLines().back(), "[1] -- reset by the server in the middle of the exchange");
  // The error log holds the two Error lines as the trace does.
  EXPECT_THAT(testing::Lines(f.t.ErrorLog()),
              ElementsAre(::testing::EndsWith(" - TDACLI - The Broadcast WinSock Control Received The Error, 10054: "
                                              "Connection reset by peer"),
                          ::testing::EndsWith(" - TDACLI - Login Attempt - Timeout executing protocol")));
}

TEST(LoginDrivers, ServerResettingALogoffMidwayRaisesTheErrorEventThenTheLogoffTimeout) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = loginsim::Fault::kResetMid;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  const size_t mark = f.Mark();

  LogOffUser(*f.t);

  EXPECT_THAT(f.server->Requests(), ElementsAre("Logoffjsmith:192.168.5.20"));
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Contacting the TD Server for Logoff at (" + f.server->address() + ":5003)",
                          "Trace in TDACLI: Connected To TD Server OK, Sending Logoff of UserName (jsmith)",
                          "Error in TDACLI: The Broadcast WinSock Control Received The Error, 10054: Connection "
                          "reset by peer",
                          "Error in TDACLI: Logoff Attempt - Timeout executing protocol"));
  EXPECT_FALSE(f.t->login().LogoffSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]Logoff Attempt - Timeout executing protocol");
}

TEST(LoginDrivers, LateRepliesCountAgainstOneThirtySecondProtocolStage) {
  {
    // Eleven replies two seconds late each: 22 s, inside the stage.
    LoginFixture f;
    loginsim::Options o;
    o.fault = loginsim::Fault::kDelay;
    o.delay_ms = 2000;
    f.StartServer(testing::Users({testing::Jsmith()}), o);
    const int64_t start = f.Now();
    LoginUser(*f.t);
    EXPECT_TRUE(f.t->login().LoginSucceeded);
    EXPECT_GE(f.Now() - start, 20000);
    EXPECT_LT(f.Now() - start, 30000);
  }
  {
    // Five seconds each: the greeting comes in time, the rest of the exchange does not.
    LoginFixture f;
    loginsim::Options o;
    o.fault = loginsim::Fault::kDelay;
    o.delay_ms = 5000;
    f.StartServer(testing::Users({testing::Jsmith()}), o);
    const int64_t start = f.Now();
    LoginUser(*f.t);
    EXPECT_FALSE(f.t->login().LoginSucceeded);
    EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]Login Attempt - Timeout executing protocol");
    EXPECT_GE(f.Now() - start, 30000);
    EXPECT_LT(f.Now() - start, 31000);
  }
}

// ---- the capture parameters a login clears

TEST(LoginDrivers, LoginClearsTheCaptureParametersBeforeConnecting) {
  LoginFixture f;
  f.t->settings.Server = f.DeadAddress();
  testing::WriteFile(f.App("100ScreenParam.TXT"), "param\r\n");
  f.t->WriteLogin().HundredScreensParam = "param";
  f.t->WriteLogin().UseWebCam = true;
  LoginUser(*f.t);
  EXPECT_FALSE(testing::Exists(f.App("100ScreenParam.TXT")));
  EXPECT_EQ(f.t->login().HundredScreensParam, "");
  EXPECT_FALSE(f.t->login().UseWebCam);
}

TEST(LoginDrivers, ParameterFileThatCannotBeRemovedIsLoggedAndTheLoginGoesOn) {
  LoginFixture f;
  f.StartServer();
  const std::string param = f.App("100ScreenParam.TXT");
  testing::WriteFile(param, "param\r\n");
  f.t->refuse_delete = [&](const std::string& path) { return path == param; };
  const size_t mark = f.Mark();

  LoginUser(*f.t);

  const auto lines = f.Since(mark);
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(lines[1], "Error in TDACLI: Error Removing File (" + param + ")!");
  EXPECT_EQ(lines[2], "Trace in TDACLI: Connected To Login Server OK, Sending UserName (jsmith)");
  EXPECT_TRUE(f.t->login().LoginSucceeded);
}

TEST(LoginDrivers, LogoffAndStatusLeaveTheCaptureParametersAlone) {
  LoginFixture f;
  f.StartServer();
  testing::WriteFile(f.App("100ScreenParam.TXT"), "param\r\n");
  testing::WriteFile(f.App("TDLiveID.INI"), "[LiveID]\r\n");
  f.t->WriteLogin().HundredScreensParam = "param";
  f.t->WriteLogin().UseWebCam = true;
  LogOffUser(*f.t);
  LoginStatus(*f.t);
  EXPECT_TRUE(testing::Exists(f.App("100ScreenParam.TXT")));
  EXPECT_TRUE(testing::Exists(f.App("TDLiveID.INI")));
  EXPECT_EQ(f.t->login().HundredScreensParam, "param");
  EXPECT_TRUE(f.t->login().UseWebCam);
}

// ---- the error event

TEST(LoginDrivers, ErrorEventLogsAndClosesTheSocketOnly) {
  LoginFixture f;
  f.StartServer();
  LoginState& l = f.t->WriteLogin();
  l.ProtocolDone = false;
  l.LoginSucceeded = true;
  l.LastLoginResult = "earlier";
  f.t->login_socket.SetRemoteHost(f.server->address());
  ASSERT_FALSE(f.t->login_socket.Connect());
  f.t->WaitUntil(5, [&] { return f.t->login_socket.State() == platform::TcpSocket::kConnected; });
  const size_t mark = f.Mark();

  ASSERT_TRUE(f.t->login_socket.on_error);
  f.t->login_socket.on_error(10053, "Software caused connection abort");

  EXPECT_THAT(f.Since(mark), ElementsAre("Error in TDACLI: The Broadcast WinSock Control Received The Error, 10053: "
                                         "Software caused connection abort"));
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
  EXPECT_FALSE(l.ProtocolDone);
  EXPECT_TRUE(l.LoginSucceeded);
  EXPECT_EQ(l.LastLoginResult, "earlier");
}

// ---- a driver started inside the wait of another

TEST(LoginDrivers, NestedLoginDuringTheProtocolWaitLeavesTheOuterWithTheInnerOutcome) {
  LoginFixture f;
  f.StartServer();
  const std::string server = f.server->address();
  int inner_runs = 0;
  // As a console LOGIN command would: the second login starts from an event inside the first's wait.
  f.server->on_line = [&](const std::string& line) {
    if (line == "[1] C> IP192.168.5.20")
      f.t->loop().Post([&] {
        ++inner_runs;
        LoginUser(*f.t);
      });
  };
  const size_t mark = f.Mark();

  LoginUser(*f.t);
  f.Drain();

  EXPECT_EQ(inner_runs, 1);
  const std::string success =
      "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User (jsmith) to Server (" + server + ")";
  const auto lines = f.Since(mark);
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[0], "Trace in TDACLI: Contacting the TD Login Server for Login at (" + server + ":5003)");
  EXPECT_EQ(lines[3], "Trace in TDACLI: Contacting the TD Login Server for Login at (" + server + ":5003)");
  // Inner and outer both report the inner exchange's success.
  EXPECT_EQ(lines[lines.size() - 2], success);
  EXPECT_EQ(lines[lines.size() - 1], success);
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult, "The Tyndrel Agent Client Successfully Logged in User (jsmith).");
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
  // The first connection was dropped by the inner call's close-before-connect; the second ran through.
  EXPECT_EQ(f.server->Connections(), 2);
  std::vector<std::string> second;
  for (const auto& e : f.server->Transcript())
    if (e.connection == 2 && e.kind == loginsim::TranscriptEntry::Kind::kReceived) second.push_back(e.bytes);
  EXPECT_EQ(second.size(), 10u);
}

TEST(LoginDrivers, NestedLoginDuringTheConnectWaitLeavesTheOuterWithItsOwnTimeout) {
  LoginFixture f;
  f.StartServer();
  const std::string live = f.server->address();
  f.t->settings.Server = f.DeadAddress();
  // Five seconds into the outer call's connect wait, a second login runs against a live server.
  platform::Timer later(f.t->loop());
  later.SetInterval(5000);
  later.on_tick = [&] {
    later.SetEnabled(false);
    f.t->settings.Server = live;
    LoginUser(*f.t);
    EXPECT_TRUE(f.t->login().LoginSucceeded);
  };
  later.SetEnabled(true);
  const int64_t start = f.Now();

  LoginUser(*f.t);

  // The inner call succeeded and closed the socket; the outer one never saw it connected.
  EXPECT_GE(f.Now() - start, 30000);
  EXPECT_LT(f.Now() - start, 31000);
  EXPECT_FALSE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]Login Attempt - Timeout connecting socket for login");
  const auto lines = f.Since(0);
  EXPECT_EQ(lines.back(), "Error in TDACLI: Login Attempt - Timeout connecting socket for login");
  EXPECT_EQ(lines[lines.size() - 2],
            "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User (jsmith) to Server (" + live +
                ")");
}

TEST(LoginDrivers, NestedStatusReportDuringALoginEndsTheOuterLoginWithoutItsOwnSuccess) {
  LoginFixture f;
  f.StartServer();
  const std::string server = f.server->address();
  f.t->WriteLogin().LoginSucceeded = false;
  f.server->on_line = [&](const std::string& line) {
    if (line == "[1] C> EX1234") f.t->loop().Post([&] { LoginStatus(*f.t); });
  };

  LoginUser(*f.t);
  f.Drain();

  // The status exchange set `ProtocolDone`; the outer login decides with the flag as it stands.
  EXPECT_TRUE(f.t->login().StatusSucceeded);
  EXPECT_FALSE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().LoginRequestKind, "Status");
  EXPECT_EQ(f.t->login().LastLoginResult,
            "The Tyndrel Agent Client could not execute a login for (jsmith) to (" + server + ":5003)");
}

TEST(LoginDrivers, ProcessEndingDuringTheWaitStopsTheDriverSilently) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = loginsim::Fault::kSilent;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  platform::Timer stop(f.t->loop());
  stop.SetInterval(2000);
  stop.on_tick = [&] { f.t->EndProcess(); };
  stop.SetEnabled(true);
  f.t->WriteLogin().LastLoginResult = "earlier";
  const size_t mark = f.Mark();
  LoginUser(*f.t);
  EXPECT_EQ(f.Since(mark).size(), 1u);
  EXPECT_EQ(f.t->login().LastLoginResult, "earlier");
}

// ---- wiring

TEST(LoginDrivers, FormLoadWiresTheLoginClient) {
  testing::TestAgent t;
  const std::string dead = LoginFixture().DeadAddress();
  EXPECT_FALSE(t->login_socket.on_error);
  Form_Load(*t);
  ASSERT_FALSE(t->Ended());
  t->settings.Server = dead;
  LoginUser(*t);
  const auto lines = t.Messages();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2],
            "Error in TDACLI: The Broadcast WinSock Control Received The Error, 10061: Connection is forcefully "
            "rejected");
  EXPECT_TRUE(t->login_socket.on_data_arrival);
}

}  // namespace
}  // namespace tdacli
