// agent-explorer's library: command line, request texts, reply formatting, and whole exchanges with
// an agent listening on loopback (on the agent's own loop, so time-outs cost no real time).
#include "seat/explorer.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "listener/console.h"

namespace tdacli {
namespace {

using explorer::Action;
using explorer::Exchange;
using explorer::FormatReply;
using explorer::ParseArguments;
using platform::TcpSocket;

explorer::Options Parsed(std::vector<std::string> args) {
  auto r = ParseArguments(args);
  EXPECT_TRUE(r.ok) << r.error;
  return r.options;
}

std::string Refused(std::vector<std::string> args) {
  auto r = ParseArguments(args);
  EXPECT_FALSE(r.ok);
  return r.error;
}

TEST(AgentExplorerCommandLine, CommandsBecomeTheirRequests) {
  EXPECT_EQ(Parsed({"pc7", "getinfo"}).command, "|GETINFO|");
  EXPECT_EQ(Parsed({"pc7", "login"}).command, "|LOGIN|");
  EXPECT_EQ(Parsed({"pc7", "getver"}).command, "|GETVER|");
  EXPECT_EQ(Parsed({"pc7", "gettracefile"}).command, "|GETTRACEFILE|");
  EXPECT_EQ(Parsed({"pc7", "set", "ext", "4711"}).command, "|SETEXT|4711;");
  EXPECT_EQ(Parsed({"pc7", "set", "server", "10.0.0.1:8080"}).command, "|SETSERVER|10.0.0.1:8080;");
  EXPECT_EQ(Parsed({"pc7", "set", "notify", "FileMessage"}).command, "|SETNOTIFY|FileMessage;");
  EXPECT_EQ(Parsed({"pc7", "set", "listen", "5001,5002,5003,5004"}).command, "|SETLISTEN|5001,5002,5003,5004;");
  EXPECT_EQ(Parsed({"pc7", "set", "pop4ext", "true"}).command, "|SETPOP4EXT|true;");
  EXPECT_EQ(Parsed({"pc7", "set", "pop4win", "false"}).command, "|SETPOP4WIN|false;");
  EXPECT_EQ(Parsed({"pc7", "set", "ext", ""}).command, "|SETEXT|;");
  EXPECT_EQ(Parsed({"pc7", "setall", "4711"}).command, "|SETALL||EXT|4711;");
  EXPECT_EQ(Parsed({"pc7", "setall", "4711", "pop4win=x", "server=s", "notify=n", "listen=1,2,3,4", "pop4ext="}).command,
            "|SETALL||EXT|4711;|SERVER|s;|NOTIFICATIONMETHOD|n;|LISTENINGPORTS|1,2,3,4;|POP4EXT|;|POP4WIN|x;");
  EXPECT_EQ(Parsed({"pc7", "raw", "|getinfo|"}).command, "|getinfo|");
  auto sf = Parsed({"pc7", "sendframes", "job.txt"});
  EXPECT_EQ(sf.sendframes_file, "job.txt");
  EXPECT_EQ(sf.pieces, 1);
  auto chopped = Parsed({"pc7", "sendframes", "job.txt", "--pieces", "50", "--gap=10"});
  EXPECT_EQ(chopped.pieces, 50);
  EXPECT_EQ(chopped.gap_ms, 10);
}

TEST(AgentExplorerCommandLine, HostPortAndOptions) {
  auto o = Parsed({"--raw", "10.1.1.9:6000", "getinfo", "--timeout", "2.5"});
  EXPECT_EQ(o.action, Action::kCommand);
  EXPECT_EQ(o.host, "10.1.1.9");
  EXPECT_EQ(o.port, 6000);
  EXPECT_TRUE(o.raw);
  EXPECT_DOUBLE_EQ(o.timeout_seconds, 2.5);
  auto d = Parsed({"pc7", "getinfo"});
  EXPECT_EQ(d.port, 5002);
  EXPECT_FALSE(d.raw);
  EXPECT_DOUBLE_EQ(d.timeout_seconds, 15);
  EXPECT_DOUBLE_EQ(Parsed({"--timeout=7", "pc7", "getver"}).timeout_seconds, 7);
  // A login runs the whole login on the agent before it replies.
  EXPECT_DOUBLE_EQ(Parsed({"pc7", "login"}).timeout_seconds, 180);
  EXPECT_DOUBLE_EQ(Parsed({"pc7", "login", "--timeout", "20"}).timeout_seconds, 20);
  EXPECT_EQ(Parsed({"pc7", "raw", "--", "--raw"}).command, "--raw");
}

TEST(AgentExplorerCommandLine, ControlAndHelp) {
  auto c = Parsed({"control", "TDACLI", "128", "--app-dir", "/opt/td"});
  EXPECT_EQ(c.action, Action::kControl);
  EXPECT_EQ(c.service, "TDACLI");
  EXPECT_EQ(c.code, 128);
  EXPECT_EQ(c.app_dir, "/opt/td");
  EXPECT_EQ(Parsed({"control", "TDACMT", "141"}).app_dir, ".");
  EXPECT_EQ(Parsed({"control", "TDACLI", "255"}).code, 255);
  const std::string help = explorer::UsageText();
  EXPECT_NE(help.find("CODE must lie in 128-255"), std::string::npos);
  EXPECT_EQ(Parsed({"--help"}).action, Action::kHelp);
  EXPECT_EQ(Parsed({"pc7", "getinfo", "-h"}).action, Action::kHelp);
}

TEST(AgentExplorerCommandLine, RefusesWhatItCannotSend) {
  EXPECT_NE(Refused({}), "");
  EXPECT_NE(Refused({"pc7"}), "");
  EXPECT_NE(Refused({"pc7", "getinfo", "extra"}), "");
  EXPECT_NE(Refused({"pc7", "set", "ext"}), "");
  EXPECT_NE(Refused({"pc7", "set", "colour", "red"}), "");
  EXPECT_NE(Refused({"pc7", "set", "ext", "1;2"}), "");
  EXPECT_NE(Refused({"pc7", "setall"}), "");
  EXPECT_NE(Refused({"pc7", "setall", "1", "server"}), "");
  EXPECT_NE(Refused({"pc7", "setall", "1", "colour=red"}), "");
  EXPECT_NE(Refused({"pc7:0", "getinfo"}), "");
  EXPECT_NE(Refused({"pc7:70000", "getinfo"}), "");
  EXPECT_NE(Refused({":5002", "getinfo"}), "");
  EXPECT_NE(Refused({"pc7", "getinfo", "--timeout", "soon"}), "");
  EXPECT_NE(Refused({"pc7", "getinfo", "--timeout"}), "");
  EXPECT_NE(Refused({"pc7", "getinfo", "--verbose"}), "");
  EXPECT_NE(Refused({"pc7", "shutdown"}), "");
  EXPECT_NE(Refused({"control", "TDACLI"}), "");
  EXPECT_NE(Refused({"control", "TDACLI", "x"}), "");
  // Only user-defined codes: the help names the range the parser takes.
  EXPECT_EQ(Refused({"control", "TDACLI", "127"}), "control: CODE must be a user-defined service control code, 128-255 (not 127)");
  EXPECT_NE(Refused({"control", "TDACLI", "0"}), "");
  EXPECT_NE(Refused({"control", "TDACLI", "256"}), "");
  EXPECT_NE(Refused({"pc7", "sendframes", "job.txt", "--pieces", "0"}), "");
  EXPECT_NE(Refused({"pc7", "sendframes", "job.txt", "--pieces", "x"}), "");
  EXPECT_NE(Refused({"pc7", "sendframes", "job.txt", "--gap", "-1"}), "");
  EXPECT_NE(Refused({"pc7", "getinfo", "--pieces", "3"}), "");
  EXPECT_NE(Refused({"pc7", "sendframes"}), "");
  EXPECT_NE(Refused({"pc7", "raw", ""}), "");
}

TEST(AgentExplorerCommandLine, HelpDocumentsEverySubCommandAndOption) {
  const std::string help = explorer::UsageText();
  for (const char* word : {"getinfo", "set ext", "set server", "set notify", "set listen", "set pop4ext", "set pop4win",
                           "setall", "login", "getver", "gettracefile", "sendframes FILE", "raw TEXT",
                           "control SERVICE CODE", "--raw", "--timeout SEC", "--app-dir DIR", "--help",
                           "fleet COMMAND --hosts SPEC"})
    EXPECT_NE(help.find(word), std::string::npos) << word;
}

TEST(AgentExplorerRequests, SendFramesFromAJobFile) {
  EXPECT_EQ(explorer::BuildSendFrames("a@b@job1\r\n"), "[BEGIN_PROTOCOL]|SENDFRAMES|a@b@job1[END_PROTOCOL]");
  EXPECT_EQ(explorer::BuildSendFrames("|SENDFRAMES|a@b@job1"), "[BEGIN_PROTOCOL]|SENDFRAMES|a@b@job1[END_PROTOCOL]");
  EXPECT_EQ(explorer::BuildSendFrames("[BEGIN_PROTOCOL]|SENDFRAMES|x[END_PROTOCOL]\n"),
            "[BEGIN_PROTOCOL]|SENDFRAMES|x[END_PROTOCOL]");
}

TEST(AgentExplorerRequests, ChoppedSendFramesKeepTheKeywordInTheFirstPiece) {
  const std::string framed = "[BEGIN_PROTOCOL]|SENDFRAMES|a@b@job1[END_PROTOCOL]";
  EXPECT_EQ(explorer::ChopSendFrames(framed, 1), std::vector<std::string>{framed});
  EXPECT_EQ(explorer::ChopSendFrames(framed, 2),
            (std::vector<std::string>{"[BEGIN_PROTOCOL]|SENDFRAMES|", "a@b@job1[END_PROTOCOL]"}));
  EXPECT_EQ(explorer::ChopSendFrames(framed, 3),
            (std::vector<std::string>{"[BEGIN_PROTOCOL]|SENDFRAMES|", "a@b@job1[EN", "D_PROTOCOL]"}));
  for (int n : {1, 2, 3, 7, 22, 23}) {
    const auto pieces = explorer::ChopSendFrames(framed, n);
    ASSERT_EQ(pieces.size(), static_cast<size_t>(n));
    std::string joined;
    for (const auto& p : pieces) {
      EXPECT_FALSE(p.empty());
      joined += p;
    }
    EXPECT_EQ(joined, framed);
  }
  EXPECT_TRUE(explorer::ChopSendFrames(framed, 24).empty());  // 22 characters behind the keyword
  EXPECT_TRUE(explorer::ChopSendFrames("no keyword", 2).empty());
}

TEST(AgentExplorerFormat, ControlSaysWhatHappened) {
  EXPECT_EQ(explorer::DescribeControlResult("TDACLI", 128, 0), "code 128 sent to TDACLI");
  EXPECT_EQ(explorer::DescribeControlResult("TDACMT", 130, 1060),
            "code 130 not sent: no service TDACMT is installed (error 1060)");
  EXPECT_EQ(explorer::DescribeControlResult("TDACMT", 130, 1062), "code 130 not sent: TDACMT is not running (error 1062)");
  EXPECT_EQ(explorer::DescribeControlResult("TDACMT", 130, 1061),
            "code 130 not sent: TDACMT cannot accept control messages now (error 1061)");
  EXPECT_EQ(explorer::DescribeControlResult("TDACLI", 200, 5),
            "code 200 not sent: access to the service TDACLI denied (error 5)");
  EXPECT_EQ(explorer::DescribeControlResult("TDACLI", 200, 1052),
            "code 200 not sent: TDACLI does not accept this code (error 1052)");
  EXPECT_EQ(explorer::DescribeControlResult("TDACLI", 200, 87), "code 200 not sent to TDACLI (error 87)");
}

const std::string kInfo = std::string("|GETINFO|<PCName>WKS-0042") + '\0' + ";<NETUsername>jsmith" + '\0' +
                          ";<WinName>N/A;<Extension>1234;<TD Server>127.0.0.1;<Notification Method>FileMessage;"
                          "<Listening Ports>1,0,2,3;<Pop4Ext>false;<Pop4Win>false;";

TEST(AgentExplorerFormat, GetInfoAsATableWithVisibleNuls) {
  EXPECT_EQ(FormatReply(kInfo),
            "|GETINFO|\n"
            "  <PCName>               WKS-0042\\0\n"
            "  <NETUsername>          jsmith\\0\n"
            "  <WinName>              N/A\n"
            "  <Extension>            1234\n"
            "  <TD Server>            127.0.0.1\n"
            "  <Notification Method>  FileMessage\n"
            "  <Listening Ports>      1,0,2,3\n"
            "  <Pop4Ext>              false\n"
            "  <Pop4Win>              false\n");
}

TEST(AgentExplorerFormat, SetRepliesOneSegmentALineWithFailuresMarked) {
  EXPECT_EQ(FormatReply("|SETEXT|<Extension>4711;"), "    |SETEXT| <Extension> 4711\n");
  EXPECT_EQ(FormatReply("|SETEXT|<Extension>Failed;"), ">>> |SETEXT| <Extension> Failed; <<< FAILED\n");
  EXPECT_EQ(FormatReply("|SETALL|<Extension>4711;|SETSERVER|<TD Server>Failed;|SETSERVER|<TD Server>127.0.0.1;"),
            "    |SETALL|    <Extension> 4711\n"
            ">>> |SETSERVER| <TD Server> Failed; <<< FAILED\n"
            "    |SETSERVER| <TD Server> 127.0.0.1\n");
}

TEST(AgentExplorerFormat, StatusRepliesAndOtherTextWithLineBreaksExpanded) {
  EXPECT_EQ(FormatReply("|GETVER|<Status>Line one{CRLF}Line two{CRLF}"), "|GETVER| <Status>\nLine one\nLine two\n");
  EXPECT_EQ(FormatReply("|LOGIN|<Status>[ERROR]Login Attempt - timed out"),
            "|LOGIN| <Status>\n[ERROR]Login Attempt - timed out\n");
  EXPECT_EQ(FormatReply("|OKAY|"), "|OKAY|\n");
  EXPECT_EQ(FormatReply(std::string("a{CRLF}b") + '\0'), "a\nb\\0\n");
}

// --- whole exchanges on loopback

using AgentExplorerExchange = testing::ListeningAgent;

TEST_F(AgentExplorerExchange, GetInfoAndSetAgainstAnAgent) {
  Exchange x = explorer::RunExchange(t->loop(), "127.0.0.1", Port(), "|GETINFO|", 15);
  EXPECT_EQ(x.status, Exchange::kReplied);
  EXPECT_EQ(x.reply, kInfo);
  // The exchange ends only once the agent has taken in the console's departure: a close it saw after
  // the next connection was accepted would close that newer one. So the next one may follow at once.
  listener::CommandListener& l = listener::ListenerOf(*t);
  EXPECT_EQ(l.ListenConnectionIndex, 1);
  EXPECT_EQ(l.ElementState(1), TcpSocket::kClosed);
  x = explorer::RunExchange(t->loop(), "127.0.0.1", Port(), "|SETEXT|4711;", 15);
  EXPECT_EQ(x.status, Exchange::kReplied);
  EXPECT_EQ(x.reply, "|SETEXT|<Extension>4711;");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), testing::SettingsFile("4711"));
  EXPECT_EQ(l.ListenConnectionIndex, 2);
  EXPECT_EQ(l.ElementState(2), TcpSocket::kClosed);
}

