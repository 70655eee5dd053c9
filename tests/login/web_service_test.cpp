// The web-service login client against a recording HTTP client: server-address forms, the four URLs,
// the internet check on the simulated clock, every log line and result text, every key of the login
// reply against every field, and the phone-home replies.
#include "login/web_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/local_host.h"
#include "common/text.h"
#include "login/drivers.h"
#include "support/test_agent.h"
#include "triggers/trigger_files.h"

namespace tdacli {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using testing::Exists;
using testing::Lines;
using testing::ReadFile;
using testing::WriteFile;

constexpr const char* kUrlBase = "http://td.example.com:8080/TDLoginWebService/TDLoginWebService.asmx/";
constexpr const char* kLoginUrl =
    "http://td.example.com:8080/TDLoginWebService/TDLoginWebService.asmx/LoginMethod?WinName=jsmith&"
    "LocalIP=192.168.5.20&Extension=4711";
constexpr const char* kGrabberUrl =
    "http://td.example.com:8080/TDFrameReceiverWebService/TDFrameReceiverWebService.asmx/GrabberMethod?"
    "Machine=wks-0042.corp.example";

// The service's XML string result around `body`.
std::string Xml(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<string xmlns=\"http://tempuri.org/\">" + body + "</string>";
}

struct WebFixture {
  WebFixture() {
    t.host.windows_dir = "C:\\WINDOWS\\";
    t->local_ip = "192.168.5.20";
    t->settings.CurrentUser = "jsmith";
    t->settings.Ext = "4711";
    t->settings.Server = "td.example.com:8080";
    LoadComputerNames(*t);
    t->startup_banner_written = true;
  }
  size_t Mark() const { return t.Messages().size(); }
  std::vector<std::string> Since(size_t mark) const {
    auto all = t.Messages();
    return std::vector<std::string>(all.begin() + static_cast<long>(std::min(mark, all.size())), all.end());
  }
  std::string App(const std::string& name) { return t->AppPath(name); }
  testing::TestAgent t;
};

// ---- server-address forms

TEST(WebServiceAddress, EveryForm) {
  struct Case {
    const char* server;
    const char* base;
  } cases[] = {
      {"td.example.com:8080", "http://td.example.com:8080"},
      {"td.example.com:https", "https://td.example.com"},
      {"td.example.com:http", "http://td.example.com"},
      {"td.example.com:HTTPS", "https://td.example.com"},
      {"td.example.com:https:8443", "https://td.example.com:8443"},
      {"td.example.com:8443:https", "https://td.example.com:8443"},
      {"td.example.com:http:8080", "http://td.example.com:8080"},
      {"td.example.com:", "http://td.example.com"},
      {"td.example.com", "http://td.example.com"},
      {"10.0.0.5:80", "http://10.0.0.5:80"},
  };
  for (const Case& c : cases) EXPECT_EQ(ParseWebServer(c.server).Base(), c.base) << c.server;
}

TEST(WebServiceAddress, EachFormReachesTheLoginUrl) {
  for (auto [server, url] : std::vector<std::pair<std::string, std::string>>{
           {"td.example.com:https", "https://td.example.com/TDLoginWebService/"},
           {"td.example.com:http", "http://td.example.com/TDLoginWebService/"},
           {"td.example.com:https:8443", "https://td.example.com:8443/TDLoginWebService/"},
           {"td.example.com:8080", "http://td.example.com:8080/TDLoginWebService/"}}) {
    WebFixture f;
    f.t->settings.Server = server;
    WebService_LoginUser(*f.t);
    ASSERT_EQ(f.t.http.urls.size(), 1u) << server;
    EXPECT_EQ(f.t.http.urls[0].rfind(url, 0), 0u) << f.t.http.urls[0];
  }
}

// ---- login

TEST(WebServiceLogin, SuccessWithEveryFieldLogsStoresAndReports) {
  WebFixture f;
  f.t.http.Always(Xml("SUCCESS|SERVERTEMP=\\\\fs01\\tdtemp\\:FTP@ftp.example.com:tduser:9F8E7D6C|"
                      "LOCALTEMP=C:\\%WINDIR%\\Temp|RECORDINGMETHOD=Screen|CAPTUREINFO=x|USETRACE=True|WEBCAM=true|"
                      "SCREEN100=SCR:010_ATLOGO:2_010_001|PHONEHOME=True|IPMASK=192.168.5.|KEKINFO=KEK-0001|"
                      "TDLIVEID=48213:10.1.2.3:5020:T"));
  const size_t mark = f.Mark();

  WebService_LoginUser(*f.t);

  ASSERT_THAT(f.t.http.urls, ElementsAre(kLoginUrl));
  const std::string received =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?>{CRLF}<string xmlns=\"http://tempuri.org/\">SUCCESS|SERVERTEMP=";
  auto lines = f.Since(mark);
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ(lines[0], "Trace in TDACLI: Testing Internet Connection ...");
  EXPECT_EQ(lines[1], "Trace in TDACLI: Internet Connection Successful via [LAN]");
  EXPECT_EQ(lines[2], std::string("Trace in TDACLI: WebService_LoginUser - Performing an OpenURL() on: ") + kLoginUrl);
  EXPECT_EQ(lines[3].rfind("Trace in TDACLI: WebService_LoginUser - Received the following Response: " + received, 0),
            0u)
      << lines[3];
  EXPECT_EQ(lines.back(),
            "Information in TDACLI: The Tyndrel Agent Client Successfully Logged in User (jsmith) to Server "
            "(td.example.com:8080)");
  const LoginState& l = f.t->login();
  EXPECT_TRUE(l.LoginSucceeded);
  EXPECT_EQ(l.LastLoginResult,
            "The Tyndrel Agent Client Successfully Logged in User (jsmith) to Server (td.example.com:8080)).");
  EXPECT_EQ(l.HundredScreensParam, "SCR:010|ATLOGO:2|010|001");
  EXPECT_TRUE(l.UseWebCam);
  EXPECT_TRUE(l.PhoneHome);
  EXPECT_EQ(l.NextPhoneHomeMs, f.t.clock.NowMs());
  EXPECT_EQ(l.TDLiveID, "48213");
  EXPECT_TRUE(l.PeerToPeerCapable);
  EXPECT_EQ(f.t->settings.LocalTemp, "C:\\WINDOWS\\temp");
  // Stored as the line conversation stores them.
  EXPECT_THAT(Lines(f.App("TDACFTP.INI")),
              ElementsAre("[Tyndrel - Agent Client - FTP Credentials]", "", "[Config]", "ServerTemp=\\\\fs01\\tdtemp\\",
                          "FTPServer=ftp.example.com", "UserName=tduser", "EncryptedPassword=9F8E7D6C", "Port=21",
                          "Ssl=False", "AuthTLS=False", "Passive=False", "PassiveUseHostAddr=False", "Protocol=FTP"));
  EXPECT_THAT(Lines(f.App("TDIPMASK.INI")),
              ElementsAre("[Tyndrel - Agent Client - Valid IP Mask]", "", "[Config]", "IPMask=192.168.5."));
  const auto settings = Lines(f.App("TDRegInfo.TXT"));
  EXPECT_THAT(settings, ::testing::Contains("SvrTemp=\\\\fs01\\tdtemp\\"));
  EXPECT_THAT(settings, ::testing::Contains("LocalTemp=C:\\WINDOWS\\temp"));
  EXPECT_THAT(settings, ::testing::Contains("UseTrace=True"));
}

TEST(WebServiceLogin, SuccessWithNoFieldsStillSucceeds) {
  WebFixture f;
  f.t.http.Always(Xml("SUCCESS|"));
  WebService_LoginUser(*f.t);
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult,
            "The Tyndrel Agent Client Successfully Logged in User (jsmith) to Server (td.example.com:8080)).");
}

