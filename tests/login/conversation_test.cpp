// The conversation's reply table, one reply at a time, without a socket: which rule takes a reply, what
// it logs, stores and sends; and the end of a login (files, settings, listener re-open).
#include <gtest/gtest.h>

#include <filesystem>

#include "common/files.h"
#include "config/result_files.h"
#include "listener/listener.h"
#include "login/conversation.h"
#include "login/drivers.h"
#include "login/login_fixture.h"
#include "service/login_socket.h"

namespace tdacli {
namespace {

using ::testing::ElementsAre;
using testing::LoginFixture;

struct Recorder {
  std::vector<std::string> sent;
  RequestSink sink() {
    return [this](std::string_view r) { sent.emplace_back(r); };
  }
};

struct ConversationFixture : LoginFixture {
  // Handles one reply as the data-arrival event would, the top acting on what it learned; returns the
  // trace lines it wrote.
  std::vector<std::string> Reply(const std::string& data) {
    const size_t mark = Mark();
    ActOnLoginOutcome(*t, HandleReply(*t, data, recorder.sink()));
    return Since(mark);
  }
  Recorder recorder;
};

// ---- the order of testing

struct RuleCase {
  const char* kind;
  std::string data;
  const char* rule;
};

TEST(LoginConversation, RulesAreTestedInTheirOrder) {
  const std::vector<RuleCase> cases = {
      {"Login", "TD Agent Connect OK", "1"},
      {"Status", "TD Agent Connect OK", "1"},
      {"", "TD Agent Connect OK", "1"},  // every kind but "Logoff" sends the user name
      {"Logoff", "TD Agent Connect OK", "1'"},
      {"Login", "LOGOFF=OKAY", "2"},  // any reply in any state
      {"Status", "ID OK", "3"},
      {"Logoff", "ID OK", "3"},  // every kind but "Login" sends the status
      {"", "ID OK", "3"},
      {"Login", "ID OK", "3'"},
      {"Login", "IP Addr OK", "4"},
      {"Login", "EXT OK", "5"},
      {"Login", "TDLIVEID", "6"},
      {"Login", "TDLIVEID=1:2:3:T", "6"},
      {"Login", "TDLIVEIDSERVERTEMPx", "6"},
      {"Login", "100SCREEN", "7"},
      {"Login", "100SCREENxSERVERTEMPy", "7"},  // two replies in one read: the first keyword wins
      {"Login", "SERVERTEMP", "8"},
      {"Login", "SERVERTEMPy", "8"},
      {"Login", "SERVERTEMPNoMatchingWinName", "8'"},
      {"Logoff", "SERVERTEMPNoMatchingWinName", "8'"},
      {"Login", "SERVERTEMPNoMatchingWinNames", "8"},
      {"Login", "SERVERTEMPnomatchingwinname", "8"},
      {"Login", "LISTENPORTS", "9"},  // taken and ignored, not unexpected
      {"Login", "LISTENPORTS5001,6000,6001,6002", "9"},
      {"Login", "LOCALTEMP", "10"},
      {"Login", "LOCALTEMPd:\\temp", "10"},
      {"Login", "KEKINFO", "11"},
      {"Login", "VALIDIPMASK", "12"},
      {"Login", "AGENTTRACE", "13"},
      {"Status", "AGENTTRACETrue", "13"},
      {"Login", "USETRACETrue", "15"},  // asked as USETRACE, answered as AGENTTRACE
      {"Status", "STATUS OK", "14"},
      {"Login", "STATUS OK", "14"},
      {"Status", "STATUS OKAY", "15"},
      {"Login", "td agent connect ok", "15"},  // keywords are case-sensitive
      {"Login", "TD Agent Connect OK ", "15"},
      {"Login", "ID OK\r\n", "15"},
      {"Login", "tdliveid=1", "15"},
      {"Login", "", "15"},
      {"Login", std::string("TDLIVE\0ID", 9), "15"},
  };
  testing::TestAgent t;
  for (const RuleCase& c : cases) {
    t->WriteLogin().LoginRequestKind = c.kind;
    EXPECT_EQ(ReplyRuleFor(*t, c.data), c.rule) << "kind " << c.kind << ", reply " << c.data;
  }
}

// ---- the login sequence, reply by reply

TEST(LoginConversation, LoginRepliesEachSendTheNextRequestWithoutTerminator) {
  ConversationFixture f;
  f.t->WriteLogin().LoginRequestKind = "Login";
  f.t->settings.Ext = "4711";
  const std::vector<std::pair<std::string, std::string>> steps = {
      {"TD Agent Connect OK", "IDjsmith"}, {"ID OK", "IP192.168.5.20"},  {"IP Addr OK", "EX4711"},
      {"EXT OK", "TDLIVEID"},              {"TDLIVEID=1:2:3:F", "SERVERTEMP"}, {"SERVERTEMPx", "LOCALTEMP"},
      {"LOCALTEMPy", "KEKINFO"},           {"KEKINFOk", "VALIDIPMASK"},  {"VALIDIPMASK", "USETRACE"},
  };
  for (const auto& [reply, request] : steps) {
    f.recorder.sent.clear();
    f.Reply(reply);
    EXPECT_THAT(f.recorder.sent, ElementsAre(request)) << reply;
    EXPECT_FALSE(f.t->login().ProtocolDone) << reply;
  }
}

TEST(LoginConversation, GreetingSendsTheUserNameForEveryKindButLogoff) {
  ConversationFixture f;
  f.t->WriteLogin().LoginRequestKind = "Status";
  EXPECT_THAT(f.Reply("TD Agent Connect OK"),
              ElementsAre("Trace in TDACLI: Connected To Login Server OK, Sending UserName (jsmith)"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("IDjsmith"));
}

TEST(LoginConversation, GreetingForALogoffSendsNameAndAddress) {
  ConversationFixture f;
  f.t->WriteLogin().LoginRequestKind = "Logoff";
  EXPECT_THAT(f.Reply("TD Agent Connect OK"),
              ElementsAre("Trace in TDACLI: Connected To TD Server OK, Sending Logoff of UserName (jsmith)"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("Logoffjsmith:192.168.5.20"));
}

TEST(LoginConversation, LogoffWhileTheLocalAddressIsEmptySendsNameAndColonOnly) {
  ConversationFixture f;
  f.t->WriteLogin().LoginRequestKind = "Logoff";
  f.t->local_ip.clear();
  f.Reply("TD Agent Connect OK");
  EXPECT_THAT(f.recorder.sent, ElementsAre("Logoffjsmith:"));
}

TEST(LoginConversation, LogoffOverTheWireWithAnEmptyLocalAddress) {
  // A "PC-NAME" mask on a host whose NetBIOS name is unknown leaves the local address empty.
  LoginFixture f;
  f.StartServer();
  testing::WriteFile(f.App("TDIPMASK.INI"), "IPMask=PC-NAME\r\n");
  f.t->local_ip.clear();
  f.t.ip_part = "";
  LogOffUser(*f.t);
  f.Drain();
  EXPECT_THAT(f.server->Requests(), ElementsAre("Logoffjsmith:", "TD Agent Disconnect OK"));
  EXPECT_TRUE(f.t->login().LogoffSucceeded);
  EXPECT_TRUE(testing::Exists(f.t.dir.File("-TDACLI-TraceFile.TXT")));
}

TEST(LoginConversation, LogoffOkayEndsTheExchange) {
  ConversationFixture f;
  f.t->WriteLogin().LoginRequestKind = "Logoff";
  f.t->WriteLogin().LogoffSucceeded = false;
  EXPECT_THAT(f.Reply("LOGOFF=OKAY"),
              ElementsAre("Trace in TDACLI: TD Server Sent 'Logoff = Okay', Sending Disconnect Signal"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("TD Agent Disconnect OK"));
  EXPECT_TRUE(f.t->login().ProtocolDone);
  EXPECT_TRUE(f.t->login().LogoffSucceeded);
}

TEST(LoginConversation, IdOkSendsTheStatusForEveryKindButLogin) {
  for (const char* kind : {"Status", "Logoff", ""}) {
    ConversationFixture f;
    f.t->WriteLogin().LoginRequestKind = kind;
    f.t->temp_access_status = 2;
    EXPECT_THAT(f.Reply("ID OK"), ElementsAre("Trace in TDACLI: Login Server Received UserName OK, Sending STATUS (2)"));
    EXPECT_THAT(f.recorder.sent, ElementsAre("STATUS2"));
  }
}

TEST(LoginConversation, IdOkForALoginDeterminesAMissingAddressFirst) {
  ConversationFixture f;
  f.t->WriteLogin().LoginRequestKind = "Login";
  f.t->local_ip.clear();
  EXPECT_THAT(f.Reply("ID OK"),
              ElementsAre("Trace in TDACLI: Set Local IP to: 192.168.5.20",
                          "Trace in TDACLI: Login Server Received UserName OK, Sending IP (192.168.5.20)"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("IP192.168.5.20"));
}

TEST(LoginConversation, AddressAndExtensionReplies) {
  ConversationFixture f;
  f.t->settings.Ext = "0815";
  EXPECT_THAT(f.Reply("IP Addr OK"), ElementsAre("Trace in TDACLI: Login Server Received IP OK, Sending Extension (0815)"));
  EXPECT_THAT(f.Reply("EXT OK"),
              ElementsAre("Trace in TDACLI: Login Server Received Extension OK, Sending Request for TD Live ID"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("EX0815", "TDLIVEID"));
}

TEST(LoginConversation, LiveIdReplyFillsAllFourValues) {
  ConversationFixture f;
  EXPECT_THAT(f.Reply("TDLIVEID=48213:10.1.2.3:5020:T"),
              ElementsAre("Trace in TDACLI: Login Server Sent TD Live ID (TDLIVEID=48213:10.1.2.3:5020:T), Sending "
                          "Request for Server Temp Folder"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("SERVERTEMP"));
  const LoginState& l = f.t->login();
  EXPECT_EQ(l.TDLiveID, "48213");
  EXPECT_EQ(l.RepeaterIP, "10.1.2.3");
  EXPECT_EQ(l.RepeaterPort, "5020");
  EXPECT_TRUE(l.PeerToPeerCapable);
  // The separator at position 9 may be anything.
  f.Reply("TDLIVEID#7:a:b:F");
  EXPECT_EQ(l.TDLiveID, "7");
  EXPECT_FALSE(l.PeerToPeerCapable);
  f.Reply("TDLIVEID=8:a:b:t");  // only "T" exactly
  EXPECT_FALSE(l.PeerToPeerCapable);
}

TEST(LoginConversation, LiveIdReplyWithOnlyTheIdLeavesTheOtherValues) {
  ConversationFixture f;
  LoginState& l = f.t->WriteLogin();
  l.RepeaterIP = "10.9.9.9";
  l.RepeaterPort = "5999";
  l.PeerToPeerCapable = true;
  f.Reply("TDLIVEID=48213");
  EXPECT_EQ(l.TDLiveID, "48213");
  EXPECT_EQ(l.RepeaterIP, "10.9.9.9");
  EXPECT_EQ(l.RepeaterPort, "5999");
  EXPECT_TRUE(l.PeerToPeerCapable);
  f.Reply("TDLIVEID=");  // no fields at all
  EXPECT_EQ(l.TDLiveID, "48213");
  f.Reply("TDLIVEID=1:2");
  EXPECT_EQ(l.RepeaterIP, "2");
  EXPECT_EQ(l.RepeaterPort, "5999");
}

TEST(LoginConversation, LiveIdWithOnlyTheIdOverTheWire) {
  LoginFixture f;
  auto user = testing::Jsmith();
  user.live_id = "48213";
  f.StartServer(testing::Users({user}));
  f.t->WriteLogin().RepeaterIP = "10.9.9.9";
  f.t->WriteLogin().RepeaterPort = "5999";
  f.t->WriteLogin().PeerToPeerCapable = true;
  LoginUser(*f.t);
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().TDLiveID, "48213");
  EXPECT_EQ(f.t->login().RepeaterIP, "10.9.9.9");
  EXPECT_EQ(f.t->login().RepeaterPort, "5999");
  EXPECT_TRUE(f.t->login().PeerToPeerCapable);
}

TEST(LoginConversation, HundredScreensPushIsStoredAndNotAnswered) {
  ConversationFixture f;
  f.t->WriteLogin().ProtocolDone = false;
  EXPECT_THAT(f.Reply("100SCREEN10,02:00 AM,4"),
              ElementsAre("Trace in TDACLI: Login Server Sent 100% Screens Param of (10,02:00 AM,4)!"));
  EXPECT_TRUE(f.recorder.sent.empty());
  EXPECT_EQ(f.t->login().HundredScreensParam, "10,02:00 AM,4");
  EXPECT_FALSE(f.t->login().ProtocolDone);
}

TEST(LoginConversation, TwoRepliesInOneReadAreOneReply) {
  ConversationFixture f;
  EXPECT_THAT(f.Reply("100SCREENxSERVERTEMPy"),
              ElementsAre("Trace in TDACLI: Login Server Sent 100% Screens Param of (xSERVERTEMPy)!"));
  EXPECT_TRUE(f.recorder.sent.empty());
  EXPECT_EQ(f.t->login().HundredScreensParam, "xSERVERTEMPy");
}

TEST(LoginConversation, TwoRepliesInOneWriteOverTheWireEndInTheProtocolTimeout) {
  LoginFixture f;
  auto user = testing::Jsmith();
  user.hundred_screen = "x";
  user.server_temp = "y";
  loginsim::Options o;
  o.fault = loginsim::Fault::kTwoInOne;
  f.StartServer(testing::Users({user}), o);
  const size_t mark = f.Mark();
  const int64_t start = f.Now();

  LoginUser(*f.t);

  EXPECT_GE(f.Now() - start, 30000);
  EXPECT_EQ(f.server->Replies().back(), "100SCREENxSERVERTEMPy");
  EXPECT_EQ(f.server->Requests().back(), "SERVERTEMP");
  EXPECT_EQ(f.t->login().HundredScreensParam, "xSERVERTEMPy");
  const auto lines = f.Since(mark);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2], "Trace in TDACLI: Login Server Sent 100% Screens Param of (xSERVERTEMPy)!");
  EXPECT_EQ(lines.back(), "Error in TDACLI: Login Attempt - Timeout executing protocol");
}

TEST(LoginConversation, ServerTempReply) {
  ConversationFixture f;
  EXPECT_THAT(f.Reply("SERVERTEMP\\\\fs01\\tdtemp\\"),
              ElementsAre("Trace in TDACLI: Login Server Sent Server Temp Folder (\\\\fs01\\tdtemp\\), Sending Request "
                          "for Local Temp Folder"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("LOCALTEMP"));
  EXPECT_EQ(f.t->settings.SvrTemp, "\\\\fs01\\tdtemp\\");
}

TEST(LoginConversation, UnknownUserReplyEndsTheExchange) {
  ConversationFixture f;
  f.t->WriteLogin().LoginSucceeded = true;
  EXPECT_THAT(
      f.Reply("SERVERTEMPNoMatchingWinName"),
      ElementsAre("Error in TDACLI: The windows login name of (jsmith) does not exist in the TD Agent Database!"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("TD Agent Disconnect OK"));
  EXPECT_EQ(f.t->login().LastLoginResult,
            "[ERROR]The windows login name of (jsmith) does not exist in the TD Agent Database!");
  EXPECT_FALSE(f.t->login().LoginSucceeded);
  EXPECT_TRUE(f.t->login().ProtocolDone);
  EXPECT_EQ(f.t->settings.SvrTemp, "NoMatchingWinName");
}

TEST(LoginConversation, LocalTempReplyIsLowerCasedWithTheFolderTokensReplaced) {
  ConversationFixture f;
  EXPECT_THAT(f.Reply("LOCALTEMPC:\\%WINDIR%\\Temp"),
              ElementsAre("Trace in TDACLI: Login Server Sent Local Temp Folder (C:\\WINDOWS\\temp), Sending Request "
                          "for KekInfo"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("KEKINFO"));
  EXPECT_EQ(f.t->settings.LocalTemp, "C:\\WINDOWS\\temp");
  f.Reply("LOCALTEMPc:\\%AppDir%\\Frames\\");
  EXPECT_EQ(f.t->settings.LocalTemp, f.t->app_folder + "frames\\");
  f.Reply("LOCALTEMPD:\\TD\\Temp\\");
  EXPECT_EQ(f.t->settings.LocalTemp, "d:\\td\\temp\\");
}

TEST(LoginConversation, LocalTempTakesTheWindowsFolderAsTheSystemGivesIt) {
  ConversationFixture f;
  f.t.host.windows_dir = std::string("C:\\Windows") + '\0' + "junk";  // cut at the NUL, separator added
  f.Reply("LOCALTEMPC:\\%WINDIR%\\Temp");
  EXPECT_EQ(f.t->settings.LocalTemp, "C:\\Windows" + kSepStr + "temp");
  EXPECT_EQ(f.t->settings.LocalTemp, GetWindowsFolder(*f.t) + "temp");
}

TEST(LoginConversation, KekInfoAndMaskReplies) {
  ConversationFixture f;
  EXPECT_THAT(f.Reply("KEKINFOabc:def"),
              ElementsAre("Trace in TDACLI: Login Server Sent KekInfo (abc:def), Sending Request for ValidIPMask"));
  EXPECT_THAT(f.Reply("VALIDIPMASK10.1.,192.168."),
              ElementsAre("Trace in TDACLI: Login Server Sent Valid IP Mask (10.1.,192.168.), Sending Request for "
                          "UseTrace"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("VALIDIPMASK", "USETRACE"));
  EXPECT_EQ(f.t->login().KekInfo, "abc:def");
  EXPECT_EQ(f.t->login().ValidIPMask, "10.1.,192.168.");
}

TEST(LoginConversation, StatusOkEndsTheExchange) {
  ConversationFixture f;
  f.t->WriteLogin().LoginSucceeded = false;
  EXPECT_THAT(f.Reply("STATUS OK"),
              ElementsAre("Trace in TDACLI: Login Server Received Status Ok, Sending Disconnect Signal"));
  EXPECT_THAT(f.recorder.sent, ElementsAre("TD Agent Disconnect OK"));
  EXPECT_TRUE(f.t->login().ProtocolDone);
  EXPECT_FALSE(f.t->login().LoginSucceeded);
}

TEST(LoginConversation, UnexpectedDataEndsTheExchangeWithoutAnswer) {
  ConversationFixture f;
  f.t->WriteLogin().LoginSucceeded = true;
  EXPECT_THAT(f.Reply("USETRACETrue"),
              ElementsAre("Error in TDACLI: Received Unexpected Data During Protocol: USETRACETrue"));
  EXPECT_TRUE(f.recorder.sent.empty());
  EXPECT_TRUE(f.t->login().ProtocolDone);
  EXPECT_TRUE(f.t->login().LoginSucceeded);
}

// ---- the end of a login

TEST(LoginConversation, TraceReplyVariants) {
  struct Case {
    const char* reply;
    const char* use_trace;
    bool webcam;
  };
  for (const Case& c : {Case{"AGENTTRACETruewebcamtrue", "True", true}, Case{"AGENTTRACEFalse", "False", false},
                        Case{"AGENTTRACE", "", false}, Case{"AGENTTRACETRUEWEBCAMFALSE", "TRUE", false},
                        Case{"AGENTTRACEFalseWebCamTrue", "False", true}, Case{"AGENTTRACEwebcamtrue", "", true},
                        Case{"AGENTTRACETrue webcam", "True ", false}}) {
    ConversationFixture f;
    f.t->WriteLogin().UseWebCam = !c.webcam;
    const auto lines = f.Reply(c.reply);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "Trace in TDACLI: Login Server Sent UseTrace of (" + std::string(c.reply + 10) +
                            "), Sending Disconnect Signal");
    EXPECT_EQ(f.t->settings.UseTrace, c.use_trace) << c.reply;
    EXPECT_EQ(f.t->login().UseWebCam, c.webcam) << c.reply;
    EXPECT_THAT(f.recorder.sent, ElementsAre("TD Agent Disconnect OK"));
    EXPECT_TRUE(f.t->login().ProtocolDone);
    EXPECT_TRUE(f.t->login().LoginSucceeded);
  }
}

TEST(LoginConversation, EmptyTraceValueOverTheWireIsSaved) {
  LoginFixture f;
  auto user = testing::Jsmith();
  user.trace = "";
  user.webcam.reset();
  f.StartServer(testing::Users({user}));
  LoginUser(*f.t);
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->settings.UseTrace, "");
  EXPECT_FALSE(f.t->login().UseWebCam);
  EXPECT_EQ(f.server->Replies().back(), "AGENTTRACE");
  EXPECT_THAT(testing::Lines(f.App("TDRegInfo.TXT")), ::testing::Contains("UseTrace="));
}

TEST(LoginConversation, EndOfLoginWritesTheResultFilesAndSavesTheSettings) {
  ConversationFixture f;
  f.t->settings.SvrTemp = "\\\\fs\\t\\:SSH@sftp.example.com:Port=2222:TFTF:u:p";
  f.t->WriteLogin().ValidIPMask = "10.1.,192.168.a.";
  testing::WriteFile(f.App("TDACFTP.INI"), "old\r\n");
  testing::WriteFile(f.App("TDRegInfo.TXT"), "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=9999\r\n"
                                             "Custom=kept\r\nUseTrace=False\r\n");
  const auto lines = f.Reply("AGENTTRACETrue");
  EXPECT_THAT(testing::Lines(f.App("TDACFTP.INI")),
              ElementsAre("[Tyndrel - Agent Client - FTP Credentials]", "", "[Config]", "ServerTemp=\\\\fs\\t\\",
                          "FTPServer=sftp.example.com", "UserName=u", "EncryptedPassword=p", "Port=2222", "Ssl=True",
                          "AuthTLS=False", "Passive=True", "PassiveUseHostAddr=False", "Protocol=SSH"));
  // The mask writer upper-cases the login state's own value.
  EXPECT_EQ(f.t->login().ValidIPMask, "10.1.,192.168.A.");
  EXPECT_EQ(testing::ReadFile(f.App("TDIPMASK.INI")),
            "[Tyndrel - Agent Client - Valid IP Mask]\r\n\r\n[Config]\r\nIPMask=10.1.,192.168.A.\r\n");
  // A whole save keeps the hand-made lines and rewrites the six login keys.
  EXPECT_THAT(testing::Lines(f.App("TDRegInfo.TXT")),
              ElementsAre("Tyndrel - Agent Client Configuration", "[Config]", "Ext=9999", "Custom=kept", "UseTrace=True",
                          "SvrTemp=\\\\fs\\t\\", "LocalTemp=Unknown", "PopEx=false", "PopWinName=false",
                          "ListeningPorts=w,x,y,z"));
  EXPECT_EQ(lines.back(), "Trace in TDACLI: Wrote Login Settings to config file");
  // Not in user-session mode: no request files.
  for (const auto& e : std::filesystem::directory_iterator(f.t.dir.path()))
    EXPECT_EQ(e.path().string().find(".TDACSC"), std::string::npos);
}

TEST(LoginConversation, ANulInARepliedValueIsCutBeforeItIsStored) {
  using namespace std::string_literals;
  ConversationFixture f;
  f.Reply("TDLIVEID=4711\0x:10.1.2.3:5020:T"s);
  f.Reply("SERVERTEMP\\\\fs\\t\0\\..\\x"s);
  f.Reply("LOCALTEMPd:\\temp\0\\.."s);
  f.Reply("KEKINFOKEK-1\0planted"s);
  f.Reply("VALIDIPMASK10.1.\0,0."s);
  const auto lines = f.Reply("AGENTTRACETrue\0evil"s);
  SaveLiveID(*f.t);
  EXPECT_EQ(f.t->settings.SvrTemp, "\\\\fs\\t");
  EXPECT_EQ(f.t->settings.LocalTemp, "d:\\temp");
  EXPECT_EQ(f.t->settings.UseTrace, "True");
  EXPECT_EQ(testing::ReadFile(f.App("TDIPMASK.INI")),
            "[Tyndrel - Agent Client - Valid IP Mask]\r\n\r\n[Config]\r\nIPMask=10.1.\r\n");
  EXPECT_EQ(testing::ReadFile(f.App("TDLiveID.INI")),
            "[LiveID]\r\nTDLiveID=4711\r\nRepeaterIP=10.1.2.3\r\nRepeaterPort=5020\r\nPeerToPeerCapable=True\r\n");
  for (const auto& e : std::filesystem::directory_iterator(f.t.dir.path()))
    if (e.path().filename().string().find("-TraceFile.TXT") == std::string::npos) {
      EXPECT_EQ(testing::ReadFile(e.path().string()).find('\0'), std::string::npos) << e.path();
    }
  std::vector<std::string> warnings;
  for (const auto& m : f.t.Messages())
    if (m.rfind("Warning in TDACLI: ", 0) == 0) warnings.push_back(m);
  EXPECT_THAT(warnings, ElementsAre("Warning in TDACLI: The value of (IPMask) held a line break and was cut at it.",
                                    "Warning in TDACLI: The value of (LocalTemp) held a line break and was cut at it.",
                                    "Warning in TDACLI: The value of (SvrTemp) held a line break and was cut at it.",
                                    "Warning in TDACLI: The value of (UseTrace) held a line break and was cut at it.",
                                    "Warning in TDACLI: The value of (TDLiveID) held a line break and was cut at it."));
  EXPECT_EQ(lines.back(), "Trace in TDACLI: Wrote Login Settings to config file");
}

TEST(LoginConversation, EmptyMaskAtTheEndOfALoginRemovesTheMaskFile) {
  ConversationFixture f;
  testing::WriteFile(f.App("TDIPMASK.INI"), "[Config]\r\nIPMask=10.\r\n");
  f.t->WriteLogin().ValidIPMask = "";
  const auto lines = f.Reply("AGENTTRACEFalse");
  EXPECT_FALSE(testing::Exists(f.App("TDIPMASK.INI")));
  for (const auto& line : lines) EXPECT_EQ(line.find("IPMASK="), std::string::npos) << line;
}

TEST(LoginConversation, EmptyMaskOverTheWireRemovesTheMaskFile) {
  LoginFixture f;
  auto user = testing::Jsmith();
  user.valid_ip_mask = "";
  f.StartServer(testing::Users({user}));
  testing::WriteFile(f.App("TDIPMASK.INI"), "[Config]\r\nIPMask=192.168.5.\r\n");
  LoginUser(*f.t);
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.server->Replies()[8], "VALIDIPMASK");
  EXPECT_FALSE(testing::Exists(f.App("TDIPMASK.INI")));
}

TEST(LoginConversation, MaskNoneWritesNoMaskFile) {
  ConversationFixture f;
  f.t->WriteLogin().ValidIPMask = "none";
  f.Reply("AGENTTRACEFalse");
  EXPECT_EQ(f.t->login().ValidIPMask, "NONE");
  EXPECT_FALSE(testing::Exists(f.App("TDIPMASK.INI")));
}

TEST(LoginConversation, BareServerTempFolderLeavesNoCredentialsFile) {
  ConversationFixture f;
  f.t->settings.SvrTemp = "\\\\fs01\\tdtemp\\";
  testing::WriteFile(f.App("TDACFTP.INI"), "old\r\n");
  f.Reply("AGENTTRACEFalse");
  EXPECT_FALSE(testing::Exists(f.App("TDACFTP.INI")));
  EXPECT_EQ(f.t->settings.SvrTemp, "\\\\fs01\\tdtemp\\");
  EXPECT_FALSE(f.t->ftp().FtpCredentialsSaved);
}

// ---- listener re-open in user-session mode

std::vector<std::string> RequestFiles(const testing::TestAgent& t) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(t.dir.path())) {
    const std::string name = e.path().filename().string();
    if (name.size() == 21 && (name.substr(14) == ".TDACSC" || name.substr(14) == ".TDACLM")) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

TEST(LoginConversation, UserSessionLoginOpensTheListenerAndTellsTheSiblings) {
  ConversationFixture f;
  testing::WriteFile(f.App("thinterminal.dat"), "");
  f.t->settings.ListeningPorts = "1,0,2,3";  // port 0: any free port
  const auto lines = f.Reply("AGENTTRACEFalse");

  auto& listen = listener::ListenerOf(*f.t).Listener();
  ASSERT_EQ(listen.State(), platform::TcpSocket::kListening);
  const std::string port = std::to_string(listen.LocalPort());
  ASSERT_GE(lines.size(), 3u);
  EXPECT_THAT(std::vector<std::string>(lines.end() - 3, lines.end()),
              ElementsAre("Trace in TDACLI: Service is Now Listening on Port (" + port + ")",
                          "Trace in TDACLI: Made request file (" + f.App("20261114231502.TDACSC") +
                              "), Message=Code=135",
                          "Trace in TDACLI: Made request file (" + f.App("20261114231502.TDACLM") +
                              "), Message=Code=135"));
  EXPECT_THAT(RequestFiles(f.t), ElementsAre("20261114231502.TDACLM", "20261114231502.TDACSC"));
  EXPECT_EQ(testing::ReadFile(f.App("20261114231502.TDACSC")), "Code=135\r\n");
  EXPECT_EQ(testing::ReadFile(f.App("20261114231502.TDACLM")), "Code=135\r\n");
  // User-session mode: no event-log entries.
  EXPECT_TRUE(f.t.event_log.entries.empty());
}

TEST(LoginConversation, UserSessionListenerReopenRetriesFiveTimesThenTellsTheSiblingsAnyway) {
  ConversationFixture f;
  testing::WriteFile(f.App("thinterminal.dat"), "");
  uint16_t port = 0;
  auto holder = testing::HoldLowPort(f.t->loop(), port);
  f.t->settings.ListeningPorts = "5001," + std::to_string(port) + ",6001,6002";
  const int64_t start = f.Now();

  const auto lines = f.Reply("AGENTTRACEFalse");

  EXPECT_GE(f.Now() - start, 10000);
  EXPECT_LT(f.Now() - start, 11000);
  const std::string p = std::to_string(port);
  ASSERT_GE(lines.size(), 8u);
  std::vector<std::string> tail(lines.end() - 8, lines.end());
  for (int k = 1; k <= 5; ++k)
    EXPECT_EQ(tail[static_cast<size_t>(k - 1)],
              "Warning! in TDACLI: Error opening listening socket [Port=" + p + "], attempting again [Tries=" +
                  std::to_string(k) + "], [Error=Address already in use]");
  EXPECT_EQ(tail[5], "Trace in TDACLI: Service is Now Listening on Port (" + p + ")");
  EXPECT_EQ(tail[6], "Trace in TDACLI: Made request file (" + f.App("20261114231512.TDACSC") + "), Message=Code=135");
  EXPECT_EQ(tail[7], "Trace in TDACLI: Made request file (" + f.App("20261114231512.TDACLM") + "), Message=Code=135");
  EXPECT_NE(listener::ListenerOf(*f.t).Listener().State(), platform::TcpSocket::kListening);
}

TEST(LoginConversation, UserSessionListenerReopenSucceedsOnceThePortIsFree) {
  ConversationFixture f;
  testing::WriteFile(f.App("thinterminal.dat"), "");
  uint16_t port = 0;
  auto holder = testing::HoldLowPort(f.t->loop(), port);
  f.t->settings.ListeningPorts = "5001," + std::to_string(port) + ",6001,6002";
  platform::Timer release(f.t->loop());
  release.SetInterval(3000);
  release.on_tick = [&] {
    release.SetEnabled(false);
    holder->Close();
  };
  release.SetEnabled(true);

  const auto lines = f.Reply("AGENTTRACEFalse");

  const std::string p = std::to_string(port);
  ASSERT_GE(lines.size(), 5u);
  EXPECT_THAT(std::vector<std::string>(lines.end() - 5, lines.end()),
              ElementsAre("Warning! in TDACLI: Error opening listening socket [Port=" + p +
                              "], attempting again [Tries=1], [Error=Address already in use]",
                          "Warning! in TDACLI: Error opening listening socket [Port=" + p +
                              "], attempting again [Tries=2], [Error=Address already in use]",
                          "Trace in TDACLI: Service is Now Listening on Port (" + p + ")",
                          "Trace in TDACLI: Made request file (" + f.App("20261114231506.TDACSC") +
                              "), Message=Code=135",
                          "Trace in TDACLI: Made request file (" + f.App("20261114231506.TDACLM") +
                              "), Message=Code=135"));
  EXPECT_EQ(listener::ListenerOf(*f.t).Listener().State(), platform::TcpSocket::kListening);
  EXPECT_EQ(listener::ListenerOf(*f.t).Listener().LocalPort(), port);
}

// ---- listening ports pushed by the server

TEST(LoginConversation, ShortListenPortsReplyIsIgnoredSilently) {
  ConversationFixture f;
  f.t->settings.ListeningPorts = "1,2,3,4";
  f.t->WriteLogin().ProtocolDone = false;
  EXPECT_TRUE(f.Reply("LISTENPORTS").empty());
  EXPECT_TRUE(f.recorder.sent.empty());
  EXPECT_EQ(f.t->settings.ListeningPorts, "1,2,3,4");
  EXPECT_FALSE(f.t->login().ProtocolDone);
}

TEST(LoginConversation, SameListeningPortsOnlyLogThatNothingChanged) {
  ConversationFixture f;
  f.t->settings.ListeningPorts = "5001,6000,6001,6002";
  EXPECT_THAT(f.Reply("LISTENPORTS5001,6000,6001,6002"),
              ElementsAre("Trace in TDACLI: Login Server Sent Listening Ports (5001,6000,6001,6002)",
                          "Trace in TDACLI: Listening Ports did not change from original value of "
                          "(5001,6000,6001,6002)"));
  EXPECT_TRUE(f.recorder.sent.empty());
  EXPECT_FALSE(testing::Exists(f.App("TDRegInfo.TXT")));
  EXPECT_TRUE(f.t.service_control.sent.empty());
}

TEST(LoginConversation, NewListeningPortsThatCannotBeOpenedAreLoggedAsAnError) {
  ConversationFixture f;
  uint16_t port = 0;
  auto holder = testing::HoldLowPort(f.t->loop(), port);
  const std::string list = "5001," + std::to_string(port) + ",6001,6002";
  const auto lines = f.Reply("LISTENPORTS" + list);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "Error in TDACLI: Error Updating Registry with new Listening Ports (" + list + ")");
  EXPECT_EQ(f.t->settings.ListeningPorts, list);
}

// A login whose server pushes "LISTENPORTS": the settings file is rewritten and the listener moves.
struct PushedPorts : LoginFixture {
  void Run(const std::string& file_ports, const std::string& pushed_ports) {
    auto user = testing::Jsmith();
    user.listen_ports = pushed_ports;
    user.hundred_screen = "10,02:00 AM,4";
    StartServer(testing::Users({user}));
    // The per-setting save reloads the file first: it names this server and user.
    testing::WriteFile(App("TDRegInfo.TXT"), "Tyndrel - Agent Client Configuration\r\n[Config]\r\nServer=" +
                                                 server->address() + "\r\nCurrentUser=jsmith\r\nListeningPorts=" +
                                                 file_ports + "\r\n");
    t->settings.ListeningPorts = file_ports;
    mark = Mark();
    LoginUser(*t);
    Drain();
    lines = Since(mark);
  }
  size_t mark = 0;
  std::vector<std::string> lines;
};

TEST(LoginConversation, NewListeningPortsPushedDuringALoginRewriteTheFileAndMoveTheListener) {
  PushedPorts f;
  uint16_t old_port = 0, new_port = 0;
  {
    auto a = testing::HoldLowPort(f.t->loop(), old_port);
    auto b = testing::HoldLowPort(f.t->loop(), new_port);
  }
  const std::string old_list = "5001," + std::to_string(old_port) + ",6001,6002";
  const std::string new_list = "5001," + std::to_string(new_port) + ",6001,6002";
  ASSERT_FALSE(listener::ListenerOf(*f.t).Listen(old_port));

  f.Run(old_list, new_list);

  // The pushes arrive on their own, before the live id.
  EXPECT_THAT(f.server->Replies(),
              ::testing::IsSupersetOf({std::string("100SCREEN10,02:00 AM,4"), "LISTENPORTS" + new_list}));
  EXPECT_THAT(f.lines, ::testing::IsSupersetOf(
                           {std::string("Trace in TDACLI: Login Server Sent 100% Screens Param of (10,02:00 AM,4)!"),
                            "Trace in TDACLI: Login Server Sent Listening Ports (" + new_list + ")",
                            "Trace in TDACLI: Updated Registry with new Listening Ports (" + new_list + ")"}));
  const auto sent = std::find(f.lines.begin(), f.lines.end(),
                              "Trace in TDACLI: Login Server Sent Listening Ports (" + new_list + ")");
  ASSERT_NE(sent, f.lines.end());
  EXPECT_EQ(*(sent + 1), "Trace in TDACLI: Wrote Login Settings to config file");
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().HundredScreensParam, "10,02:00 AM,4");
  EXPECT_EQ(f.t->settings.ListeningPorts, new_list);
  EXPECT_THAT(testing::Lines(f.App("TDRegInfo.TXT")), ::testing::Contains("ListeningPorts=" + new_list));
  EXPECT_EQ(listener::ListenerOf(*f.t).Listener().State(), platform::TcpSocket::kListening);
  EXPECT_EQ(listener::ListenerOf(*f.t).Listener().LocalPort(), new_port);
  // The siblings are told of the new port (unknown Windows version: by service control code).
  EXPECT_THAT(f.t.service_control.sent,
              ElementsAre(std::pair<std::string, int>("TDACSC", 135), std::pair<std::string, int>("TDACLM", 135)));
}

TEST(LoginConversation, SameListeningPortsPushedDuringALoginLeaveTheListener) {
  PushedPorts f;
  uint16_t port = 0;
  { auto a = testing::HoldLowPort(f.t->loop(), port); }
  const std::string list = "5001," + std::to_string(port) + ",6001,6002";
  ASSERT_FALSE(listener::ListenerOf(*f.t).Listen(port));

  f.Run(list, list);

  EXPECT_THAT(f.lines, ::testing::IsSupersetOf(
                           {"Trace in TDACLI: Login Server Sent Listening Ports (" + list + ")",
                            "Trace in TDACLI: Listening Ports did not change from original value of (" + list + ")"}));
  for (const auto& line : f.lines) EXPECT_EQ(line.find("Updated Registry"), std::string::npos) << line;
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  EXPECT_EQ(listener::ListenerOf(*f.t).Listener().LocalPort(), port);
  EXPECT_TRUE(f.t.service_control.sent.empty());
}

// ---- failures inside the handler

TEST(LoginConversation, FailedSendIsTrappedAndEndsTheExchange) {
  ConversationFixture f;
  f.t->WriteLogin().ProtocolDone = false;
  f.t->WriteLogin().LoginSucceeded = true;
  const size_t mark = f.Mark();
  HandleReply(*f.t, "EXT OK", [](std::string_view) {
    throw SendFault(40006, "Wrong protocol or connection state for the requested transaction or request");
  });
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Login Server Received Extension OK, Sending Request for TD Live ID",
                          "Error in TDACLI: Error Detected in Broadcast_DataArrival() Routine, 40006: Wrong protocol "
                          "or connection state for the requested transaction or request"));
  EXPECT_TRUE(f.t->login().ProtocolDone);
  EXPECT_TRUE(f.t->login().LoginSucceeded);
}

TEST(LoginConversation, AnyRunTimeErrorIsTrapped) {
  ConversationFixture f;
  f.t->WriteLogin().ProtocolDone = false;
  const size_t mark = f.Mark();
  HandleReply(*f.t, "TD Agent Connect OK", [](std::string_view) { throw std::out_of_range("index"); });
  const auto lines = f.Since(mark);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], "Error in TDACLI: Error Detected in Broadcast_DataArrival() Routine, 9: Subscript out of range");
  EXPECT_TRUE(f.t->login().ProtocolDone);
}

