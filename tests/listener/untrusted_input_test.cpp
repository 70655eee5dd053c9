// The listener against hostile or broken peers: connection bursts, peers that leave, the descriptor
// limit, replies nobody reads, long transfers, a busy port for SETLISTEN, and values that would plant
// lines in the settings file.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "common/logging.h"
#include "listener/console.h"
#include "listener/listener.h"
#include "platform/socket_api.h"

#ifndef _WIN32
#include <dirent.h>
#include <sys/resource.h>
#endif

namespace tdacli {
namespace {

using platform::TcpSocket;
using testing::Console;
using testing::SettingsFile;
using Hostile = testing::ListeningAgent;

// Under Wine every socket call is a round trip to the Wine server: smaller counts there.
#ifdef _WIN32
constexpr int kBurst = 300;
constexpr int kLeavingPeers = 60;
#else
constexpr int kBurst = 1000;
constexpr int kLeavingPeers = 150;
#endif

// A client socket on the agent's loop that counts what it receives and never reads unless told to.
struct RawClient {
  explicit RawClient(Agent& agent, bool reads = true) : socket(agent.loop()) {
    socket.on_data_arrival = [this, reads](size_t) {
      if (reads) received += socket.GetData();
    };
    socket.on_close = [this] { closed = true; };
    socket.on_error = [this](int, const std::string&) { closed = true; };
  }
  void Connect(uint16_t port) {
    socket.SetRemoteHost("127.0.0.1");
    socket.SetRemotePort(port);
    EXPECT_FALSE(socket.Connect());
  }
  TcpSocket socket;
  std::string received;
  bool closed = false;
};

TEST_F(Hostile, BurstOfConnectsIsAcceptedWithoutNestingHandlers) {
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < kBurst; ++i) {
    clients.push_back(std::make_unique<RawClient>(*t));
    clients.back()->Connect(Port());
  }
  auto greeted = [&] {
    for (auto& c : clients)
      if (c->received != "|READY|") return false;
    return true;
  };
  ASSERT_TRUE(t->WaitUntil(120, greeted));
  EXPECT_EQ(listener::ListenerOf(*t).ListenConnectionIndex, kBurst);
  // The wait (1), the connection-request handler's yield (2): never deeper, whatever the burst.
  EXPECT_LE(t->loop().max_run_depth(), 3);
  EXPECT_TRUE(NewMessages().empty());
  // The newest connection is served.
  clients.back()->received.clear();
  EXPECT_FALSE(clients.back()->socket.SendData("|GETINFO|"));
  ASSERT_TRUE(t->WaitUntil(10, [&] { return !clients.back()->received.empty(); }));
  EXPECT_EQ(clients.back()->received.substr(0, 17), "|GETINFO|<PCName>");
}

TEST_F(Hostile, OlderPeersThatSendAndLeaveReleaseTheirSockets) {
  auto& l = listener::ListenerOf(*t);
  const int64_t before = TcpSocket::OpenSocketCount();
  for (int i = 0; i < kLeavingPeers; ++i) {
    // A peer connects, a newer one arrives, the first sends something and goes without a word.
    Console older(*t), newest(*t);
    ASSERT_EQ(older.Connect(Port()), "|READY|");
    ASSERT_EQ(newest.Connect(Port()), "|READY|");
    older.Send("|SETEXT|99;junk");
    t->loop().RunFor(5);
    older.Close();
    // Its close closes the newest element, as a close event always does.
    ASSERT_TRUE(t->WaitUntil(5, [&] { return newest.closed(); })) << i;
  }
  ASSERT_TRUE(t->WaitUntil(5, [&] { return TcpSocket::OpenSocketCount() == before; }))
      << TcpSocket::OpenSocketCount() << " sockets, " << before << " before";
  EXPECT_EQ(l.ListenConnectionIndex, 2 * kLeavingPeers);
  EXPECT_EQ(testing::ReadFile(ConfigFile()), SettingsFile());  // nothing of the older peers was read
}

TEST_F(Hostile, AnOlderConnectionKeepsItsFirstArrivalUnreadAndStillReportsItsClose) {
  auto& l = listener::ListenerOf(*t);
  Console a(*t), b(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  ASSERT_EQ(b.Connect(Port()), "|READY|");
  a.Send("|SETEXT|1;");
  t->loop().RunFor(200);
  a.Send(std::string(200000, 'z'));  // drained and dropped: nobody will ever read it
  t->loop().RunFor(500);
  ASSERT_NE(l.Element(1), nullptr);
  EXPECT_TRUE(l.Element(1)->DrainUnread());
  const std::string held = l.Element(1)->GetData();
  EXPECT_EQ(held.size(), 10u);
  EXPECT_TRUE(held == "|SETEXT|1;") << held.substr(0, 40);
  a.Close();
  ASSERT_TRUE(t->WaitUntil(5, [&] { return b.closed(); }));
  t->loop().RunFor(50);
  EXPECT_EQ(l.Element(1), nullptr);
  EXPECT_EQ(l.Element(2), nullptr);
}

TEST_F(Hostile, RepliesThatAreNeverTakenCloseTheConnectionAtOneMebibyte) {
  // Big settings make big GETINFO replies; the console sends commands and never reads.
  const std::string big(60000, 'e');
  testing::WriteFile(ConfigFile(), SettingsFile(big, std::string(60000, 's')));
  RawClient c(*t, /*reads=*/false);
  c.Connect(Port());
  ASSERT_TRUE(t->WaitUntil(10, [&] { return c.socket.State() == TcpSocket::kConnected; }));
  t->loop().RunFor(50);
  std::string blob;
  for (int i = 0; i < 2000000; ++i) blob += "|GETINFO|";  // 18 MB: one command per 64 KiB arrival
  EXPECT_FALSE(c.socket.SendData(blob));
  auto* element = listener::ListenerOf(*t).Element(1);
  ASSERT_NE(element, nullptr);
  size_t most = 0;
  ASSERT_TRUE(t->WaitUntil(120, [&] {
    auto* e = listener::ListenerOf(*t).Element(1);
    if (e) most = std::max(most, e->PendingSendBytes());
    return listener::ListenerOf(*t).ElementState(1) != TcpSocket::kConnected;
  }));
  EXPECT_LE(most, listener::CommandListener::kMaxUnsentReply);
  std::vector<std::string> warnings;
  for (const auto& m : NewMessages())
    if (m.rfind("Warning", 0) == 0) warnings.push_back(m);
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_EQ(warnings[0],
            "Warning in TDACLI: Closing connection to AgentExplorer (IP = 127.0.0.1): more than 1048576 bytes of "
            "replies were not taken.");
  EXPECT_EQ(listener::ListenerOf(*t).Listener().State(), TcpSocket::kListening);
}

TEST_F(Hostile, AnArrivalIsAtMostSixtyFourKibibytesSoALateSemicolonFaults) {
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  a.Send("|SETEXT|" + std::string(300000, '7') + ";");
  EXPECT_EQ(a.Quiet(2), "");
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{"Trace in TDACLI: Received SETEXT command from Agent Explorer."}));
  EXPECT_EQ(testing::ReadFile(ConfigFile()), SettingsFile());
  a.Send("|GETINFO|");
  EXPECT_EQ(a.Reply().substr(0, 17), "|GETINFO|<PCName>");
}