TEST(WebServiceLogin, ErrorReplyFailsWithTheLoginText) {
  WebFixture f;
  f.t->WriteLogin().LoginSucceeded = true;
  f.t.http.Always(Xml("ERROR|NoMatchingWinName"));
  const size_t mark = f.Mark();
  WebService_LoginUser(*f.t);
  const auto lines = f.Since(mark);
  EXPECT_EQ(lines.back(),
            "Error in TDACLI: The Tyndrel Agent Client could not execute a login for (jsmith) to (td.example.com:8080)");
  EXPECT_FALSE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult,
            "The Tyndrel Agent Client could not execute a login for (jsmith) to (td.example.com:8080)");
  EXPECT_FALSE(Exists(f.App("TDRegInfo.TXT")));
}

TEST(WebServiceLogin, ErrorWinsOverSuccessInOneReply) {
  WebFixture f;
  f.t.http.Always(Xml("SUCCESS|ERROR|"));
  WebService_LoginUser(*f.t);
  EXPECT_FALSE(f.t->login().LoginSucceeded);
}

void ExpectNoResponse(WebFixture& f, const std::vector<std::string>& before_last) {
  const auto lines = f.Since(0);
  const std::string text = "WebService_LoginUser - Received the following Response: NO RESPONSE or 404 PAGE NOT FOUND!";
  std::vector<std::string> expected = {"Trace in TDACLI: Testing Internet Connection ...",
                                       "Trace in TDACLI: Internet Connection Successful via [LAN]",
                                       std::string("Trace in TDACLI: WebService_LoginUser - Performing an OpenURL() on: ") +
                                           kLoginUrl};
  for (const auto& l : before_last) expected.push_back(l);
  expected.push_back("Trace in TDACLI: " + text);
  EXPECT_THAT(lines, ElementsAreArray(expected));
  EXPECT_FALSE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]" + text);
}

