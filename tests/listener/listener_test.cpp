// The listener's socket array over real loopback connections: greeting, ever-growing indexes, the
// newest connection taking over, closes, the counter overflow and the keyword rules.
#include "listener/listener.h"

#include <gtest/gtest.h>

#include "common/logging.h"
#include "listener/console.h"
#include "listener/host_names.h"
#include "listener/listening_port.h"
#include "support/fault_file_system.h"


namespace tdacli {
namespace {

using platform::TcpSocket;
using testing::Console;
using testing::ListeningAgent;
using testing::SettingsFile;

using Listener = ListeningAgent;

std::string Info(const std::string& ext = "1234") {
  return std::string("|GETINFO|<PCName>WKS-0042") + '\0' + ";<NETUsername>jsmith" + '\0' +
         ";<WinName>N/A;<Extension>" + ext +
         ";<TD Server>127.0.0.1;<Notification Method>FileMessage;<Listening Ports>1,0,2,3;<Pop4Ext>false;"
         "<Pop4Win>false;";
}

TEST_F(Listener, GreetsEveryConnectionWithReadyUnderTheNextIndex) {
  auto& l = listener::ListenerOf(*t);
  EXPECT_EQ(l.ListenConnectionIndex, 0);
  Console a(*t), b(*t);
  EXPECT_EQ(a.Connect(Port()), "|READY|");
  EXPECT_EQ(l.ListenConnectionIndex, 1);
  ASSERT_NE(l.Element(1), nullptr);
  EXPECT_EQ(l.ElementState(1), TcpSocket::kConnected);
  EXPECT_EQ(b.Connect(Port()), "|READY|");
  EXPECT_EQ(l.ListenConnectionIndex, 2);
  EXPECT_EQ(l.ElementState(2), TcpSocket::kConnected);
  EXPECT_EQ(l.ElementRemoteHostIP(2), "127.0.0.1");
  // The first connection stays open: the listener never closes a connection on its own.
  EXPECT_EQ(l.ElementState(1), TcpSocket::kConnected);
  EXPECT_TRUE(NewMessages().empty());
}

TEST_F(Listener, AConnectionStaysOpenAfterAReplyAndTakesMoreCommands) {
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  a.Send("|GETINFO|");
  EXPECT_EQ(a.Reply(), Info());
  a.Send("|GETINFO|");
  EXPECT_EQ(a.Reply(), Info());
  EXPECT_FALSE(a.closed());
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{"Trace in TDACLI: Received GETINFO command from Agent Explorer.",
                                                     "Trace in TDACLI: Received GETINFO command from Agent Explorer."}));
}

TEST_F(Listener, SecondClientTakesOverReadsAndReplies) {
  Console a(*t), b(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  ASSERT_EQ(b.Connect(Port()), "|READY|");

  // Data from the first connection makes the listener read the second one, which has nothing.
  a.Send("|GETINFO|");
  EXPECT_EQ(a.Quiet(), "");
  EXPECT_EQ(b.Take(), "");
  EXPECT_TRUE(NewMessages().empty());

  // The second connection is served.
  b.Send("|GETINFO|");
  EXPECT_EQ(b.Reply(), Info());
  EXPECT_EQ(a.Take(), "");
  NewMessages();
}

TEST_F(Listener, DataOfTheFirstConnectionStaysUnreadWhileTheSecondIsRead) {
  Console a(*t), b(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  ASSERT_EQ(b.Connect(Port()), "|READY|");
  const std::string before = testing::ReadFile(ConfigFile());
  b.Send("|GETINFO|");
  a.Send("|SETEXT|9999;");
  t->loop().RunFor(1000);
  // Whichever arrival came first, only the second connection's GETINFO was read and answered.
  EXPECT_EQ(b.Take(), Info());
  EXPECT_EQ(a.Take(), "");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), before);
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{"Trace in TDACLI: Received GETINFO command from Agent Explorer."}));
  // The first element still holds its data: it was never read.
  ASSERT_NE(listener::ListenerOf(*t).Element(1), nullptr);
  EXPECT_EQ(listener::ListenerOf(*t).Element(1)->GetData(), "|SETEXT|9999;");
}