TEST_F(AgentExplorerExchange, NoReplyWithinTheTimeOut) {
  const int64_t start = t.clock.NowMs();
  // The agent drops text it does not know: the greeting comes, the reply never does.
  Exchange x = explorer::RunExchange(t->loop(), "127.0.0.1", Port(), "|nothing|", 15);
  EXPECT_EQ(x.status, Exchange::kNoReply);
  EXPECT_GE(t.clock.NowMs() - start, 15000);
}

// Every sub-command answers now: none of them waits for the time-out.
TEST_F(AgentExplorerExchange, EverySubCommandIsAnswered) {
  testing::WriteFile(t.dir.File("job.txt"), "a@b@JOB5\r\n");
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"getinfo"}, {"set", "ext", "1234"}, {"setall", "1234"}, {"getver"},
                                             {"gettracefile"}, {"login"}, {"sendframes", "job.txt"}}) {
    std::vector<std::string> full = {"127.0.0.1:" + std::to_string(Port())};
    full.insert(full.end(), args.begin(), args.end());
    explorer::Options o = Parsed(full);
    if (!o.sendframes_file.empty()) o.command = explorer::BuildSendFrames(testing::ReadFile(t.dir.File("job.txt")));
    Exchange x = explorer::RunExchange(t->loop(), "127.0.0.1", Port(), o.command, o.timeout_seconds);
    EXPECT_EQ(x.status, Exchange::kReplied) << args[0];
    EXPECT_FALSE(x.reply.empty()) << args[0];
  }
}

