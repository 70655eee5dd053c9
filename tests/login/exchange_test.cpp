// Whole login, logoff and status exchanges of the real agent code with the login server simulator:
// the exact bytes on the wire, the trace lines, the shared login state and the files afterwards.
#include <gtest/gtest.h>

#include "common/files.h"
#include "listener/listener.h"
#include "login/drivers.h"
#include "login/login_fixture.h"

namespace tdacli {
namespace {

using ::testing::ElementsAre;
using testing::LoginFixture;

const std::string kFtpFile =
    "[Tyndrel - Agent Client - FTP Credentials]\r\n"
    "\r\n"
    "[Config]\r\n"
    "ServerTemp=\\\\fs01\\tdtemp\\\r\n"
    "FTPServer=ftp.example.com\r\n"
    "UserName=tduser\r\n"
    "EncryptedPassword=9F8E7D6C\r\n"
    "Port=21\r\n"
    "Ssl=False\r\n"
    "AuthTLS=False\r\n"
    "Passive=False\r\n"
    "PassiveUseHostAddr=False\r\n"
    "Protocol=FTP\r\n";

TEST(LoginExchange, FullLoginSendsTheRequestsInOrderAndStoresEveryAnswer) {
  LoginFixture f;
  f.StartServer();
  const std::string server = f.server->address();
  testing::WriteFile(f.App("TDLiveID.INI"), "[LiveID]\r\nTDLiveID=1\r\n");
  testing::WriteFile(f.App("100ScreenParam.TXT"), "old\r\n");
  f.t->WriteLogin().HundredScreensParam = "old";
  const size_t mark = f.Mark();
  const int64_t start = f.Now();

  LoginUser(*f.t);
  f.Drain();

  EXPECT_THAT(f.server->Requests(),
              ElementsAre("IDjsmith", "IP192.168.5.20", "EX1234", "TDLIVEID", "SERVERTEMP", "LOCALTEMP", "KEKINFO",
                          "VALIDIPMASK", "USETRACE", "TD Agent Disconnect OK"));
  const auto lines = f.server->TranscriptLines();
  ASSERT_EQ(lines.size(), 23u);
  EXPECT_EQ(lines[0], "[0] -- listening on " + server + ":5003");
  EXPECT_EQ(lines[1].rfind("[1] -- accepted from 127.", 0), 0u) << lines[1];
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 2, lines.end()),
              ElementsAre("[1] S> TD Agent Connect OK", "[1] C> IDjsmith", "[1] S> ID OK", "[1] C> IP192.168.5.20",
                          "[1] S> IP Addr OK", "[1] C> EX1234", "[1] S> EXT OK", "[1] C> TDLIVEID",
                          "[1] S> TDLIVEID=48213:10.1.2.3:5020:T", "[1] C> SERVERTEMP",
                          "[1] S> SERVERTEMP\\\\\\\\fs01\\\\tdtemp\\\\:FTP@ftp.example.com:tduser:9F8E7D6C",
                          "[1] C> LOCALTEMP", "[1] S> LOCALTEMPC:\\\\%WINDIR%\\\\Temp", "[1] C> KEKINFO",
                          "[1] S> KEKINFOKEK-0001", "[1] C> VALIDIPMASK", "[1] S> VALIDIPMASK192.168.5.",
                          "[1] C> USETRACE", "[1] S> AGENTTRACETruewebcamtrue", "[1] C> TD Agent Disconnect OK",
                          "[1] -- closed by the server"));