TEST_F(Listener, CloseOfAnOlderConnectionClosesTheNewest) {
  auto& l = listener::ListenerOf(*t);
  const int64_t sockets_before = TcpSocket::OpenSocketCount();
  Console a(*t), b(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  ASSERT_EQ(b.Connect(Port()), "|READY|");
  a.Close();
  t->WaitUntil(5, [&] { return b.closed(); });
  EXPECT_TRUE(b.closed());
  EXPECT_EQ(l.ListenConnectionIndex, 2);  // the counter is never decreased
  EXPECT_EQ(l.ElementState(2), TcpSocket::kClosed);
  EXPECT_TRUE(l.ElementCreated(2));
  EXPECT_EQ(l.ElementRemoteHostIP(2), "127.0.0.1");
  t->loop().RunFor(100);
  // Closed elements keep neither an OS socket nor their socket object.
  EXPECT_EQ(l.Element(2), nullptr);
  EXPECT_EQ(l.Element(1), nullptr);
  b.Close();
  EXPECT_EQ(TcpSocket::OpenSocketCount(), sockets_before);
  EXPECT_TRUE(NewMessages().empty());

  // A new console gets the next index and is served.
  Console c(*t);
  ASSERT_EQ(c.Connect(Port()), "|READY|");
  EXPECT_EQ(l.ListenConnectionIndex, 3);
  c.Send("|GETINFO|");
  EXPECT_EQ(c.Reply(), Info());
}

TEST_F(Listener, ResetOfTheNewestConnectionIsItsClose) {
  auto& l = listener::ListenerOf(*t);
  const int64_t sockets_before = TcpSocket::OpenSocketCount();
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  a.Reset();
  t->WaitUntil(5, [&] { return l.ElementState(1) == TcpSocket::kClosed; });
  EXPECT_EQ(l.ElementState(1), TcpSocket::kClosed);
  EXPECT_TRUE(l.ElementCreated(1));
  t->loop().RunFor(100);
  EXPECT_EQ(l.Element(1), nullptr);
  EXPECT_EQ(TcpSocket::OpenSocketCount(), sockets_before);
  // Nothing is logged for it, as for a close; the listener serves the next console.
  EXPECT_TRUE(NewMessages().empty());
  Console b(*t);
  ASSERT_EQ(b.Connect(Port()), "|READY|");
  EXPECT_EQ(l.ListenConnectionIndex, 2);
  b.Send("|GETINFO|");
  EXPECT_EQ(b.Reply(), Info());
}

TEST_F(Listener, ResetOfAnOlderConnectionClosesTheNewestAsItsCloseDoes) {
  auto& l = listener::ListenerOf(*t);
  Console a(*t), b(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  ASSERT_EQ(b.Connect(Port()), "|READY|");
  a.Reset();
  t->WaitUntil(5, [&] { return b.closed(); });
  EXPECT_TRUE(b.closed());
  EXPECT_EQ(l.ListenConnectionIndex, 2);
  EXPECT_EQ(l.ElementState(2), TcpSocket::kClosed);
  t->loop().RunFor(100);
  EXPECT_EQ(l.Element(1), nullptr);
  EXPECT_EQ(l.Element(2), nullptr);
  EXPECT_TRUE(NewMessages().empty());
}

TEST_F(Listener, DataAfterTheNewestConnectionClosedIsDropped) {
  Console a(*t), b(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  ASSERT_EQ(b.Connect(Port()), "|READY|");
  b.Close();
  t->loop().RunFor(200);
  EXPECT_EQ(listener::ListenerOf(*t).ElementState(2), TcpSocket::kClosed);
  a.Send("|GETINFO|");
  EXPECT_EQ(a.Quiet(), "");
  EXPECT_TRUE(NewMessages().empty());
}

TEST_F(Listener, ClosedConnectionsReleaseTheirSocketsAndObjects) {
  auto& l = listener::ListenerOf(*t);
  const int64_t sockets_before = TcpSocket::OpenSocketCount();
  for (int i = 1; i <= 200; ++i) {
    Console c(*t);
    ASSERT_EQ(c.Connect(Port()), "|READY|");
    c.Close();
    t->WaitUntil(5, [&] { return l.ElementState(static_cast<int16_t>(i)) == TcpSocket::kClosed; });
    t->loop().RunFor(5);
    ASSERT_EQ(l.Element(static_cast<int16_t>(i)), nullptr) << i;
  }
  EXPECT_EQ(l.ListenConnectionIndex, 200);
  EXPECT_EQ(TcpSocket::OpenSocketCount(), sockets_before);
  for (int16_t i = 1; i <= 200; ++i) EXPECT_TRUE(l.ElementCreated(i));
  EXPECT_FALSE(l.ElementCreated(201));
}

TEST_F(Listener, CounterOverflowIsAFaultThenTheCounterStartsAgainAtOne) {
  auto& l = listener::ListenerOf(*t);
  // An old connection under index 1 that is still open: its index is reused after the overflow.
  Console old(*t);
  ASSERT_EQ(old.Connect(Port()), "|READY|");
  ASSERT_EQ(l.ListenConnectionIndex, 1);
  l.ListenConnectionIndex = 32766;
  Console last(*t);
  ASSERT_EQ(last.Connect(Port()), "|READY|");
  EXPECT_EQ(l.ListenConnectionIndex, 32767);
  EXPECT_TRUE(NewMessages().empty());

  // The request at the overflow is taken and closed, never left pending.
  Console refused(*t);
  EXPECT_EQ(refused.Connect(Port()), "");
  t->WaitUntil(5, [&] { return refused.closed(); });
  EXPECT_TRUE(refused.closed());
  EXPECT_EQ(l.ListenConnectionIndex, 0);
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{"Error in TDACLI: wsckListen_ConnectionRequest() Error - 6:Overflow"}));
  ASSERT_FALSE(t.event_log.entries.empty());
  EXPECT_EQ(t.event_log.entries.back(), std::make_pair(1, std::string("wsckListen_ConnectionRequest() Error - 6:Overflow")));
  EXPECT_EQ(testing::Lines(t.ErrorLog()).size(), 1u);
  EXPECT_EQ(l.Listener().State(), TcpSocket::kListening);

  // The next console is served under index 1; the old connection there was closed first.
  Console next(*t);
  ASSERT_EQ(next.Connect(Port()), "|READY|");
  EXPECT_EQ(l.ListenConnectionIndex, 1);
  t->WaitUntil(5, [&] { return old.closed(); });
  EXPECT_TRUE(old.closed());
  next.Send("|GETINFO|");
  EXPECT_EQ(next.Reply(), Info());
  Console after(*t);
  ASSERT_EQ(after.Connect(Port()), "|READY|");
  EXPECT_EQ(l.ListenConnectionIndex, 2);
  after.Send("|GETINFO|");
  EXPECT_EQ(after.Reply(), Info());
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{"Trace in TDACLI: Received GETINFO command from Agent Explorer.",
                                                     "Trace in TDACLI: Received GETINFO command from Agent Explorer."}));
}