TEST(WebServiceLogin, NotFoundStatusWithAnyBodyIsNoResponse) {
  WebFixture f;
  f.t->WriteLogin().LoginSucceeded = true;
  f.t.http.Always("<html><body>Gone, but SUCCESS| anyway</body></html>", 404);
  WebService_LoginUser(*f.t);
  ExpectNoResponse(f, {"Trace in TDACLI: WebService_LoginUser - The web service answered with HTTP status 404"});
}

// ---- the deliberate differences from the literal texts (README, "The login web service"): one test
// per row of that table, so that none changes by accident.

TEST(WebClientDifference, ABlankInAValueGoesOutAsPercent20) {
  WebFixture f;
  f.t->settings.CurrentUser = "j smith";
  f.t.http.Always(Xml("SUCCESS|"));
  WebService_LoginUser(*f.t);
  // Logged as built, sent with the blank escaped (a raw blank is no valid request line).
  EXPECT_THAT(f.Since(0), ::testing::Contains(std::string("Trace in TDACLI: WebService_LoginUser - Performing an "
                                                          "OpenURL() on: ") +
                                              kUrlBase + "LoginMethod?WinName=j smith&LocalIP=192.168.5.20&Extension=4711"));
  EXPECT_THAT(f.t.http.urls,
              ElementsAre(std::string(kUrlBase) + "LoginMethod?WinName=j%20smith&LocalIP=192.168.5.20&Extension=4711"));
}

TEST(WebClientDifference, Status404IsNoResponseWhateverTheBody) {
  WebFixture f;
  f.t.http.Always(Xml("SUCCESS|USETRACE=True"), 404);
  WebService_LoginUser(*f.t);
  ExpectNoResponse(f, {"Trace in TDACLI: WebService_LoginUser - The web service answered with HTTP status 404"});
  EXPECT_FALSE(Exists(f.App("TDRegInfo.TXT")));

  WebFixture g;
  g.t.http.Always("SUCCESS|SENDFRAMES|a@b@JOB9", 404);
  PhoneHomeForScreenGrabberTasks(*g.t);
  EXPECT_THAT(g.Since(0),
              ElementsAre(std::string("Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - Performing an "
                                      "OpenURL() on: ") +
                              kGrabberUrl,
                          "Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - The web service answered with "
                          "HTTP status 404",
                          "Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - Received: SUCCESS|SENDFRAMES|a@b@JOB9",
                          "Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - Received the following Response: "
                          "NO RESPONSE or 404 PAGE NOT FOUND!"));
  EXPECT_FALSE(Exists(g.App("SendFrames-JOB9.TSF")));
}

TEST(WebClientDifference, HostHttpsPortMeansHostAndThatPort) {
  EXPECT_EQ(ParseWebServer("td.example.com:https:8443").Base(), "https://td.example.com:8443");
  WebFixture f;
  f.t->settings.Server = "td.example.com:https:8443";
  WebService_LoginUser(*f.t);
  EXPECT_THAT(f.t.http.urls, ElementsAre("https://td.example.com:8443/TDLoginWebService/TDLoginWebService.asmx/"
                                         "LoginMethod?WinName=jsmith&LocalIP=192.168.5.20&Extension=4711"));
}

TEST(WebClientDifference, AFailedRequestAndAnotherStatusThan200EachAddOneTraceLine) {
  WebFixture f;  // the recording client refuses by default
  WebService_LoginUser(*f.t);
  ExpectNoResponse(f, {"Trace in TDACLI: WebService_LoginUser - The request failed: Connection refused"});

  // Any other status is traced and its body taken as the answer.
  WebFixture g;
  g.t.http.Always(Xml("SUCCESS|"), 500);
  WebService_LoginUser(*g.t);
  const auto lines = g.Since(0);
  ASSERT_GE(lines.size(), 5u);
  EXPECT_EQ(lines[3], "Trace in TDACLI: WebService_LoginUser - The web service answered with HTTP status 500");
  EXPECT_EQ(lines[4], "Trace in TDACLI: WebService_LoginUser - Received the following Response: " +
                          ReplaceAll(Xml("SUCCESS|"), "\r\n", "{CRLF}"));
  EXPECT_TRUE(g.t->login().LoginSucceeded);
}

