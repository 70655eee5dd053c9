// The login server simulator itself: its users file, transcript format and fault modes; on a thread of
// its own; and the real td-login-server program serving an agent end to end.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>

#include "common/files.h"
#include "login/drivers.h"
#include "login/login_fixture.h"

#ifdef _WIN32
#include <process.h>
#endif

namespace tdacli {
namespace {

using ::testing::ElementsAre;
using loginsim::Fault;
using loginsim::UserTable;
using testing::LoginFixture;

// ---- users file

TEST(LoginServerSimulator, UsersFileFillsEveryValue) {
  UserTable users;
  std::string error;
  ASSERT_TRUE(users.Parse("# agents of the east floor\r\n"
                          "\r\n"
                          "[JSmith]\r\n"
                          "ServerTemp=\\\\fs01\\tdtemp\\:FTP@ftp.example.com:tduser:9F8E\r\n"
                          "localtemp=C:\\%WINDIR%\\Temp\r\n"
                          "LIVEID=48213:10.1.2.3:5020:T\r\n"
                          "KekInfo=a=b\r\n"
                          "ValidIPMask=\r\n"
                          "Trace=True\r\n"
                          "WebCam=true\r\n"
                          "100Screen=10,02:00 AM,4\r\n"
                          "ListenPorts=5001,6000,6001,6002\r\n"
                          "; second user, all defaults\n"
                          "[mjones]\n",
                          error))
      << error;
  EXPECT_EQ(users.size(), 2u);
  const loginsim::UserRecord* u = users.Find("jsmith");  // Windows names in any case
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(u->name, "JSmith");
  EXPECT_EQ(u->server_temp, "\\\\fs01\\tdtemp\\:FTP@ftp.example.com:tduser:9F8E");
  EXPECT_EQ(u->local_temp, "C:\\%WINDIR%\\Temp");
  EXPECT_EQ(u->live_id, "48213:10.1.2.3:5020:T");
  EXPECT_EQ(u->kek_info, "a=b");
  EXPECT_EQ(u->valid_ip_mask, "");
  EXPECT_EQ(u->trace, "True");
  EXPECT_EQ(u->webcam, "true");
  EXPECT_EQ(u->hundred_screen, "10,02:00 AM,4");
  EXPECT_EQ(u->listen_ports, "5001,6000,6001,6002");
  const loginsim::UserRecord* m = users.Find("MJONES");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->trace, "False");
  EXPECT_FALSE(m->webcam.has_value());
  EXPECT_FALSE(m->hundred_screen.has_value());
  EXPECT_EQ(users.Find("nobody"), nullptr);
}

TEST(LoginServerSimulator, BadUsersFilesAreRefusedWithTheLine) {
  struct Case {
    const char* text;
    const char* error;
  };
  for (const Case& c : {Case{"Trace=True\n", "line 1: a value before the first [WindowsName]"},
                        Case{"[a]\nColour=red\n", "line 2: unknown key Colour"},
                        Case{"[a]\nnonsense\n", "line 2: expected Key=Value"},
                        Case{"[a]\n[A]\n", "line 2: user A is listed twice"},
                        Case{"[]\n", "line 1: a user section reads [WindowsName]"},
                        Case{"[a\n", "line 1: a user section reads [WindowsName]"}}) {
    UserTable users;
    std::string error;
    EXPECT_FALSE(users.Parse(c.text, error)) << c.text;
    EXPECT_EQ(error, c.error);
  }
  UserTable users;
  std::string error;
  EXPECT_FALSE(users.Load(testing::TempDir().File("missing.txt"), error));
}

TEST(LoginServerSimulator, FaultModesAreParsed) {
  loginsim::Options o;
  EXPECT_TRUE(loginsim::ParseFault("silent", o));
  EXPECT_EQ(o.fault, Fault::kSilent);
  EXPECT_TRUE(loginsim::ParseFault("close-mid", o));
  EXPECT_EQ(o.fault, Fault::kCloseMid);
  EXPECT_TRUE(loginsim::ParseFault("reset-mid", o));
  EXPECT_EQ(o.fault, Fault::kResetMid);
  EXPECT_TRUE(loginsim::ParseFault("unexpected", o));
  EXPECT_EQ(o.fault, Fault::kUnexpected);
  EXPECT_TRUE(loginsim::ParseFault("two-in-one", o));
  EXPECT_EQ(o.fault, Fault::kTwoInOne);
  EXPECT_TRUE(loginsim::ParseFault("delay=250", o));
  EXPECT_EQ(o.fault, Fault::kDelay);
  EXPECT_EQ(o.delay_ms, 250);
  for (const char* bad : {"", "delay=", "delay=x", "delay=-5", "Silent", "loud"})
    EXPECT_FALSE(loginsim::ParseFault(bad, o)) << bad;
}

// ---- transcript

TEST(LoginServerSimulator, TranscriptLinesShowExactBytes) {
  EXPECT_EQ(loginsim::EscapeBytes(std::string("C:\\a b\r\n\t\x01\xff", 11)), "C:\\\\a b\\r\\n\\t\\x01\\xFF");
  EXPECT_EQ(loginsim::EscapeBytes(std::string("x\0y", 3)), "x\\x00y");
  using K = loginsim::TranscriptEntry::Kind;
  EXPECT_EQ(loginsim::FormatEntry({K::kReceived, 3, "IDjsmith"}), "[3] C> IDjsmith");
  EXPECT_EQ(loginsim::FormatEntry({K::kSent, 3, "ID OK"}), "[3] S> ID OK");
  EXPECT_EQ(loginsim::FormatEntry({K::kEvent, 0, "listening on 127.0.0.9:5003"}), "[0] -- listening on 127.0.0.9:5003");
}

// A bare client, to see what the simulator does with requests the agent would never send.
struct RawClient {
  explicit RawClient(LoginFixture& f) : f(f), socket(f.t->loop()) {
    socket.on_data_arrival = [this](size_t) { received.push_back(socket.GetData()); };
    socket.on_close = [this] { closed = true; };
    socket.SetRemoteHost(f.server->address());
    socket.SetRemotePort(5003);
    EXPECT_FALSE(socket.Connect());
    f.t->WaitUntil(5, [this] { return socket.State() == platform::TcpSocket::kConnected; });
  }
  void Send(const std::string& s) { EXPECT_FALSE(socket.SendData(s)); }
  void Wait(size_t replies) {
    f.t->WaitUntil(5, [&] { return received.size() >= replies || closed; });
  }
  LoginFixture& f;
  platform::TcpSocket socket;
  std::vector<std::string> received;
  bool closed = false;
};

TEST(LoginServerSimulator, SilentServerRecordsRequestsAndSendsNothing) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = Fault::kSilent;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  RawClient c(f);
  c.Send("IDjsmith");
  f.PumpUntilRequests(1);
  f.t->loop().RunFor(1000);
  EXPECT_TRUE(c.received.empty());
  EXPECT_THAT(f.server->Requests(), ElementsAre("IDjsmith"));
}