TEST_F(Listener, CloseOfAnOldConnectionRightAfterTheOverflowLeavesTheListenerOpen) {
  auto& l = listener::ListenerOf(*t);
  Console old(*t);
  ASSERT_EQ(old.Connect(Port()), "|READY|");
  l.ListenConnectionIndex = 32767;
  Console refused(*t);
  EXPECT_EQ(refused.Connect(Port()), "");
  ASSERT_EQ(l.ListenConnectionIndex, 0);
  old.Close();
  t->loop().RunFor(200);
  EXPECT_EQ(l.Listener().State(), TcpSocket::kListening);
  Console next(*t);
  EXPECT_EQ(next.Connect(Port()), "|READY|");
  EXPECT_EQ(l.ListenConnectionIndex, 1);
}

TEST_F(Listener, MessageWithTwoKeywordsIsHandledAsTheFirstInDispatchOrder) {
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  const std::string before = testing::ReadFile(ConfigFile());
  a.Send("|SETEXT|4711;|GETINFO|");
  EXPECT_EQ(a.Reply(), Info());
  a.Send("|GETINFO||SETEXT|4711;");
  EXPECT_EQ(a.Reply(), Info());
  EXPECT_EQ(testing::ReadFile(ConfigFile()), before);
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{"Trace in TDACLI: Received GETINFO command from Agent Explorer.",
                                                     "Trace in TDACLI: Received GETINFO command from Agent Explorer."}));
  // Single SET keywords come before SETALL.
  a.Send("|SETALL||EXT|1;|SETPOP4WIN|true;");
  EXPECT_EQ(a.Reply(), "|SETPOP4WIN|<Pop4Win>true;");
}

TEST_F(Listener, KeywordsAreCaseSensitiveAndUnknownTextIsDroppedSilently) {
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  a.Send("|getinfo|");
  EXPECT_EQ(a.Quiet(), "");
  a.Send("|GetInfo|");
  EXPECT_EQ(a.Quiet(), "");
  a.Send("hello there");
  EXPECT_EQ(a.Quiet(), "");
  EXPECT_TRUE(NewMessages().empty());
  a.Send("|GETINFO|");
  EXPECT_EQ(a.Reply(), Info());
}