TEST(WebServiceLogin, NotFoundInTheTextIsNoResponse) {
  WebFixture f;
  f.t.http.Always("HTTP 404 Not Found");
  WebService_LoginUser(*f.t);
  ExpectNoResponse(f, {});
}

TEST(WebServiceLogin, EmptyBodyIsNoResponse) {
  WebFixture f;
  f.t.http.Always("");
  WebService_LoginUser(*f.t);
  ExpectNoResponse(f, {});
}

TEST(WebServiceLogin, RefusedConnectionTracesTheCauseThenNoResponse) {
  WebFixture f;  // the recording client refuses by default
  WebService_LoginUser(*f.t);
  ExpectNoResponse(f, {"Trace in TDACLI: WebService_LoginUser - The request failed: Connection refused"});
}

TEST(WebServiceLogin, TwentyInternetWaitsOfThirtySecondsThenAbort) {
  WebFixture f;
  f.t.internet.offline_checks = 1000;
  f.t->WriteLogin().LastLoginResult = "earlier";
  const int64_t start = f.t.clock.NowMs();

  WebService_LoginUser(*f.t);

  EXPECT_EQ(f.t.internet.checks, 21);
  EXPECT_EQ(f.t.clock.NowMs() - start, 20 * 30000);
  EXPECT_TRUE(f.t.http.urls.empty());
  std::vector<std::string> expected;
  for (int i = 1; i <= 20; ++i) {
    expected.push_back("Trace in TDACLI: Testing Internet Connection ...");
    expected.push_back("Trace in TDACLI: No Internet Connection, Pausing [30] Seconds and Trying Again, Attempt [" +
                       std::to_string(i) + " of 20]");
  }
  expected.push_back("Trace in TDACLI: Testing Internet Connection ...");
  expected.push_back("Trace in TDACLI: Could not connect to the internet after max-tries, abort!");
  expected.push_back(
      "Error in TDACLI: The Tyndrel Agent Client could not execute a login for (jsmith) to (td.example.com:8080)");
  EXPECT_THAT(f.Since(0), ElementsAreArray(expected));
  EXPECT_EQ(f.t->login().LastLoginResult, "earlier");
}

TEST(WebServiceLogin, ConnectionAfterThreeWaitsGoesOn) {
  WebFixture f;
  f.t.internet.offline_checks = 3;
  f.t.internet.kind = "Proxy";
  f.t.http.Always(Xml("SUCCESS|"));
  const int64_t start = f.t.clock.NowMs();
  WebService_LoginUser(*f.t);
  EXPECT_EQ(f.t.clock.NowMs() - start, 3 * 30000);
  EXPECT_THAT(f.Since(0), ::testing::Contains("Trace in TDACLI: Internet Connection Successful via [Proxy]"));
  EXPECT_TRUE(f.t->login().LoginSucceeded);
}

TEST(WebServiceLogin, ClearsCaptureParametersAndReportsAParameterFileThatStays) {
  WebFixture f;
  WriteFile(f.App("100ScreenParam.TXT"), "old\r\n");
  f.t->WriteLogin().HundredScreensParam = "old";
  f.t->WriteLogin().UseWebCam = true;
  f.t.http.Always("");
  WebService_LoginUser(*f.t);
  EXPECT_FALSE(Exists(f.App("100ScreenParam.TXT")));
  EXPECT_EQ(f.t->login().HundredScreensParam, "");
  EXPECT_FALSE(f.t->login().UseWebCam);

  WebFixture g;
  WriteFile(g.App("100ScreenParam.TXT"), "old\r\n");
  g.t->refuse_delete = [](const std::string&) { return true; };
  WebService_LoginUser(*g.t);
  EXPECT_THAT(g.Since(0), ::testing::Contains("Error in TDACLI: Error Removing File (" + g.App("100ScreenParam.TXT") + ")!"));
}

TEST(WebServiceLogin, MissingAddressAndUserAreFetchedFirst) {
  WebFixture f;
  f.t->local_ip.clear();
  f.t->settings.CurrentUser.clear();
  WriteFile(f.App("TDRegInfo.TXT"), "Server=td.example.com:8080\r\nCurrentUser=asmith\r\nExt=99\r\n");
  WebService_LoginUser(*f.t);
  ASSERT_EQ(f.t.http.urls.size(), 1u);
  EXPECT_EQ(f.t.http.urls[0], std::string(kUrlBase) + "LoginMethod?WinName=asmith&LocalIP=192.168.5.20&Extension=99");
}