TEST(LoginServerSimulator, CloseMidHangsUpOnTheFirstRequest) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = Fault::kCloseMid;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  RawClient c(f);
  c.Wait(1);
  c.Send("IDjsmith");
  c.Wait(2);
  EXPECT_TRUE(c.closed);
  EXPECT_THAT(c.received, ElementsAre("TD Agent Connect OK"));
  EXPECT_EQ(f.server->TranscriptLines().back(), "[1] -- closed by the server in the middle of the exchange");
}

TEST(LoginServerSimulator, ResetMidResetsTheConnectionOnTheFirstRequest) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = Fault::kResetMid;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  RawClient c(f);
  int error = 0;
  c.socket.on_error = [&](int number, const std::string&) { error = number; };
  c.Wait(1);
  c.Send("IDjsmith");
  f.t->WaitUntil(5, [&] { return error != 0 || c.closed; });
  EXPECT_EQ(error, 10054);
  EXPECT_FALSE(c.closed);
  EXPECT_THAT(c.received, ElementsAre("TD Agent Connect OK"));
  EXPECT_EQ(f.server->TranscriptLines().back(), "[1] -- reset by the server in the middle of the exchange");
}

TEST(LoginServerSimulator, UnknownRequestsAreRecordedAndNotAnswered) {
  LoginFixture f;
  f.StartServer();
  RawClient c(f);
  c.Wait(1);
  c.Send("HELLO");
  f.PumpUntilRequests(1);
  f.t->loop().RunFor(100);
  EXPECT_THAT(c.received, ElementsAre("TD Agent Connect OK"));
  EXPECT_EQ(f.server->TranscriptLines().back(), "[1] -- not a request of the protocol, not answered");
}