TEST_F(AgentExplorerExchange, SendFramesChoppedIntoPieces) {
  const std::string framed = explorer::BuildSendFrames("a@b@JOB6");
  for (int n : {1, 2, 3, 22}) {
    const size_t before = t.Messages().size();
    Exchange x = explorer::RunExchange(t->loop(), "127.0.0.1", Port(), explorer::ChopSendFrames(framed, n), 15, 200);
    EXPECT_EQ(x.status, Exchange::kReplied);
    EXPECT_EQ(x.reply, "|OKAY|");
    const auto all = t.Messages();
    EXPECT_EQ(std::count(all.begin() + static_cast<long>(before), all.end(),
                         "Trace in TDACLI: Chopped protocol saving data until all is received!"),
              n - 1)
        << n;
    EXPECT_EQ(testing::ReadFile(t->AppPath("SendFrames-JOB6.TSF")), "|SENDFRAMES|a@b@JOB6\r\n");
  }
}

TEST(AgentExplorerTimeOut, NoGreetingFromAPortWhereNothingAnswers) {
  testing::TestAgent t;
  // Accepts the connection and stays silent.
  TcpSocket silent(t->loop()), accepted(t->loop());
  silent.SetLocalPort(0);
  ASSERT_FALSE(silent.Listen());
  silent.on_connection_request = [&](int64_t id) { accepted.Accept(silent, id); };
  const int64_t start = t.clock.NowMs();
  Exchange x = explorer::RunExchange(t->loop(), "127.0.0.1", silent.LocalPort(), "|GETINFO|", 4);
  EXPECT_EQ(x.status, Exchange::kNoGreeting);
  EXPECT_GE(t.clock.NowMs() - start, 4000);
  EXPECT_LT(t.clock.NowMs() - start, 15000);
}