TEST(WebServiceLogin, AmpersandsAndBlanksGoOutUnescapedExceptBlanksAsPercent20) {
  WebFixture f;
  f.t->settings.CurrentUser = "j smith&co";
  f.t->settings.Ext = "47 11";
  WebService_LoginUser(*f.t);
  const std::string logged = std::string(kUrlBase) + "LoginMethod?WinName=j smith&co&LocalIP=192.168.5.20&Extension=47 11";
  EXPECT_THAT(f.Since(0), ::testing::Contains("Trace in TDACLI: WebService_LoginUser - Performing an OpenURL() on: " + logged));
  ASSERT_EQ(f.t.http.urls.size(), 1u);
  EXPECT_EQ(f.t.http.urls[0],
            std::string(kUrlBase) + "LoginMethod?WinName=j%20smith&co&LocalIP=192.168.5.20&Extension=47%2011");
}

TEST(WebServiceLogin, ABadFlagIsTrappedAsTypeMismatch) {
  WebFixture f;
  f.t.http.Always(Xml("SUCCESS|WEBCAM=perhaps|KEKINFO=k"));
  WebService_LoginUser(*f.t);
  EXPECT_EQ(f.Since(0).back(), "Error in TDACLI: Detected Error In WebService_LoginUser() Routine: 13, Type mismatch");
  EXPECT_TRUE(f.t->login().LoginSucceeded);  // set before the fields are read
  EXPECT_EQ(f.t->login().KekInfo, "");       // the fields after the bad one are not applied
}

TEST(WebServiceLogin, LineBreaksNeverReachStoredValues) {
  WebFixture f;
  f.t.http.Always(Xml("SUCCESS|USETRACE=Tr\r\nServer=evil\rue|LOCALTEMP=c:\\temp\n|IPMASK=10.\r\n0.|KEKINFO=a\nb"));
  WebService_LoginUser(*f.t);
  EXPECT_EQ(f.t->settings.UseTrace, "TrServer=evilue");
  EXPECT_EQ(f.t->settings.LocalTemp, "c:\\temp");
  EXPECT_EQ(f.t->login().ValidIPMask, "10.0.");
  EXPECT_EQ(f.t->login().KekInfo, "ab");
  for (const auto& line : Lines(f.App("TDRegInfo.TXT"))) EXPECT_EQ(line.find_first_of("\r\n"), std::string::npos);
  EXPECT_THAT(Lines(f.App("TDRegInfo.TXT")), ::testing::Not(::testing::Contains("Server=evil")));
}

TEST(WebServiceLogin, ANulInAFieldCutsTheStoredValueWithAWarning) {
  using namespace std::string_literals;
  WebFixture f;
  f.t.http.Always(Xml("SUCCESS|USETRACE=True\0evil|LOCALTEMP=c:\\temp\0\\..|IPMASK=10.\0\r\n0.|SERVERTEMP=\\\\fs\\t\0x"s));
  WebService_LoginUser(*f.t);
  EXPECT_EQ(f.t->settings.UseTrace, "True");
  EXPECT_EQ(f.t->settings.LocalTemp, "c:\\temp");
  EXPECT_EQ(f.t->settings.SvrTemp, "\\\\fs\\t");
  EXPECT_EQ(f.t->login().ValidIPMask, "10.");
  EXPECT_EQ(ReadFile(f.App("TDRegInfo.TXT")).find('\0'), std::string::npos);
  EXPECT_EQ(ReadFile(f.App("TDIPMASK.INI")),
            "[Tyndrel - Agent Client - Valid IP Mask]\r\n\r\n[Config]\r\nIPMask=10.\r\n");
  std::vector<std::string> warnings;
  for (const auto& m : f.t.Messages())
    if (m.rfind("Warning in TDACLI: ", 0) == 0) warnings.push_back(m);
  EXPECT_THAT(warnings, ElementsAre("Warning in TDACLI: The value of (IPMask) held a line break and was cut at it.",
                                    "Warning in TDACLI: The value of (LocalTemp) held a line break and was cut at it.",
                                    "Warning in TDACLI: The value of (SvrTemp) held a line break and was cut at it.",
                                    "Warning in TDACLI: The value of (UseTrace) held a line break and was cut at it."));
}