TEST_F(Hostile, SetListenToABusyPortKeepsTheListenerOnItsPort) {
  auto& l = listener::ListenerOf(*t);
  const uint16_t old_port = Port();
  TcpSocket occupier(t->loop());
  uint16_t busy = 0;
  for (uint16_t p = 21000 + static_cast<uint16_t>(old_port % 7000); p < 32000 && !busy; p += 11) {
    occupier.SetLocalPort(p);
    if (!occupier.Listen()) busy = p;
  }
  ASSERT_NE(busy, 0);
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  const std::string ports = "1," + std::to_string(busy) + ",2,3";
  a.Send("|SETLISTEN|" + ports + ";");
  // The save has failed: the reply shows the value in force, the old one.
  EXPECT_EQ(a.Reply(), "|SETLISTEN|<Listening Ports>1,0,2,3;");
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{
                "Trace in TDACLI: Received SETLISTEN command (|SETLISTEN|" + ports + ";)from Agent Explorer.",
                "Trace in TDACLI: Wrote Login Settings to config file",
                "Error in TDACLI: Error saving settings: Address already in use (Port: " + std::to_string(busy) + ")"}));
  EXPECT_EQ(l.Listener().State(), TcpSocket::kListening);
  EXPECT_EQ(l.Listener().LocalPort(), old_port);
  // The saved list stays in the file, for the next start.
  EXPECT_EQ(testing::ReadFile(ConfigFile()), SettingsFile("1234", "127.0.0.1", "FileMessage", ports));
  EXPECT_TRUE(t.service_control.sent.empty());
  Console b(*t);
  EXPECT_EQ(b.Connect(old_port), "|READY|");
}