// A peer on the console port that sends without end: what it sent is dropped once it passes the bound,
// and the connection is closed, before or after its greeting.
void SendWithoutEnd(bool greet) {
  testing::TestAgent t;
  TcpSocket peer(t->loop()), accepted(t->loop());
  peer.SetLocalPort(0);
  ASSERT_FALSE(peer.Listen());
  const std::string flood(3 * explorer::kMaxExchangeBytes, 'x');
  // Greeted, it floods as its reply to the command; otherwise at once.
  peer.on_connection_request = [&](int64_t id) {
    accepted.Accept(peer, id);
    accepted.SendData(greet ? std::string("|READY|") : flood);
  };
  accepted.on_data_arrival = [&](size_t) {
    accepted.GetData();
    accepted.SendData(flood);
  };
  t.clock.idle_grace_ms = 500;  // the flood crosses the network stack in real time
  const int64_t start = t.clock.NowMs();
  Exchange x = explorer::RunExchange(t->loop(), "127.0.0.1", peer.LocalPort(), "|GETINFO|", 60);
  EXPECT_EQ(x.status, Exchange::kTooLong);
  EXPECT_EQ(x.reply, "");
  EXPECT_EQ(x.error, "more than 1048576 bytes");
  EXPECT_LT(t.clock.NowMs() - start, 60000);
}

TEST(AgentExplorerBound, APeerThatSendsWithoutEndBeforeItsGreetingIsCutOff) { SendWithoutEnd(false); }
TEST(AgentExplorerBound, APeerThatSendsWithoutEndAsItsReplyIsCutOff) { SendWithoutEnd(true); }

TEST(AgentExplorerTimeOut, RefusedConnection) {
  testing::TestAgent t;
  uint16_t port = 0;
  {
    TcpSocket probe(t->loop());
    probe.SetLocalPort(0);
    ASSERT_FALSE(probe.Listen());
    port = probe.LocalPort();
  }
  t.clock.idle_grace_ms = 500;  // the refusal comes from the network stack, in real time
  Exchange x = explorer::RunExchange(t->loop(), "127.0.0.1", port, "|GETINFO|", 15);
  EXPECT_EQ(x.status, Exchange::kConnectFailed);
  EXPECT_NE(x.error, "");
}

}  // namespace
}  // namespace tdacli