TEST(WebServicePhoneHome, ANulInATaskCutsTheJobFileLine) {
  using namespace std::string_literals;
  WebFixture f;
  f.t.http.Always("SUCCESS|SENDFRAMES|a@b@JOB8@c\0planted"s);
  PhoneHomeForScreenGrabberTasks(*f.t);
  EXPECT_EQ(ReadFile(f.App("SendFrames-JOB8.TSF")), "a@b@JOB8@c\r\n");
  EXPECT_THAT(f.t.Messages(),
              ::testing::Contains("Warning in TDACLI: The value of (SendFrames) held a line break and was cut at it."));
}

// Every key of the table against every field: a reply of one field sets exactly what its key names.
struct Snapshot {
  std::string SvrTemp, LocalTemp, UseTrace, HundredScreensParam, ValidIPMask, KekInfo, TDLiveID, RepeaterIP,
      RepeaterPort;
  bool UseWebCam = false, PhoneHome = false, PeerToPeerCapable = false;
  int64_t NextPhoneHomeMs = 0;
  bool operator==(const Snapshot&) const = default;
};

Snapshot Take(Agent& a) {
  const LoginState& l = a.login();
  return {a.settings.SvrTemp, a.settings.LocalTemp, a.settings.UseTrace, l.HundredScreensParam, l.ValidIPMask,
          l.KekInfo,         l.TDLiveID,           l.RepeaterIP,         l.RepeaterPort,         l.UseWebCam,
          l.PhoneHome,       l.PeerToPeerCapable,  l.NextPhoneHomeMs};
}

std::ostream& operator<<(std::ostream& os, const Snapshot& s) {
  return os << "{" << s.SvrTemp << "," << s.LocalTemp << "," << s.UseTrace << "," << s.HundredScreensParam << ","
            << s.ValidIPMask << "," << s.KekInfo << "," << s.TDLiveID << "," << s.RepeaterIP << "," << s.RepeaterPort
            << "," << s.UseWebCam << "," << s.PhoneHome << "," << s.PeerToPeerCapable << "," << s.NextPhoneHomeMs << "}";
}

TEST(WebServiceLoginKeys, EachKeySetsOnlyWhatItNames) {
  struct Case {
    std::string field;
    std::function<void(Snapshot&, int64_t now)> change;
  };
  const std::vector<Case> cases = {
      {"SERVERTEMP=\\\\fs_01\\t_d", [](Snapshot& s, int64_t) { s.SvrTemp = "\\\\fs|01\\t|d"; }},
      {"LOCALTEMP=C:\\%APPDIR%\\Cap", [](Snapshot& s, int64_t) { s.LocalTemp = "<app>cap"; }},
      {"RECORDINGMETHOD=Screen", [](Snapshot&, int64_t) {}},
      {"CAPTUREINFO=All", [](Snapshot&, int64_t) {}},
      {"USETRACE=Maybe", [](Snapshot& s, int64_t) { s.UseTrace = "Maybe"; }},
      {"WEBCAM=1", [](Snapshot& s, int64_t) { s.UseWebCam = true; }},
      {"SCREEN100=SCR:010_AT-LOG:2_010_001", [](Snapshot& s, int64_t) { s.HundredScreensParam = "SCR:010|AT-LOG:2|010|001"; }},
      {"PHONEHOME=true",
       [](Snapshot& s, int64_t now) {
         s.PhoneHome = true;
         s.NextPhoneHomeMs = now;
       }},
      {"PHONEHOME=False", [](Snapshot&, int64_t) {}},
      {"IPMASK=10.1.", [](Snapshot& s, int64_t) { s.ValidIPMask = "10.1."; }},
      {"KEKINFO=KEK-7", [](Snapshot& s, int64_t) { s.KekInfo = "KEK-7"; }},
      {"TDLIVEID=7:10.9.9.9:6000:T",
       [](Snapshot& s, int64_t) {
         s.TDLiveID = "7";
         s.RepeaterIP = "10.9.9.9";
         s.RepeaterPort = "6000";
         s.PeerToPeerCapable = true;
       }},
      {"TDLIVEID=7",
       [](Snapshot& s, int64_t) { s.TDLiveID = "7"; }},
      {"UNKNOWN=1", [](Snapshot&, int64_t) {}},
  };
  for (const Case& c : cases) {
    WebFixture f;
    f.t->WriteLogin().NextPhoneHomeMs = 5;
    f.t->WriteLogin().RepeaterIP = "old";
    f.t.clock.AdvanceBy(1234);
    Snapshot expected = Take(*f.t);
    expected.UseWebCam = false;  // cleared before the fetch
    c.change(expected, f.t.clock.NowMs());
    if (expected.LocalTemp == "<app>cap") expected.LocalTemp = f.t->app_folder + "cap";
    f.t.http.Always(Xml("SUCCESS|" + c.field));
    WebService_LoginUser(*f.t);
    EXPECT_TRUE(f.t->login().LoginSucceeded) << c.field;
    EXPECT_EQ(Take(*f.t), expected) << c.field;
  }
}