TEST(LoginServerSimulator, DelayedRepliesLeaveLate) {
  LoginFixture f;
  loginsim::Options o;
  o.fault = Fault::kDelay;
  o.delay_ms = 1500;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  const int64_t start = f.Now();
  RawClient c(f);
  c.Wait(1);
  EXPECT_GE(f.Now() - start, 1500);
  EXPECT_THAT(c.received, ElementsAre("TD Agent Connect OK"));
}

TEST(LoginServerSimulator, OnceServesOneConnection) {
  LoginFixture f;
  loginsim::Options o;
  o.once = true;
  f.StartServer(testing::Users({testing::Jsmith()}), o);
  bool finished = false;
  f.server->on_finished = [&] { finished = true; };
  LoginUser(*f.t);
  f.Drain();
  EXPECT_TRUE(finished);
  EXPECT_TRUE(f.server->Finished());
  f.t->WriteLogin().LastLoginResult.clear();
  LoginUser(*f.t);  // nobody listens any more
  EXPECT_EQ(f.t->login().LastLoginResult, "[ERROR]Login Attempt - Timeout connecting socket for login");
}

TEST(LoginServerSimulator, ParallelServersShareThePortOnDifferentLoopbackAddresses) {
  LoginFixture f;
  f.StartServer();
  loginsim::LoginServer second(f.t->loop(), testing::Users({testing::Jsmith()}), {});
  ASSERT_FALSE(second.StartOnFreeLoopback());
  EXPECT_NE(second.address(), f.server->address());
  f.t->settings.Server = second.address();
  LoginUser(*f.t);
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  f.t->WaitUntil(5, [&] { return second.Requests().size() >= 10; });
  EXPECT_EQ(second.Requests().size(), 10u);
  EXPECT_TRUE(f.server->Requests().empty());
  // The same address twice is refused.
  loginsim::Options same;
  same.address = second.address();
  loginsim::LoginServer third(f.t->loop(), UserTable{}, same);
  EXPECT_EQ(third.Start().number, 10048);
}

// ---- on a thread of its own, real time

TEST(LoginServerSimulator, ServesFromItsOwnThread) {
  loginsim::LoginServerThread thread(testing::Users({testing::Jsmith()}), {});
  ASSERT_FALSE(thread.StartOnFreeLoopback());
  LoginFixture f;
  // A peer in another thread answers in real time: let the simulated clock wait for it.
  f.t.clock.idle_grace_ms = 2000;
  f.t->settings.Server = thread.server().address();
  LoginUser(*f.t);
  LogOffUser(*f.t);
  f.t->temp_access_status = 1;
  LoginStatus(*f.t);
  // The agent is done once it has its answer; the server thread records the agent's last words at its
  // own pace: wait for them before stopping it.
  EXPECT_TRUE(testing::Eventually([&] { return thread.server().Requests().size() >= 15; }));
  thread.Stop();
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  EXPECT_TRUE(f.t->login().LogoffSucceeded);
  EXPECT_TRUE(f.t->login().StatusSucceeded);
  const auto requests = thread.server().Requests();
  ASSERT_EQ(requests.size(), 15u);
  EXPECT_EQ(requests[10], "Logoffjsmith:192.168.5.20");
  EXPECT_EQ(requests[13], "STATUS1");
}

// ---- the program, end to end

std::string ServerProgram() {
#ifdef _WIN32
  return std::string(TDACLI_BIN_DIR) + "/td-login-server.exe";
#else
  return std::string(TDACLI_BIN_DIR) + "/td-login-server";
#endif
}

// Runs a command line through the shell. cmd.exe drops the first and the last quote of a line that
// starts with one, so there the whole line is quoted once more.
int Shell(const std::string& command) {
#ifdef _WIN32
  return std::system(("\"" + command + "\"").c_str());
#else
  return std::system(command.c_str());
#endif
}

// Starts the program in the background; it ends by itself (--once, --exit-after).
void StartInBackground(const std::vector<std::string>& args) {
#ifdef _WIN32
  std::vector<std::string> quoted;
  for (const auto& a : args) quoted.push_back("\"" + a + "\"");
  std::vector<const char*> argv;
  for (const auto& a : quoted) argv.push_back(a.c_str());
  argv.push_back(nullptr);
  ASSERT_NE(_spawnv(_P_NOWAIT, args[0].c_str(), argv.data()), -1);
#else
  std::string command;
  for (const auto& a : args) command += "'" + a + "' ";
  ASSERT_EQ(std::system((command + ">/dev/null 2>&1 &").c_str()), 0);
#endif
}