TEST_F(Listener, SetWithoutItsSemicolonEndsSilentlyAndTheListenerServesOn) {
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  const std::string before = testing::ReadFile(ConfigFile());
  a.Send("|SETEXT|4711");
  EXPECT_EQ(a.Quiet(), "");
  // Only the receipt line: the fault itself is not logged.
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{"Trace in TDACLI: Received SETEXT command from Agent Explorer."}));
  EXPECT_EQ(testing::ReadFile(ConfigFile()), before);
  EXPECT_EQ(t->settings.Ext, "1234");
  a.Send("|GETINFO|");
  EXPECT_EQ(a.Reply(), Info());
}

TEST_F(Listener, ReplyToAConsoleThatHasGoneIsLoggedAsAWarning) {
  // The save's rename takes a second on a busy disk, and events run meanwhile: the console's close
  // arrives then and closes the newest element.
  testing::FaultFileSystem files;
  files.before = [&](const std::string& step) {
    if (step.rfind("Rename ", 0) == 0) t->WaitSeconds(1);
  };
  t->file_system = &files;
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  a.Send("|SETEXT|4711;");
  a.Close();
  t->loop().RunFor(3000);
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{
                "Trace in TDACLI: Received SETEXT command from Agent Explorer.",
                "Trace in TDACLI: Wrote Login Settings to config file",
                "Warning in TDACLI: Cannot send response - AgentExplorer (IP = 127.0.0.1) already disconnected!"}));
  EXPECT_EQ(testing::ReadFile(ConfigFile()), SettingsFile("4711"));
  EXPECT_EQ(t.event_log.entries.back(),
            std::make_pair(2, std::string("Cannot send response - AgentExplorer (IP = 127.0.0.1) already disconnected!")));
  t->loop().RunFor(10);
  EXPECT_EQ(listener::ListenerOf(*t).Element(1), nullptr);
}

TEST(ListeningPort, SecondEntryOfTheListWithItsFallbacks) {
  testing::TestAgent t;
  auto port = [&](const char* list) {
    t->settings.ListeningPorts = list;
    return listener::GetListeningPort(*t);
  };
  EXPECT_EQ(port("w,x,y,z"), 5002);
  EXPECT_EQ(port("5001,6000,6001,6002"), 6000);
  EXPECT_EQ(port("7000"), 5002);
  EXPECT_EQ(port("1,0,2,3"), 0);
  EXPECT_EQ(port("1,abc"), 5002);
  EXPECT_EQ(port("1,-5,2,3"), 0);
  EXPECT_EQ(port("1,40000,2,3"), 5002);  // out of the 16-bit range
  EXPECT_EQ(port(""), 5002);
  // Decimal only: other notations are conversion faults and keep the default.
  EXPECT_EQ(port("1,0x1F40,2,3"), 5002);
  EXPECT_EQ(port("1,8e3,2,3"), 5002);
  EXPECT_EQ(port("1, 6000 ,2,3"), 6000);
}

TEST(ListeningPort, StartUpListensOnThePortOfTheSettingsFile) {
  testing::TestAgent t;
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1,0,2,3\r\n");
  LoadConfiguration(*t);
  ASSERT_FALSE(listener::ListenerOf(*t).Listen(static_cast<uint16_t>(listener::GetListeningPort(*t))));
  const uint16_t port = listener::ListenerOf(*t).Listener().LocalPort();
  EXPECT_NE(port, 0);
  Console c(*t);
  EXPECT_EQ(c.Connect(port), "|READY|");
}

TEST(HostNames, KeepTheTerminatingNulAndTrimBlanksOnly) {
  testing::TestAgent t;
  EXPECT_EQ(listener::GetLocalComputerName(*t), std::string("WKS-0042") + '\0');
  EXPECT_EQ(listener::GetNetworkUserName(*t), std::string("jsmith") + '\0');
  t.host.computer_raw = std::string("  PC 7") + '\0' + "   ";
  t.host.user_raw = std::string(" ann") + '\0';
  EXPECT_EQ(listener::GetLocalComputerName(*t), std::string("PC 7") + '\0');
  EXPECT_EQ(listener::GetNetworkUserName(*t), std::string("ann") + '\0');
  t.host.computer_raw.clear();  // the call failed
  t.host.user_raw.clear();
  EXPECT_EQ(listener::GetLocalComputerName(*t), "");
  EXPECT_EQ(listener::GetNetworkUserName(*t), "");
}

}  // namespace
}  // namespace tdacli