  EXPECT_THAT(
      f.Since(mark),
      ElementsAre(
          "Trace in TDACLI: Deleted [TDLiveID.INI] file before Login!",
          "Trace in TDACLI: Contacting the TD Login Server for Login at (" + server + ":5003)",
          "Trace in TDACLI: Connected To Login Server OK, Sending UserName (jsmith)",
          "Trace in TDACLI: Login Server Received UserName OK, Sending IP (192.168.5.20)",
          "Trace in TDACLI: Login Server Received IP OK, Sending Extension (1234)",
          "Trace in TDACLI: Login Server Received Extension OK, Sending Request for TD Live ID",
          "Trace in TDACLI: Login Server Sent TD Live ID (TDLIVEID=48213:10.1.2.3:5020:T), Sending Request for "
          "Server Temp Folder",
          "Trace in TDACLI: Login Server Sent Server Temp Folder "
          "(\\\\fs01\\tdtemp\\:FTP@ftp.example.com:tduser:9F8E7D6C), Sending Request for Local Temp Folder",
          "Trace in TDACLI: Login Server Sent Local Temp Folder (C:\\WINDOWS\\temp), Sending Request for KekInfo",
          "Trace in TDACLI: Login Server Sent KekInfo (KEK-0001), Sending Request for ValidIPMask",
          "Trace in TDACLI: Login Server Sent Valid IP Mask (192.168.5.), Sending Request for UseTrace",
          "Trace in TDACLI: Login Server Sent UseTrace of (Truewebcamtrue), Sending Disconnect Signal",
          "Trace in TDACLI: Saved the following Variables [SERVERTEMP=\\\\fs01\\tdtemp\\],[PROTOCOL=FTP],"
          "[FTPSERVER=ftp.example.com],[FTPUSERNAME=tduser],[FTPPASSWORD=9F8E7D6C],[FTPPORT=21],[FTPSSL=False],"
          "[FTPAUTHTLS=False],[FTPPASSIVE=False],[FTPPASSIVEUSEHOSTADDR=False]",
          "Trace in TDACLI: Saved the following Variables [IPMASK=192.168.5.] to file [" + f.App("TDIPMASK.INI") +
              "]",
          "Trace in TDACLI: Wrote Login Settings to config file",
          "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User (jsmith) to Server (" +
              server + ")"));

  const LoginState& l = f.t->login();
  EXPECT_TRUE(l.ProtocolDone);
  EXPECT_TRUE(l.LoginSucceeded);
  EXPECT_EQ(l.LoginRequestKind, "Login");
  EXPECT_EQ(l.LastLoginResult, "The Tyndrel Agent Client Successfully Logged in User (jsmith).");
  EXPECT_EQ(l.TDLiveID, "48213");
  EXPECT_EQ(l.RepeaterIP, "10.1.2.3");
  EXPECT_EQ(l.RepeaterPort, "5020");
  EXPECT_TRUE(l.PeerToPeerCapable);
  EXPECT_EQ(l.KekInfo, "KEK-0001");
  EXPECT_EQ(l.ValidIPMask, "192.168.5.");
  EXPECT_EQ(l.HundredScreensParam, "");
  EXPECT_TRUE(l.UseWebCam);
  EXPECT_EQ(f.t->settings.UseTrace, "True");
  EXPECT_EQ(f.t->settings.SvrTemp, "\\\\fs01\\tdtemp\\");
  EXPECT_EQ(f.t->settings.LocalTemp, "C:\\WINDOWS\\temp");
  EXPECT_EQ(f.t->ftp().FtpServer, "ftp.example.com");
  EXPECT_TRUE(f.t->ftp().FtpCredentialsSaved);
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);

  EXPECT_FALSE(testing::Exists(f.App("TDLiveID.INI")));
  EXPECT_FALSE(testing::Exists(f.App("100ScreenParam.TXT")));
  EXPECT_EQ(testing::ReadFile(f.App("TDACFTP.INI")), kFtpFile);
  EXPECT_EQ(testing::ReadFile(f.App("TDIPMASK.INI")),
            "[Tyndrel - Agent Client - Valid IP Mask]\r\n\r\n[Config]\r\nIPMask=192.168.5.\r\n");
  EXPECT_EQ(testing::ReadFile(f.App("TDRegInfo.TXT")),
            "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=1234\r\nServer=" + server +
                "\r\nUseTrace=True\r\nLocalTemp=C:\\WINDOWS\\temp\r\nCurrentUser=jsmith\r\nCurrentEvent=N/A\r\n"
                "SvrTemp=\\\\fs01\\tdtemp\\\r\nNotificationMethod=FileMessage\r\nPopEx=false\r\nPopWinName=false\r\n"
                "ListeningPorts=w,x,y,z\r\n");
  // Not in user-session mode: the listener is left alone and no sibling is told anything.
  EXPECT_EQ(listener::ListenerOf(*f.t).Listener().State(), platform::TcpSocket::kClosed);
  // The exchange itself takes no waiting: the stages end as soon as their condition holds.
  EXPECT_LT(f.Now() - start, 1000);
}