TEST_F(Hostile, LineBreaksInSetValuesAreCutWithAWarning) {
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  a.Send("|SETEXT|12\r\nCurrentUser=evil;");
  EXPECT_EQ(a.Reply(), "|SETEXT|<Extension>12;");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), SettingsFile("12"));
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{"Trace in TDACLI: Received SETEXT command from Agent Explorer.",
                                      "Warning in TDACLI: The value of (Ext) held a line break and was cut at it.",
                                      "Trace in TDACLI: Wrote Login Settings to config file"}));
  a.Send("|SETALL||EXT|7\n[Config];|SERVER|10.0.0.9\rUseTrace=True;");
  EXPECT_EQ(a.Reply(), "|SETALL|<Extension>7;|SETSERVER|<TD Server>10.0.0.9;");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), SettingsFile("7", "10.0.0.9"));
  a.Send("|SETPOP4WIN|x\ry;");
  EXPECT_EQ(a.Reply(), "|SETPOP4WIN|<Pop4Win>x;");
  EXPECT_EQ(testing::Lines(ConfigFile()).size(), 13u);
}

TEST_F(Hostile, NulInSetValuesIsCutLikeALineBreak) {
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  a.Send(std::string("|SETSERVER|10.0.0.1\0evil;", 25));
  EXPECT_EQ(a.Reply(), "|SETSERVER|<TD Server>10.0.0.1;");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), SettingsFile("1234", "10.0.0.1"));
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{"Trace in TDACLI: Received SETSERVER command from Agent Explorer.",
                                      "Warning in TDACLI: The value of (Server) held a line break and was cut at it.",
                                      "Trace in TDACLI: Wrote Login Settings to config file"}));
  // One Warning for a value that holds a NUL and line breaks behind it: the cut is at the first.
  a.Send(std::string("|SETALL||EXT|77\0\r\n[Config];|SERVER|10.0.0.2\r\0x;", 47));
  EXPECT_EQ(a.Reply(), "|SETALL|<Extension>77;|SETSERVER|<TD Server>10.0.0.2;");
  EXPECT_EQ(testing::ReadFile(ConfigFile()), SettingsFile("77", "10.0.0.2"));
  const auto messages = NewMessages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(),
                       "Warning in TDACLI: The value of (Ext) held a line break and was cut at it."),
            1);
  EXPECT_EQ(std::count(messages.begin(), messages.end(),
                       "Warning in TDACLI: The value of (Server) held a line break and was cut at it."),
            1);
  // A value that is nothing but a NUL is cut to nothing and saved so: the file keeps its 13 lines.
  a.Send(std::string("|SETPOP4EXT|\0;", 14));
  EXPECT_EQ(a.Reply(), "|SETPOP4EXT|<Pop4Ext>;");
  EXPECT_EQ(testing::Lines(ConfigFile()).size(), 13u);
  EXPECT_EQ(testing::ReadFile(ConfigFile()).find('\0'), std::string::npos);
}