TEST(WebServiceLoginKeys, AFieldIsTestedAgainstEveryKeyInTableOrder) {
  WebFixture f;
  // One field holding two keys sets both, each from the text after its own key; the key may stand
  // anywhere in the field.
  ApplyLoginReplyFields(*f.t, "xIPMASK=KEKINFO=z|USETRACE=a USETRACE=b</string>");
  EXPECT_EQ(f.t->login().ValidIPMask, "KEKINFO=z");
  EXPECT_EQ(f.t->login().KekInfo, "z");
  EXPECT_EQ(f.t->settings.UseTrace, "a USETRACE=b");
}

TEST(WebServiceLoginKeys, BooleanConversion) {
  EXPECT_TRUE(ToBoolean("True"));
  EXPECT_TRUE(ToBoolean(" TRUE "));
  EXPECT_FALSE(ToBoolean("false"));
  EXPECT_TRUE(ToBoolean("-1"));
  EXPECT_FALSE(ToBoolean("0"));
  EXPECT_TRUE(ToBoolean("2.5"));
  EXPECT_ANY_THROW(ToBoolean(""));
  EXPECT_ANY_THROW(ToBoolean("yes"));
}

// ---- logoff and status

TEST(WebServiceLogoff, SuccessErrorAndNoResponse) {
  const std::string url = std::string(kUrlBase) + "LogOffMethod?WinName=jsmith&LocalIP=192.168.5.20";
  {
    WebFixture f;
    f.t.http.Always(Xml("SUCCESS|"));
    f.t->WriteLogin().LastLoginResult = "earlier";
    WebService_LogOffUser(*f.t);
    EXPECT_THAT(f.Since(0),
                ElementsAre("Trace in TDACLI: WebService_LogOffUser - Performing an OpenURL() on: " + url,
                            "Trace in TDACLI: WebService_LogOffUser - Received the following Response: " +
                                ReplaceAll(Xml("SUCCESS|"), "\r\n", "{CRLF}"),
                            "Information in TDACLI: The Tyndrel Agent Client Successfully Logged off User (jsmith) to "
                            "Server (td.example.com:8080)"));
    EXPECT_TRUE(f.t->login().LogoffSucceeded);
    EXPECT_EQ(f.t->login().LastLoginResult, "earlier");
  }
  {
    WebFixture f;
    f.t->WriteLogin().LogoffSucceeded = true;
    f.t.http.Always(Xml("ERROR|"));
    WebService_LogOffUser(*f.t);
    const std::string text = "The Tyndrel Agent Client could not execute a logoff for (jsmith) to (td.example.com:8080)";
    EXPECT_EQ(f.Since(0).back(), "Error in TDACLI: " + text);
    EXPECT_FALSE(f.t->login().LogoffSucceeded);
    EXPECT_EQ(f.t->login().LastLoginResult, text);
  }
  {
    WebFixture f;
    f.t->WriteLogin().LogoffSucceeded = true;
    WebService_LogOffUser(*f.t);
    const std::string text = "WebService_LogOffUser - Received the following Response: NO RESPONSE or 404 PAGE NOT FOUND!";
    EXPECT_EQ(f.Since(0).back(), "Trace in TDACLI: " + text);
    EXPECT_FALSE(f.t->login().LogoffSucceeded);
    EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]" + text);
  }
}

TEST(WebServiceStatus, ReportsTheAccessResult) {
  {
    WebFixture f;
    f.t->temp_access_status = 3;
    f.t.http.Always(Xml("SUCCESS|"));
    WebService_LoginStatus(*f.t);
    ASSERT_THAT(f.t.http.urls, ElementsAre(std::string(kUrlBase) + "StatusMethod?WinName=jsmith&Status=3"));
    EXPECT_EQ(f.Since(0).back(),
              "Warning in TDACLI: The Tyndrel Agent Client Successfully Updated Agent Status to (3) for User (jsmith). "
              "However the user does not have proper permissions!");
    EXPECT_TRUE(f.t->login().StatusSucceeded);
  }
  {
    WebFixture f;
    f.t.http.Always(Xml("SUCCESS|"));
    WebService_LoginStatus(*f.t);
    EXPECT_EQ(f.Since(0).back(),
              "Trace in TDACLI: The Tyndrel Agent Client Successfully Updated Agent Status to (0) for User (jsmith).");
    EXPECT_TRUE(f.t->login().StatusSucceeded);
  }
  {
    WebFixture f;
    f.t->WriteLogin().StatusSucceeded = true;
    f.t.http.Always(Xml("ERROR|"));
    WebService_LoginStatus(*f.t);
    const std::string text =
        "The Tyndrel Agent Client could not execute a status update for (jsmith) to (td.example.com:8080)";
    EXPECT_EQ(f.Since(0).back(), "Error in TDACLI: " + text);
    EXPECT_FALSE(f.t->login().StatusSucceeded);
  }
}