TEST(LoginConversation, DataOnASocketThatIsNotConnectedIsNotRead) {
  LoginFixture f;
  const size_t mark = f.Mark();
  const int64_t start = f.Now();
  Broadcast_DataArrival(*f.t, 5);
  EXPECT_GE(f.Now() - start, 30000);
  EXPECT_LT(f.Now() - start, 31000);
  EXPECT_THAT(f.Since(mark), ElementsAre("Error in TDACLI: Socket received data but was not connected"));
}

TEST(LoginConversation, SendingOnAClosedSocketIsTrapped) {
  LoginFixture f;
  f.StartServer();
  auto& socket = f.t->login_socket;
  f.t->WriteLogin().LoginRequestKind = "Login";
  socket.SetRemoteHost(f.server->address());
  ASSERT_FALSE(socket.Connect());
  f.PumpUntilRequests(1);
  EXPECT_THAT(f.server->Requests(), ElementsAre("IDjsmith"));  // the greeting was answered
  socket.Close();
  f.t->WriteLogin().ProtocolDone = false;
  const size_t mark = f.Mark();
  HandleReply(*f.t, "ID OK", [&](std::string_view r) {
    if (platform::SocketError e = socket.SendData(r)) throw SendFault(e.number, e.description);
  });
  EXPECT_THAT(f.Since(mark),
              ElementsAre("Trace in TDACLI: Login Server Received UserName OK, Sending IP (192.168.5.20)",
                          "Error in TDACLI: Error Detected in Broadcast_DataArrival() Routine, 40006: Wrong protocol "
                          "or connection state for the requested transaction or request"));
  EXPECT_TRUE(f.t->login().ProtocolDone);
}

}  // namespace
}  // namespace tdacli