TEST_F(Hostile, ASaveThatCannotReplaceTheFileAnswersWithTheOldValue) {
  std::filesystem::remove(ConfigFile());
  std::filesystem::create_directory(ConfigFile());
  Console a(*t);
  ASSERT_EQ(a.Connect(Port()), "|READY|");
  a.Send("|SETEXT|4711;");
  EXPECT_EQ(a.Reply(), "|SETEXT|<Extension>1234;");
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{"Trace in TDACLI: Received SETEXT command from Agent Explorer.",
                                                     "Error in TDACLI: Error saving settings: Path/File access error"}));
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
  EXPECT_TRUE(std::filesystem::is_directory(ConfigFile()));
}

#ifndef _WIN32
int OpenDescriptors() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/fd")) {
    while (readdir(d)) ++n;
    closedir(d);
  }
  return n - 3;  // ".", ".." and the listing's own descriptor
}

TEST_F(Hostile, AtTheDescriptorLimitTheListenerRestsBetweenFailedAccepts) {
  // One whole exchange before the limit: the sanitizer build checks each object's type on first use
  // and needs descriptors of its own for that, which it would not get at the limit.
  {
    Console warm(*t);
    ASSERT_EQ(warm.Connect(Port()), "|READY|");
    warm.Send("|GETINFO|");
    EXPECT_EQ(warm.Reply().substr(0, 17), "|GETINFO|<PCName>");
    warm.Close();
    t->loop().RunFor(100);
    LogMessage(*t, "wsckListen_ConnectionRequest() Error - 10024:Too many open files", "Error");
    NewMessages();
  }
  // Two connections wait in the backlog while the process has no descriptor left to accept them.
  int error = 0;
  std::vector<platform::SocketHandle> peers;
  for (int i = 0; i < 2; ++i) {
    peers.push_back(platform::sockapi::CreateTcp(&error));
    platform::sockapi::ConnectStart(peers.back(), "127.0.0.1", Port());
  }
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  rlimit tight = old;
  tight.rlim_cur = static_cast<rlim_t>(OpenDescriptors() + 3);  // room for poll's own needs only
  // Use up what is left so that accept fails with "too many open files".
  std::vector<platform::SocketHandle> fillers;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  for (;;) {
    platform::SocketHandle h = platform::sockapi::CreateTcp(&error);
    if (h == platform::kInvalidSocket) break;
    fillers.push_back(h);
  }
  const uint64_t polls_before = t->loop().poll_calls();
  const int64_t start = t.clock.NowMs();
  t->loop().RunFor(10'000);
  const uint64_t polls = t->loop().poll_calls() - polls_before;
  for (auto h : fillers) platform::sockapi::CloseSocket(h);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);

  auto msgs = NewMessages();
  // One line per failed accept, one accept a second: 10 or 11 over ten seconds, never a flood.
  ASSERT_GE(msgs.size(), 10u);
  ASSERT_LE(msgs.size(), 11u);
  for (const auto& m : msgs) EXPECT_EQ(m, "Error in TDACLI: wsckListen_ConnectionRequest() Error - 10024:Too many open files");
  EXPECT_LT(polls, 200u) << "the loop spun";
  EXPECT_GE(t.clock.NowMs() - start, 10'000);

  // Descriptors are free again: accepting resumes within the back-off, both peers are greeted.
  ASSERT_TRUE(t->WaitUntil(5, [&] { return listener::ListenerOf(*t).ListenConnectionIndex == 3; }));
  char buf[16] = {};
  for (auto h : peers) {
    long n = -1;
    t->WaitUntil(5, [&] {
      n = platform::sockapi::Recv(h, buf, sizeof buf, false, &error);
      return n > 0;
    });
    EXPECT_EQ(std::string(buf, static_cast<size_t>(std::max(0L, n))), "|READY|");
    platform::sockapi::CloseSocket(h);
  }
}
#endif

}  // namespace
}  // namespace tdacli