// ---- phone home

TEST(WebServicePhoneHome, NothingToDo) {
  WebFixture f;
  f.t.http.Always(Xml("SUCCESS|NONE"));
  PhoneHomeForScreenGrabberTasks(*f.t);
  EXPECT_THAT(f.t.http.urls, ElementsAre(kGrabberUrl));
  EXPECT_THAT(f.Since(0), ElementsAre(std::string("Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - "
                                                  "Performing an OpenURL() on: ") + kGrabberUrl,
                                      "Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - Received: " +
                                          ReplaceAll(Xml("SUCCESS|NONE"), "\r\n", "{CRLF}")));
}

TEST(WebServicePhoneHome, SendFramesTaskWritesTheJobFile) {
  WebFixture f;
  f.t.http.Always(Xml("SUCCESS|SENDFRAMES|2026-11-14 10:00{CRLF}@2026-11-14 11:00@JOB42|x@rest"));
  PhoneHomeForScreenGrabberTasks(*f.t);
  const std::string file = f.App("SendFrames-JOB42.TSF");
  EXPECT_EQ(ReadFile(file), "2026-11-14 10:00@2026-11-14 11:00@JOB42|x@rest\r\n");
  const auto lines = f.Since(0);
  EXPECT_EQ(lines.back(), "Trace in TDACLI: The Tyndrel Agent Client Received a Screen Grabber Task");
}

TEST(WebServicePhoneHome, ATaskWithoutKeywordStillLogsReceipt) {
  WebFixture f;
  f.t.http.Always(Xml("SUCCESS|SOMETHING"));
  PhoneHomeForScreenGrabberTasks(*f.t);
  EXPECT_EQ(f.Since(0).back(), "Trace in TDACLI: The Tyndrel Agent Client Received a Screen Grabber Task");
}

TEST(WebServicePhoneHome, ErrorLogsTheUrlAgain) {
  WebFixture f;
  f.t.http.Always(Xml("ERROR|"));
  PhoneHomeForScreenGrabberTasks(*f.t);
  const std::string open = std::string("Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - Performing an "
                                       "OpenURL() on: ") + kGrabberUrl;
  EXPECT_THAT(f.Since(0),
              ElementsAre(open, "Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - Received: " +
                                    ReplaceAll(Xml("ERROR|"), "\r\n", "{CRLF}"),
                          open, "Error in TDACLI: The Tyndrel Agent Client could not get screen grabber tasks"));
}

TEST(WebServicePhoneHome, NotFoundEmptyAndRefused) {
  const std::string no = "Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - Received the following "
                         "Response: NO RESPONSE or 404 PAGE NOT FOUND!";
  for (int status : {404, 200}) {
    WebFixture f;
    f.t.http.Always(status == 404 ? "SUCCESS|SENDFRAMES|a@b@c" : "", status);
    PhoneHomeForScreenGrabberTasks(*f.t);
    EXPECT_EQ(f.Since(0).back(), no) << status;
    EXPECT_FALSE(Exists(f.App("SendFrames-c.TSF")));
  }
  WebFixture f;
  PhoneHomeForScreenGrabberTasks(*f.t);
  EXPECT_THAT(f.Since(0),
              ElementsAre(std::string("Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - Performing an "
                                      "OpenURL() on: ") + kGrabberUrl,
                          "Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - The request failed: Connection "
                          "refused",
                          "Trace in TDACLI: WebService_PhoneHomeForScreenGrabberTasks - Received: ", no));
}

TEST(WebServicePhoneHome, LineBreaksInATaskDoNotSplitTheJobFile) {
  WebFixture f;
  f.t.http.Always("SUCCESS|SENDFRAMES|a\r\n@b\n@JOB7\r\nx");
  PhoneHomeForScreenGrabberTasks(*f.t);
  EXPECT_EQ(ReadFile(f.App("SendFrames-JOB7x.TSF")), "a@b@JOB7x\r\n");
}

}  // namespace
}  // namespace tdacli