TEST(LoginServerProgram, HelpDescribesUsageAndUsersFile) {
  testing::TempDir dir;
  const std::string out = dir.File("help.txt");
  ASSERT_EQ(Shell("\"" + ServerProgram() + "\" --help > \"" + out + "\""), 0);
  const std::string help = testing::ReadFile(out);
  EXPECT_NE(help.find("Usage: td-login-server --listen ADDRESS[:PORT] --users FILE"), std::string::npos);
  EXPECT_NE(help.find("[jsmith]"), std::string::npos);
  EXPECT_NE(help.find("two-in-one"), std::string::npos);
  EXPECT_NE(Shell("\"" + ServerProgram() + "\" --fault loud > \"" + out + "\" 2>&1"), 0);
}

TEST(LoginServerProgram, ServesAnAgentLoginEndToEndAndWritesTheTranscript) {
  LoginFixture f;
  const std::string users = f.t.dir.File("users.txt");
  testing::WriteFile(users,
                     "[jsmith]\r\nServerTemp=\\\\fs01\\tdtemp\\\r\nLocalTemp=C:\\%WINDIR%\\Temp\r\n"
                     "LiveID=48213:10.1.2.3:5020:T\r\nKekInfo=KEK-0001\r\nValidIPMask=192.168.5.\r\nTrace=False\r\n");
  const std::string transcript = f.t.dir.File("transcript.txt");

  // The port is fixed: look for a free loopback address, and try again should another run take it.
  // Another process writes the file: look at it every few milliseconds of real time.
  auto clock = platform::MakeSystemClock();
  platform::EventLoop real(*clock);
  auto wait_for = [&](const std::function<bool()>& done) {
    for (const int64_t end = clock->NowMs() + 10000; !done() && clock->NowMs() < end;) real.RunFor(10);
  };
  std::string address;
  for (int attempt = 0; attempt < 3 && address.empty(); ++attempt) {
    std::string candidate = f.DeadAddress();
    std::remove(transcript.c_str());
    StartInBackground({ServerProgram(), "--listen", candidate + ":5003", "--users", users, "--transcript", transcript,
                       "--once", "--quiet", "--exit-after", "60"});
    wait_for([&] { return !testing::Lines(transcript).empty(); });
    const auto first = testing::Lines(transcript);
    ASSERT_FALSE(first.empty()) << "the simulator did not start";
    if (first[0] == "[0] -- listening on " + candidate + ":5003") address = candidate;
  }
  ASSERT_FALSE(address.empty());

  f.t.clock.idle_grace_ms = 5000;  // the server is another process answering in real time
  f.t->settings.Server = address;
  LoginUser(*f.t);
  EXPECT_TRUE(f.t->login().LoginSucceeded);
  EXPECT_EQ(f.t->login().TDLiveID, "48213");
  EXPECT_EQ(f.t->settings.LocalTemp, "C:\\WINDOWS\\temp");

  // --once: the program ends after the connection, its last line says so.
  wait_for([&] { return testing::ReadFile(transcript).find("closed by the server") != std::string::npos; });
  const auto lines = testing::Lines(transcript);
  ASSERT_EQ(lines.size(), 23u) << testing::ReadFile(transcript);
  EXPECT_EQ(lines[1].rfind("[1] -- accepted from 127.", 0), 0u);
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 2, lines.end()),
              ElementsAre("[1] S> TD Agent Connect OK", "[1] C> IDjsmith", "[1] S> ID OK", "[1] C> IP192.168.5.20",
                          "[1] S> IP Addr OK", "[1] C> EX1234", "[1] S> EXT OK", "[1] C> TDLIVEID",
                          "[1] S> TDLIVEID=48213:10.1.2.3:5020:T", "[1] C> SERVERTEMP",
                          "[1] S> SERVERTEMP\\\\\\\\fs01\\\\tdtemp\\\\", "[1] C> LOCALTEMP",
                          "[1] S> LOCALTEMPC:\\\\%WINDIR%\\\\Temp", "[1] C> KEKINFO", "[1] S> KEKINFOKEK-0001",
                          "[1] C> VALIDIPMASK", "[1] S> VALIDIPMASK192.168.5.", "[1] C> USETRACE",
                          "[1] S> AGENTTRACEFalse", "[1] C> TD Agent Disconnect OK", "[1] -- closed by the server"));
}

}  // namespace
}  // namespace tdacli