TEST(LoginExchange, FullLogoff) {
  LoginFixture f;
  f.StartServer();
  const std::string server = f.server->address();
  f.t->WriteLogin().LogoffSucceeded = false;
  f.t->WriteLogin().LastLoginResult = "earlier";
  const size_t mark = f.Mark();

  LogOffUser(*f.t);
  f.Drain();

  EXPECT_THAT(f.server->Requests(), ElementsAre("Logoffjsmith:192.168.5.20", "TD Agent Disconnect OK"));
  EXPECT_THAT(f.server->Replies(), ElementsAre("TD Agent Connect OK", "LOGOFF=OKAY"));
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Contacting the TD Server for Logoff at (" + server + ":5003)",
                          "Trace in TDACLI: Connected To TD Server OK, Sending Logoff of UserName (jsmith)",
                          "Trace in TDACLI: TD Server Sent 'Logoff = Okay', Sending Disconnect Signal",
                          "Information in TDACLI: The Tyndrel Agent Client Successfully Logged off User (jsmith) to "
                          "Server (" +
                              server + ")"));
  EXPECT_TRUE(f.t->login().LogoffSucceeded);
  EXPECT_TRUE(f.t->login().ProtocolDone);
  EXPECT_EQ(f.t->login().LoginRequestKind, "Logoff");
  EXPECT_EQ(f.t->login().LastLoginResult, "The Tyndrel Agent Client Successfully Logged off User (jsmith).");
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
  // A logoff writes no files.
  EXPECT_FALSE(testing::Exists(f.App("TDRegInfo.TXT")));
  EXPECT_FALSE(testing::Exists(f.App("TDACFTP.INI")));
}

TEST(LoginExchange, StatusReportWithFullAccessLogsNoOutcome) {
  LoginFixture f;
  f.StartServer();
  const std::string server = f.server->address();
  f.t->temp_access_status = 0;
  f.t->WriteLogin().StatusSucceeded = false;
  f.t->WriteLogin().LastLoginResult = "earlier";
  const size_t mark = f.Mark();

  LoginStatus(*f.t);
  f.Drain();

  EXPECT_THAT(f.server->Requests(), ElementsAre("IDjsmith", "STATUS0", "TD Agent Disconnect OK"));
  EXPECT_THAT(f.server->Replies(), ElementsAre("TD Agent Connect OK", "ID OK", "STATUS OK"));
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Contacting the TD Login Server for Status Report at (" + server + ")",
                          "Trace in TDACLI: Connected To Login Server OK, Sending UserName (jsmith)",
                          "Trace in TDACLI: Login Server Received UserName OK, Sending STATUS (0)",
                          "Trace in TDACLI: Login Server Received Status Ok, Sending Disconnect Signal"));
  EXPECT_TRUE(f.t->login().StatusSucceeded);
  EXPECT_EQ(f.t->login().LoginRequestKind, "Status");
  EXPECT_EQ(f.t->login().LastLoginResult, "earlier");
  EXPECT_EQ(f.t->login_socket.State(), platform::TcpSocket::kClosed);
}

TEST(LoginExchange, StatusReportWithoutPermissionsWarns) {
  LoginFixture f;
  f.StartServer();
  f.t->temp_access_status = 3;
  f.t->WriteLogin().LastLoginResult = "earlier";
  const size_t mark = f.Mark();

  LoginStatus(*f.t);
  f.Drain();

  EXPECT_THAT(f.server->Requests(), ElementsAre("IDjsmith", "STATUS3", "TD Agent Disconnect OK"));
  const auto lines = f.Since(mark);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[2], "Trace in TDACLI: Login Server Received UserName OK, Sending STATUS (3)");
  EXPECT_EQ(lines[4],
            "Warning in TDACLI: The Tyndrel Agent Client Successfully Updated Agent Status to (3) for User (jsmith). "
            "However the user does not have proper permissions!");
  EXPECT_TRUE(f.t->login().StatusSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult, "earlier");
  ASSERT_FALSE(f.t.event_log.entries.empty());
  EXPECT_EQ(f.t.event_log.entries.back().first, 2);
}

TEST(LoginExchange, LoginThenStatusThenLogoffOnOneAgent) {
  LoginFixture f;
  f.StartServer();
  LoginUser(*f.t);
  f.t->temp_access_status = 1;
  LoginStatus(*f.t);
  LogOffUser(*f.t);
  f.Drain();
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  EXPECT_TRUE(f.t->login().StatusSucceeded);
  EXPECT_TRUE(f.t->login().LogoffSucceeded);
  EXPECT_EQ(f.server->Connections(), 3);
  const auto requests = f.server->Requests();
  ASSERT_EQ(requests.size(), 15u);
  EXPECT_THAT(std::vector<std::string>(requests.begin() + 10, requests.end()),
              ElementsAre("IDjsmith", "STATUS1", "TD Agent Disconnect OK", "Logoffjsmith:192.168.5.20",
                          "TD Agent Disconnect OK"));
}

}  // namespace
}  // namespace tdacli
