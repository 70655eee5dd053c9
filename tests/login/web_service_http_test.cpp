// The web-service client through the real HTTP client of the platform against the simulator's web
// service on the loopback: HTTP, HTTPS with a CA made at test time, and the failures a network can
// bring (404, empty body, "ERROR|", refused, slower than the 10 s time-out, untrusted certificate,
// oversized body).
#ifdef TDACLI_SIM_WEB
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "common/local_host.h"
#include "common/text.h"
#include "login/drivers.h"
#include "login/web_service.h"
#include "platform/internet.h"
#include "platform/tcp_socket.h"
#include "seams/test_ca.h"
#include "support/test_agent.h"
#include "triggers/trigger_files.h"
#include "web_server.h"

namespace tdacli {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::Lines;
using testing::ReadFile;

loginsim::UserTable WebUsers() {
  loginsim::UserRecord u;
  u.name = "jsmith";
  u.server_temp = "\\\\fs01\\tdtemp\\:FTP@ftp.example.com:tduser:9F8E7D6C";
  u.local_temp = "c:\\%appdir%\\Capture";
  u.live_id = "48213:10.1.2.3:5020:T";
  u.kek_info = "KEK-0001";
  u.valid_ip_mask = "127.0.0.";
  u.trace = "False";
  u.webcam = "true";
  u.hundred_screen = "SCR:010|ATLOGO:2|010|001";
  u.phone_home = "True";
  loginsim::UserTable users;
  users.Add(u);
  return users;
}

// An agent that fetches through a real HTTP client.
struct RealClientAgent {
  explicit RealClientAgent(std::unique_ptr<platform::HttpClient> c) : client(std::move(c)) {
    AgentOptions o;
    o.exe_folder = t.dir.path();
    o.exe_base_name = "tdacli";
    t.agent = NewAgent(AgentFacilities{t.clock, t.host, t.event_log, t.service_control, t.dialogs,
                                                      t.service_host, *client, t.internet},
                                      o);
    t.host.windows_dir = "C:\\WINDOWS\\";
    t->local_ip = "127.0.0.1";
    t.ip_part = "127-0-0-1";
    t->settings.CurrentUser = "jsmith";
    t->settings.Ext = "4711";
    LoadComputerNames(*t);
    t->startup_banner_written = true;
  }
  std::vector<std::string> Messages() const { return t.Messages(); }
  std::unique_ptr<platform::HttpClient> client;
  testing::TestAgent t;
};

struct WebServer {
  explicit WebServer(loginsim::WebOptions o = {}) : server(WebUsers(), std::move(o)) {
    std::string error;
    started = server.Start(error);
    EXPECT_TRUE(started) << error;
  }
  std::string Port() const { return std::to_string(server.port()); }
  loginsim::WebLoginServer server;
  bool started = false;
};

TEST(WebLoginServerSimulator, FaultModesRepliesAndEscaping) {
  loginsim::WebOptions o;
  EXPECT_TRUE(loginsim::ParseWebFault("slow", o));
  EXPECT_EQ(o.fault, loginsim::WebFault::kDelay);
  EXPECT_EQ(o.delay_ms, 15000);
  EXPECT_TRUE(loginsim::ParseWebFault("delay=250", o));
  EXPECT_EQ(o.delay_ms, 250);
  EXPECT_TRUE(loginsim::ParseWebFault("404", o));
  EXPECT_EQ(o.fault, loginsim::WebFault::kNotFound);
  EXPECT_FALSE(loginsim::ParseWebFault("delay=x", o));
  EXPECT_FALSE(loginsim::ParseWebFault("loud", o));
  EXPECT_EQ(loginsim::XmlStringResult("SUCCESS|a&b<c>"),
            "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<string xmlns=\"http://tempuri.org/\">SUCCESS|a&amp;b&lt;c&gt;"
            "</string>");
  const loginsim::UserTable users = WebUsers();
  EXPECT_EQ(loginsim::LoginReply(*users.Find("JSMITH")),
            "SUCCESS|SERVERTEMP=\\\\fs01\\tdtemp\\:FTP@ftp.example.com:tduser:9F8E7D6C|LOCALTEMP=c:\\%appdir%\\Capture|"
            "USETRACE=False|WEBCAM=true|SCREEN100=SCR:010_ATLOGO:2_010_001|PHONEHOME=True|IPMASK=127.0.0.|"
            "KEKINFO=KEK-0001|TDLIVEID=48213:10.1.2.3:5020:T");
}

const char* kNoResponse =
    "Trace in TDACLI: WebService_LoginUser - Received the following Response: NO RESPONSE or 404 PAGE NOT FOUND!";

TEST(WebServiceOverHttp, LoginStatusPhoneHomeAndLogoff) {
  WebServer web;
  ASSERT_TRUE(web.started);
  web.server.QueueGrabberTask("WKS-0042.corp.example", "2026-11-14 10:00@2026-11-14 11:00@JOB42");
  RealClientAgent a(platform::MakeHttpClient());
  a.t->settings.Server = "127.0.0.1:" + web.Port();

  LoginUser(*a.t);
  ASSERT_TRUE(a.t->login().LoginSucceeded) << a.t->login().LastLoginResult;
  EXPECT_EQ(a.t->login().LastLoginResult, "The Tyndrel Agent Client Successfully Logged in User (jsmith) to Server (127.0.0.1:" +
                                            web.Port() + ")).");
  EXPECT_EQ(a.t->login().HundredScreensParam, "SCR:010|ATLOGO:2|010|001");
  EXPECT_TRUE(a.t->login().PhoneHome);
  EXPECT_EQ(a.t->settings.LocalTemp, a.t->app_folder + "capture");
  EXPECT_THAT(Lines(a.t->AppPath("TDIPMASK.INI")),
              ElementsAre("[Tyndrel - Agent Client - Valid IP Mask]", "", "[Config]", "IPMask=127.0.0."));
  EXPECT_THAT(Lines(a.t->AppPath("TDACFTP.INI")), Contains("FTPServer=ftp.example.com"));

  a.t->temp_access_status = 2;
  LoginStatus(*a.t);
  EXPECT_TRUE(a.t->login().StatusSucceeded);
  PhoneHomeForScreenGrabberTasks(*a.t);
  EXPECT_EQ(ReadFile(a.t->AppPath("SendFrames-JOB42.TSF")), "2026-11-14 10:00@2026-11-14 11:00@JOB42\r\n");
  PhoneHomeForScreenGrabberTasks(*a.t);  // nothing more queued
  LogOffUser(*a.t);
  EXPECT_TRUE(a.t->login().LogoffSucceeded);

  const std::string base = "/TDLoginWebService/TDLoginWebService.asmx/";
  const std::string grab = "/TDFrameReceiverWebService/TDFrameReceiverWebService.asmx/GrabberMethod?Machine=wks-0042.corp.example";
  EXPECT_THAT(web.server.Requests(),
              ElementsAre(base + "LoginMethod?WinName=jsmith&LocalIP=127.0.0.1&Extension=4711",
                          base + "StatusMethod?WinName=jsmith&Status=2", grab, grab,
                          base + "LogOffMethod?WinName=jsmith&LocalIP=127.0.0.1"));
  EXPECT_THAT(web.server.TranscriptLines(),
              Contains("[4] S> 200 <?xml version=\"1.0\" encoding=\"utf-8\"?>\\r\\n<string "
                       "xmlns=\"http://tempuri.org/\">SUCCESS|NONE</string>"));
}

TEST(WebServiceOverHttp, BlanksTravelAsPercent20AndAmpersandsAsTheyAre) {
  WebServer web;
  ASSERT_TRUE(web.started);
  RealClientAgent a(platform::MakeHttpClient());
  a.t->settings.Server = "127.0.0.1:" + web.Port();
  a.t->settings.CurrentUser = "j smith&co";
  WebService_LogOffUser(*a.t);
  EXPECT_THAT(web.server.Requests(),
              ElementsAre("/TDLoginWebService/TDLoginWebService.asmx/LogOffMethod?WinName=j%20smith&co&LocalIP=127.0.0.1"));
  // The server split the name at "&": it does not know "j smith".
  EXPECT_FALSE(a.t->login().LogoffSucceeded);
}

TEST(WebServiceOverHttp, FaultsEndInNoResponseOrError) {
  for (const char* fault : {"404", "empty", "error"}) {
    loginsim::WebOptions o;
    ASSERT_TRUE(loginsim::ParseWebFault(fault, o));
    WebServer web(o);
    ASSERT_TRUE(web.started);
    RealClientAgent a(platform::MakeHttpClient());
    a.t->settings.Server = "127.0.0.1:" + web.Port();
    a.t->WriteLogin().LoginSucceeded = true;
    WebService_LoginUser(*a.t);
    EXPECT_FALSE(a.t->login().LoginSucceeded) << fault;
    const auto m = a.Messages();
    if (std::string(fault) == "error") {
      EXPECT_EQ(m.back(), "Error in TDACLI: The Tyndrel Agent Client could not execute a login for (jsmith) to (127.0.0.1:" +
                              web.Port() + ")");
    } else {
      EXPECT_EQ(m.back(), kNoResponse) << fault;
      EXPECT_EQ(a.t->login().LastLoginResult,
                "[ERROR]WebService_LoginUser - Received the following Response: NO RESPONSE or 404 PAGE NOT FOUND!");
    }
  }
}

TEST(WebServiceOverHttp, RefusedConnectionIsNoResponseWithTheCauseTraced) {
  // A port that was free a moment ago: nothing listens there.
  int port;
  {
    loginsim::WebLoginServer probe(WebUsers(), {});
    std::string error;
    ASSERT_TRUE(probe.Start(error));
    port = probe.port();
  }
  RealClientAgent a(platform::MakeHttpClient());
  a.t->settings.Server = "127.0.0.1:" + std::to_string(port);
  WebService_LoginUser(*a.t);
  const auto m = a.Messages();
  ASSERT_GE(m.size(), 2u);
  EXPECT_THAT(m[m.size() - 2], HasSubstr("Trace in TDACLI: WebService_LoginUser - The request failed: "));
  EXPECT_THAT(m[m.size() - 2], HasSubstr("(libcurl error 7)"));
  EXPECT_EQ(m.back(), kNoResponse);
}

TEST(WebServiceOverHttp, AServerSlowerThanTenSecondsIsGivenUpAfterTen) {
  loginsim::WebOptions o;
  o.fault = loginsim::WebFault::kDelay;
  o.delay_ms = 60000;  // the server is stopped (and answers nothing) when the test ends
  WebServer web(o);
  ASSERT_TRUE(web.started);
  RealClientAgent a(platform::MakeHttpClient());
  a.t->settings.Server = "127.0.0.1:" + web.Port();
  const auto start = std::chrono::steady_clock::now();
  WebService_LoginUser(*a.t);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GE(seconds, 9.5);
  EXPECT_LT(seconds, 50.0);  // the client's own time-out ended it, not the server
  const auto m = a.Messages();
  ASSERT_GE(m.size(), 2u);
  EXPECT_THAT(m[m.size() - 2], HasSubstr("(libcurl error 28)"));
  EXPECT_EQ(m.back(), kNoResponse);
}

TEST(WebServiceOverHttp, AnOversizedBodyIsRefusedWhole) {
  loginsim::WebOptions o;
  o.fault = loginsim::WebFault::kOversize;
  WebServer web(o);
  ASSERT_TRUE(web.started);
  RealClientAgent a(platform::MakeHttpClient());
  a.t->settings.Server = "127.0.0.1:" + web.Port();
  WebService_LoginUser(*a.t);
  const auto m = a.Messages();
  ASSERT_GE(m.size(), 2u);
  EXPECT_EQ(m[m.size() - 2], "Trace in TDACLI: WebService_LoginUser - The request failed: the response is larger than "
                             "65536 bytes");
  EXPECT_EQ(m.back(), kNoResponse);
  EXPECT_FALSE(a.t->login().LoginSucceeded);
}

TEST(WebServiceOverHttp, LineBreaksInTheUserNeverReachTheWire) {
  WebServer web;
  ASSERT_TRUE(web.started);
  RealClientAgent a(platform::MakeHttpClient());
  a.t->settings.Server = "127.0.0.1:" + web.Port();
  a.t->settings.CurrentUser = "jsmith\r\nX-Injected: 1";
  WebService_LogOffUser(*a.t);
  EXPECT_TRUE(web.server.Requests().empty());
  EXPECT_FALSE(a.t->login().LogoffSucceeded);
}

// ---- HTTPS

struct Pki {
  Pki() {
    std::string error;
    ok = loginsim::MakeTestPki(dir.path(), error);
    EXPECT_TRUE(ok) << error;
  }
  std::string File(const std::string& name) const { return dir.File(name); }
  testing::TempDir dir;
  bool ok = false;
};

loginsim::WebOptions Https(const Pki& pki) {
  loginsim::WebOptions o;
  o.https = true;
  o.cert_file = pki.File("server.pem");
  o.key_file = pki.File("server.key");
  return o;
}

TEST(WebServiceOverHttps, LoginWithTheTestCaByAddressAndByName) {
  Pki pki;
  ASSERT_TRUE(pki.ok);
  WebServer web(Https(pki));
  ASSERT_TRUE(web.started);
  for (const std::string& server : {"127.0.0.1:https:" + web.Port(), "localhost:" + web.Port() + ":HTTPS"}) {
    RealClientAgent a(platform::testing::MakeHttpClientTrustingOnly(pki.File("ca.pem")));
    a.t->settings.Server = server;
    LoginUser(*a.t);
    EXPECT_TRUE(a.t->login().LoginSucceeded) << server << ": " << a.t->login().LastLoginResult;
    EXPECT_THAT(a.Messages(), Contains(HasSubstr("Performing an OpenURL() on: https://")));
  }
}

TEST(WebServiceOverHttps, TheProductionClientDoesNotTrustTheTestCa) {
  Pki pki;
  ASSERT_TRUE(pki.ok);
  WebServer web(Https(pki));
  ASSERT_TRUE(web.started);
  RealClientAgent a(platform::MakeHttpClient());
  a.t->settings.Server = "127.0.0.1:https:" + web.Port();
  WebService_LoginUser(*a.t);
  const auto m = a.Messages();
  ASSERT_GE(m.size(), 2u);
  EXPECT_THAT(m[m.size() - 2], HasSubstr("(libcurl error 60)"));  // the peer's certificate is not trusted
  EXPECT_EQ(m.back(), kNoResponse);
  EXPECT_TRUE(web.server.Requests().empty());
}

TEST(WebServiceOverHttps, AnUntrustedCertificateIsRefused) {
  Pki pki;
  ASSERT_TRUE(pki.ok);
  loginsim::WebOptions o;
  o.https = true;
  o.fault = loginsim::WebFault::kUntrusted;
  WebServer web(o);
  ASSERT_TRUE(web.started);
  RealClientAgent a(platform::testing::MakeHttpClientTrustingOnly(pki.File("ca.pem")));
  a.t->settings.Server = "127.0.0.1:https:" + web.Port();
  WebService_LoginUser(*a.t);
  const auto m = a.Messages();
  ASSERT_GE(m.size(), 2u);
  EXPECT_THAT(m[m.size() - 2], HasSubstr("(libcurl error 60)"));
  EXPECT_EQ(m.back(), kNoResponse);
  EXPECT_TRUE(web.server.Requests().empty());
}

TEST(WebServiceOverHttps, PlainHttpToTheHttpsPortFailsWithoutAnAnswer) {
  Pki pki;
  ASSERT_TRUE(pki.ok);
  WebServer web(Https(pki));
  ASSERT_TRUE(web.started);
  RealClientAgent a(platform::testing::MakeHttpClientTrustingOnly(pki.File("ca.pem")));
  a.t->settings.Server = "127.0.0.1:" + web.Port();
  WebService_LoginUser(*a.t);
  EXPECT_EQ(a.Messages().back(), kNoResponse);
  EXPECT_FALSE(a.t->login().LoginSucceeded);
}

}  // namespace
}  // namespace tdacli
#endif
