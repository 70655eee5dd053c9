// Message request files: "*.TDACLI" files taken up one per tick of `tmrMessage`.
#include "service/request_files.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "listener/listener.h"
#include "login/login_fixture.h"
#include "service/control.h"
#include "service/lifecycle.h"


namespace fs = std::filesystem;

namespace tdacli {
namespace {

using testing::Exists;
using testing::ReadFile;
using testing::WriteFile;

size_t Count(const std::vector<std::string>& msgs, const std::string& m) {
  return static_cast<size_t>(std::count(msgs.begin(), msgs.end(), m));
}
bool Has(const std::vector<std::string>& msgs, const std::string& m) { return Count(msgs, m) > 0; }

constexpr const char* kStop = "Information in TDACLI: *  STOP  *";

struct RequestFileTest : ::testing::Test, testing::LoginFixture {
  RequestFileTest() {
    t->request_file_timer.on_tick = [this] { tmrMessage_Timer(*t); };
    t->request_file_timer.SetInterval(1000);
  }
  std::string Request(const std::string& name, const std::string& content) {
    const std::string path = App(name);
    WriteFile(path, content);
    return path;
  }
  std::vector<std::string> Warnings() {
    std::vector<std::string> out;
    for (const auto& m : t.Messages())
      if (m.rfind("Warning in TDACLI: The message (", 0) == 0) out.push_back(m);
    return out;
  }
  static std::string Discarded(int code) {
    return "Warning in TDACLI: The message (" + std::to_string(code) +
           ") was recevied and discarded. The service does not recognize that request";
  }
};

// --- the line handler

TEST(RequestLine, TheFirstLineEndsAtCrOrLf) {
  EXPECT_EQ(FirstLine("Code=128\r\nCode=131\r\n"), "Code=128");
  EXPECT_EQ(FirstLine("Code=128\nx"), "Code=128");
  EXPECT_EQ(FirstLine("Code=128\rx"), "Code=128");
  EXPECT_EQ(FirstLine("Code=128"), "Code=128");  // no line end: one line
  EXPECT_EQ(FirstLine(""), "");
  EXPECT_EQ(FirstLine("\r\nCode=128"), "");
  EXPECT_EQ(FirstLine(std::string("a\0b\r\n", 5)), std::string("a\0b", 3));  // bytes, NUL included
}

TEST(RequestLine, StopOnlyInExactCase) {
  EXPECT_EQ(ParseRequestLine("STOP=MySelf").kind, RequestAction::kStop);
  EXPECT_EQ(ParseRequestLine("STOP=myself").kind, RequestAction::kNone);
  EXPECT_EQ(ParseRequestLine("STOP=MySelf ").kind, RequestAction::kNone);
}

TEST(RequestLine, CodeFollowedByAWholeNumber) {
  auto a = ParseRequestLine("Code=128");
  EXPECT_EQ(a.kind, RequestAction::kCode);
  EXPECT_EQ(a.code, 128);
  // The same whole-number conversion as everywhere else: blanks trimmed, halves to even.
  EXPECT_EQ(ParseRequestLine("Code= 131 ").code, 131);
  EXPECT_EQ(ParseRequestLine("Code=130.5").code, 130);
  EXPECT_EQ(ParseRequestLine("Code=-1").code, -1);
  EXPECT_EQ(ParseRequestLine("code=128").kind, RequestAction::kNone);  // the prefix is case-exact
  EXPECT_EQ(ParseRequestLine("Code=").kind, RequestAction::kNone);      // five characters: not a request
  EXPECT_EQ(ParseRequestLine("Cod").kind, RequestAction::kNone);
  EXPECT_EQ(ParseRequestLine("").kind, RequestAction::kNone);
}

TEST(RequestLine, ARestThatIsNotANumberIsAnError) {
  auto a = ParseRequestLine("Code=abc");
  EXPECT_EQ(a.kind, RequestAction::kBadCode);
  EXPECT_EQ(a.error.number, 13);
  EXPECT_EQ(a.error.description, "Type mismatch");
  auto b = ParseRequestLine("Code=99999999999");
  EXPECT_EQ(b.kind, RequestAction::kBadCode);
  EXPECT_EQ(b.error.number, 6);
  EXPECT_EQ(b.error.description, "Overflow");
  EXPECT_EQ(ParseRequestLine("Code= ").kind, RequestAction::kBadCode);
  EXPECT_EQ(ParseRequestLine("Code=12x").kind, RequestAction::kBadCode);
}

TEST(RequestLine, NamesThatStayInTheFolder) {
  EXPECT_TRUE(IsRequestFileName("20261114231502.TDACLI"));
  EXPECT_TRUE(IsRequestFileName("x.tdacli"));  // the Windows listing matches without case
  EXPECT_TRUE(IsRequestFileName(".TDACLI"));
  EXPECT_FALSE(IsRequestFileName("x.TDACLI.bak"));
  EXPECT_FALSE(IsRequestFileName("x.TDACMT"));
  EXPECT_FALSE(IsRequestFileName("..\\x.TDACLI"));
  EXPECT_FALSE(IsRequestFileName("a/x.TDACLI"));
  EXPECT_FALSE(IsRequestFileName("C:x.TDACLI"));
  EXPECT_FALSE(IsRequestFileName("a\nFake log line.TDACLI"));
  EXPECT_FALSE(IsRequestFileName(std::string("a\0.TDACLI", 9)));
}

// --- ticks

TEST_F(RequestFileTest, AnEmptyFileIsOnlyLoggedAndDeleted) {
  const std::string path = Request("20261114231502.TDACLI", "");
  tmrMessage_Timer(*t);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(t.Messages(), std::vector<std::string>{"Trace in TDACLI: Processed Message Request: "});
}

TEST_F(RequestFileTest, ALowerCasePrefixIsNotRecognisedButTheFileIsConsumed) {
  const std::string path = Request("20261114231502.TDACLI", "code=128\r\n");
  tmrMessage_Timer(*t);
  EXPECT_FALSE(Exists(path));
  EXPECT_TRUE(t.service_control.sent.empty());
  EXPECT_EQ(t.Messages(), std::vector<std::string>{"Trace in TDACLI: Processed Message Request: code=128"});
}

TEST_F(RequestFileTest, CodeOfFiveCharactersIsNotRecognised) {
  const std::string path = Request("20261114231502.TDACLI", "Code=\r\n");
  tmrMessage_Timer(*t);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(t.Messages(), std::vector<std::string>{"Trace in TDACLI: Processed Message Request: Code="});
}

TEST_F(RequestFileTest, ACodeGoesThroughTheControlHandler) {
  const std::string path = Request("20261114231502.TDACLI", "Code=129\r\n");
  tmrMessage_Timer(*t);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(t.Messages(), (std::vector<std::string>{Discarded(129), "Trace in TDACLI: Processed Message Request: Code=129"}));
  Request("20261114231503.TDACLI", "Code=142");
  tmrMessage_Timer(*t);
  EXPECT_EQ(t->trace_file_reply.Text(), "2");
}

TEST_F(RequestFileTest, OnlyTheFirstLineCounts) {
  Request("20261114231502.TDACLI", "Code=200\rCode=201\r\n");
  tmrMessage_Timer(*t);
  EXPECT_EQ(Warnings(), std::vector<std::string>{Discarded(200)});
}

TEST_F(RequestFileTest, StopMySelfEndsTheProcessWithoutTheStopBanner) {
  Request("20261114231501.TDACLI", "Code=200\r\n");
  const std::string path = Request("20261114231502.TDACLI", "STOP=MySelf\r\n");
  const std::string later = Request("20261114231503.TDACLI", "Code=201\r\n");
  t->request_file_timer.SetEnabled(true);
  ASSERT_TRUE(t->WaitUntil(10, [&] { return t->Ended(); }));
  EXPECT_FALSE(Exists(path));
  EXPECT_TRUE(Exists(later));  // the process ended before it
  auto msgs = t.Messages();
  EXPECT_EQ(msgs.back(), "Trace in TDACLI: Processed Message Request: STOP=MySelf");
  EXPECT_FALSE(Has(msgs, kStop));
  EXPECT_FALSE(Has(msgs, "Information in TDACLI: TD Agent Client Login Service Stopped"));
}

TEST_F(RequestFileTest, TwoFilesAreWorkedOffOnePerTickInNameOrder) {
  const int64_t start = Now();
  const std::string b = Request("20261114231502.TDACLI", "Code=201\r\n");
  const std::string a = Request("20261114231501.TDACLI", "Code=200\r\n");
  std::vector<std::pair<int, int64_t>> seen;
  t->request_file_timer.SetEnabled(true);
  ASSERT_TRUE(t->WaitUntil(1.5, [&] { return !Exists(a); }));
  EXPECT_TRUE(Exists(b));
  EXPECT_EQ(Now() - start, 1'000);
  ASSERT_TRUE(t->WaitUntil(1.5, [&] { return !Exists(b); }));
  EXPECT_EQ(Now() - start, 2'000);
  EXPECT_EQ(Warnings(), (std::vector<std::string>{Discarded(200), Discarded(201)}));
}

TEST_F(RequestFileTest, NameOrderDoesNotDependOnCase) {
  Request("b.TDACLI", "Code=202\r\n");
  Request("A.TDACLI", "Code=200\r\n");
  Request("a2.tdacli", "Code=201\r\n");
  for (int i = 0; i < 3; ++i) tmrMessage_Timer(*t);
  EXPECT_EQ(Warnings(), (std::vector<std::string>{Discarded(200), Discarded(201), Discarded(202)}));
}

TEST_F(RequestFileTest, AReadOnlyFileIsStillDeleted) {
  const std::string path = Request("20261114231502.TDACLI", "Code=200\r\n");
  fs::permissions(path, fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  tmrMessage_Timer(*t);
  EXPECT_FALSE(Exists(path));
  EXPECT_FALSE(Has(t.Messages(), "Error in TDACLI: ERROR: File Exits After Delete 1 [" + path + "]"));
}

TEST_F(RequestFileTest, AFileThatSurvivesItsDeleteIsReported) {
  const std::string path = Request("20261114231502.TDACLI", "Code=200\r\n");
  t->refuse_delete = [&](const std::string& p) { return p == path; };
  tmrMessage_Timer(*t);
  EXPECT_TRUE(Exists(path));
  EXPECT_EQ(t.Messages(), (std::vector<std::string>{Discarded(200), "Trace in TDACLI: Processed Message Request: Code=200",
                                                    "Error in TDACLI: ERROR: File Exits After Delete 1 [" + path + "]"}));
}

TEST_F(RequestFileTest, ACodeThatIsNotANumberIsLoggedAndTheFileStillGoes) {
  const std::string bad = Request("20261114231501.TDACLI", "Code=12x\r\n");
  const std::string next = Request("20261114231502.TDACLI", "Code=200\r\n");
  tmrMessage_Timer(*t);
  EXPECT_FALSE(Exists(bad));
  EXPECT_EQ(t.Messages(), std::vector<std::string>{"Error in TDACLI: Error processing message request file (" + bad +
                                                   "), REC=Code=12x, ERROR=13, DESC=Type mismatch"});
  EXPECT_TRUE(t.service_control.sent.empty());
  // A bad request never blocks the ones behind it.
  tmrMessage_Timer(*t);
  EXPECT_FALSE(Exists(next));
  EXPECT_EQ(Warnings(), std::vector<std::string>{Discarded(200)});
}

TEST_F(RequestFileTest, ACodeTooLargeOverflows) {
  const std::string bad = Request("20261114231501.TDACLI", "Code=4294967424");
  tmrMessage_Timer(*t);
  EXPECT_EQ(t.Messages(), std::vector<std::string>{"Error in TDACLI: Error processing message request file (" + bad +
                                                   "), REC=Code=4294967424, ERROR=6, DESC=Overflow"});
  EXPECT_TRUE(Warnings().empty());  // never 128 by wrapping around
}

TEST_F(RequestFileTest, ABadFileThatSurvivesItsDeleteIsReportedWithTheSecondLine) {
  const std::string bad = Request("20261114231501.TDACLI", "Code=abc\r\n");
  t->refuse_delete = [&](const std::string& p) { return p == bad; };
  tmrMessage_Timer(*t);
  EXPECT_EQ(t.Messages(),
            (std::vector<std::string>{"Error in TDACLI: Error processing message request file (" + bad +
                                          "), REC=Code=abc, ERROR=13, DESC=Type mismatch",
                                      "Error in TDACLI: ERROR: File Exits After Delete 2 [" + bad + "]"}));
}

TEST_F(RequestFileTest, AFileThatCannotBeReadIsLoggedAndDeleted) {
  // A request file the agent may not read (not possible for a user who reads everything).
  const std::string path = Request("20261114231501.TDACLI", "Code=200\r\n");
  fs::permissions(path, fs::perms::none);
  std::ifstream probe(path);
  if (probe) GTEST_SKIP() << "this user reads files without permission (root)";
  tmrMessage_Timer(*t);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(t.Messages(), std::vector<std::string>{"Error in TDACLI: Error processing message request file (" + path +
                                                   "), REC=, ERROR=70, DESC=Permission denied"});
}

TEST_F(RequestFileTest, OtherFilesAndUnsafeNamesAreLeftAlone) {
  const std::string other = Request("20261114231501.TDACMT", "Code=130\r\n");
  const std::string bak = Request("x.TDACLI.bak", "Code=200\r\n");
  fs::create_directory(App("folder.TDACLI"));
#ifndef _WIN32
  const std::string planted = Request("a\nError in TDACLI: fake.TDACLI", "Code=200\r\n");
  fs::create_symlink(other, App("link.TDACLI"));
#endif
  for (int i = 0; i < 3; ++i) tmrMessage_Timer(*t);
  EXPECT_TRUE(Exists(other));
  EXPECT_TRUE(Exists(bak));
#ifndef _WIN32
  EXPECT_TRUE(Exists(planted));
  EXPECT_TRUE(fs::is_symlink(App("link.TDACLI")));
#endif
  EXPECT_TRUE(t.Messages().empty());
}

TEST_F(RequestFileTest, AHugeLineIsReadOnlyUpToTheLimit) {
  const std::string path = Request("20261114231501.TDACLI", std::string(1 << 20, 'X'));
  tmrMessage_Timer(*t);
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ(t.Messages(),
            std::vector<std::string>{"Trace in TDACLI: Processed Message Request: " + std::string(kRequestLineLimit, 'X')});
}

// --- nesting: the control handler waits, and ticks start inside it

struct RequestChain : RequestFileTest {
  // A stand-in TDACMT that works through request files: every "*.TDACMT" file holding "Code=130" is
  // consumed and answered with a "*.TDACLI" file holding "Code=<answer>".
  void MediaTransferByFiles(int answer) {
    sibling = std::make_unique<platform::Timer>(t->loop());
    sibling->SetInterval(300);
    sibling->on_tick = [this, answer] {
      for (auto& e : fs::directory_iterator(t.dir.path())) {
        if (e.path().extension() != ".TDACMT") continue;
        const std::string line = ReadFile(e.path().string());
        fs::remove(e.path());
        received.push_back(line);
        if (line == "Code=130\r\n" && answer) WriteFile(App("20261114239999.TDACLI"), "Code=" + std::to_string(answer) + "\r\n");
      }
    };
    sibling->SetEnabled(true);
  }
  void WriteSettings() {
    WriteFile(App("TDRegInfo.TXT"), "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=4711\r\nServer=" +
                                        server->address() + "\r\nCurrentUser=jsmith\r\nListeningPorts=1,0,2,3\r\n");
  }
  std::unique_ptr<platform::Timer> sibling;
  std::vector<std::string> received;
};

TEST_F(RequestChain, ACode128FileRunsTheLoginChainAndACode131FileAnswersItsWait) {
  loginsim::UserRecord u = testing::Jsmith();
  u.server_temp = "\\\\fs01\\tdtemp\\";
  // The write test's file, named by user and second, is written into the test's own folder: tests
  // that run side by side at the same simulated second would otherwise share one in a Windows folder.
  u.local_temp = "C:\\%APPDIR%\\Temp";
  u.hundred_screen = "SCR:010|ATLOGO:2|010|001";
  StartServer(testing::Users({u}));
  WriteSettings();
  WriteFile(App("thinterminal.dat"), "");  // user-session mode: the siblings get request files
  MediaTransferByFiles(131);
  const std::string login = Request("20261114231502.TDACLI", "Code=128\r\n");
  const int64_t start = Now();
  t->request_file_timer.SetEnabled(true);
  ASSERT_TRUE(t->WaitUntil(60, [&] { return !Exists(login); }));
  EXPECT_TRUE(t->login().LoginSucceeded);
  EXPECT_EQ(t->temp_access_status, 0);   // the 131 answer arrived inside the wait
  EXPECT_LT(Now() - start, 10'000);    // long before the 31 s without an answer
  auto msgs = t.Messages();
  // The 128 file was handled once, not again inside itself.
  EXPECT_EQ(Count(msgs, "Trace in TDACLI: Received notification user (jsmith) just logged in, updating TD Server "
                        "via SERVICE MESSAGE login."),
            1u);
  EXPECT_EQ(Count(msgs, "Trace in TDACLI: Processed Message Request: Code=128"), 1u);
  EXPECT_EQ(Count(msgs, "Trace in TDACLI: Processed Message Request: Code=131"), 1u);
  // The answer was processed before the request that waited for it.
  EXPECT_LT(std::find(msgs.begin(), msgs.end(), "Trace in TDACLI: Processed Message Request: Code=131"),
            std::find(msgs.begin(), msgs.end(), "Trace in TDACLI: Processed Message Request: Code=128"));
  t->WaitSeconds(1);
  EXPECT_EQ(received, (std::vector<std::string>{"Code=130\r\n", "Code=131\r\n"}));
  EXPECT_TRUE(t.service_control.sent.empty());
  EXPECT_TRUE(t->requests.in_hand.empty());
}

TEST_F(RequestChain, TicksInsideAWaitingRequestTakeTheNextFilesInNameOrder) {
  loginsim::UserRecord u = testing::Jsmith();
  u.server_temp = "\\\\fs01\\tdtemp\\";
  // The write test's file, named by user and second, is written into the test's own folder: tests
  // that run side by side at the same simulated second would otherwise share one in a Windows folder.
  u.local_temp = "C:\\%APPDIR%\\Temp";
  StartServer(testing::Users({u}));
  WriteSettings();
  WriteFile(App("thinterminal.dat"), "");
  MediaTransferByFiles(0);  // never answers: the 128 request waits 31 s
  Request("20261114231502.TDACLI", "Code=128\r\n");
  Request("20261114231503.TDACLI", "Code=200\r\n");
  Request("20261114231504.TDACLI", "Code=201\r\n");
  t->request_file_timer.SetEnabled(true);
  ASSERT_TRUE(t->WaitUntil(60, [&] { return Has(t.Messages(), "Trace in TDACLI: Processed Message Request: Code=128"); }));
  auto msgs = t.Messages();
  auto at = [&](const std::string& m) { return std::find(msgs.begin(), msgs.end(), m) - msgs.begin(); };
  EXPECT_LT(at(Discarded(200)), at(Discarded(201)));
  EXPECT_LT(at("Trace in TDACLI: Processed Message Request: Code=201"),
            at("Trace in TDACLI: Processed Message Request: Code=128"));
  EXPECT_EQ(t->temp_access_status, 2);  // no answer
}

TEST_F(RequestChain, AFloodOfWaitingRequestsNestsOnlySoDeep) {
  t->settings.Server = DeadAddress();
  // Every "Code=133" waits in the logoff driver (30 s for the refused connection).
  WriteFile(App("TDRegInfo.TXT"), "Tyndrel - Agent Client Configuration\r\n[Config]\r\nServer=" + t->settings.Server +
                                      "\r\nCurrentUser=jsmith\r\n");
  for (int i = 0; i < 20; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "2026111423%04d.TDACLI", i);
    Request(name, "Code=133\r\n");
  }
  size_t deepest = 0;
  platform::Timer probe(t->loop());
  probe.SetInterval(100);
  probe.on_tick = [&] { deepest = std::max(deepest, t->requests.in_hand.size()); };
  probe.SetEnabled(true);
  t->request_file_timer.SetEnabled(true);
  ASSERT_TRUE(t->WaitUntil(3600, [&] {
    return Count(t.Messages(), "Trace in TDACLI: Processed Message Request: Code=133") == 20;
  }));
  EXPECT_EQ(deepest, kRequestsInHandLimit);
  for (auto& e : fs::directory_iterator(t.dir.path())) EXPECT_NE(e.path().extension(), ".TDACLI");
  EXPECT_TRUE(t->requests.in_hand.empty());
}

// --- user-session mode from start-up: the listener opens only after the login

TEST_F(RequestChain, InUserSessionModeTheListenerOpensAfterTheLoginFromARequestFile) {
  loginsim::UserRecord u = testing::Jsmith();
  u.server_temp = "NoScreenCapture";
  StartServer(testing::Users({u}));
  uint16_t port = 0;
  auto hold = testing::HoldLowPort(t->loop(), port);
  hold.reset();  // free again: the agent is to listen there after the login
  WriteFile(App("TDRegInfo.TXT"), "Tyndrel - Agent Client Configuration\r\n[Config]\r\nServer=" + server->address() +
                                      "\r\nCurrentUser=jsmith\r\nListeningPorts=1," + std::to_string(port) + ",2,3\r\n");
  WriteFile(App("thinterminal.dat"), "");
  t->request_file_timer.on_tick = nullptr;  // wired by the start-up itself
  t->startup_banner_written = false;
  Form_Load(*t);
  ASSERT_TRUE(t->WaitUntil(5, [&] { return t->request_file_timer.Enabled(); }));
  EXPECT_FALSE(listener::ListenerOf(*t).Listener().State() == 2);
  const std::string login = Request("20261114231502.TDACLI", "Code=128\r\n");
  ASSERT_TRUE(t->WaitUntil(60, [&] { return !Exists(login); }));
  EXPECT_TRUE(t->login().LoginSucceeded);
  EXPECT_TRUE(listener::ListenerOf(*t).Listener().State() == 2);
  EXPECT_TRUE(Has(t.Messages(), "Trace in TDACLI: Service is Now Listening on Port (" + std::to_string(port) + ")"));
}

}  // namespace
}  // namespace tdacli
