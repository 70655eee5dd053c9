// The optional list of allowed consoles: its parser, and the listener turning away peers that are not
// listed, with real loopback connections from two addresses (127.0.0.1 and 127.0.0.2).
#include "listener/allowed_consoles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "listener/console.h"
#include "platform/socket_api.h"
#include "service/lifecycle.h"

namespace tdacli {
namespace {

using listener::AllowedConsoles;
using listener::ConsoleBlock;
using listener::ParseAllowedConsoles;
using listener::ParseConsoleAddress;
using listener::ParseConsoleEntry;
using platform::SocketHandle;
using testing::ListeningAgent;
namespace sockapi = platform::sockapi;

TEST(AllowedConsolesParser, AddressesAndBlocks) {
  EXPECT_EQ(ParseConsoleAddress("127.0.0.2"), 0x7F000002u);
  EXPECT_EQ(ParseConsoleAddress("255.255.255.255"), 0xFFFFFFFFu);
  EXPECT_EQ(ParseConsoleAddress("0.0.0.0"), 0u);
  for (const char* bad : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.", ".1.2.3", "01.2.3.4", "1.2.3.4 ", "a.b.c.d",
                          "1..2.3", "1.2.3.1000", "-1.2.3.4", "1.2.3.4/"})
    EXPECT_FALSE(ParseConsoleAddress(bad)) << bad;

  EXPECT_EQ(ParseConsoleEntry("10.1.2.3"), (ConsoleBlock{0x0A010203u, 0xFFFFFFFFu}));
  EXPECT_EQ(ParseConsoleEntry("10.1.2.3/8"), (ConsoleBlock{0x0A000000u, 0xFF000000u}));
  EXPECT_EQ(ParseConsoleEntry("192.168.4.0/22"), (ConsoleBlock{0xC0A80400u, 0xFFFFFC00u}));
  EXPECT_EQ(ParseConsoleEntry("1.2.3.4/0"), (ConsoleBlock{0u, 0u}));
  for (const char* bad : {"1.2.3.4/33", "1.2.3.4/", "1.2.3.4/08", "1.2.3.4/1/2", "1.2.3.4/x", "/8"})
    EXPECT_FALSE(ParseConsoleEntry(bad)) << bad;
}

TEST(AllowedConsolesParser, CommentsBlankLinesAndMalformedLines) {
  const auto list = ParseAllowedConsoles(
      "# consoles of the supervisors\r\n"
      "\r\n"
      "  127.0.0.2   # desk 1\r\n"
      "10.20.0.0/16\n"
      "10.0.0.300\r\n"
      "\t\r\n"
      "host.example\r\n"
      "192.168.1.1");
  EXPECT_EQ(list.blocks, (std::vector<ConsoleBlock>{{0x7F000002u, 0xFFFFFFFFu}, {0x0A140000u, 0xFFFF0000u},
                                                     {0xC0A80101u, 0xFFFFFFFFu}}));
  ASSERT_EQ(list.malformed.size(), 2u);
  EXPECT_EQ(list.malformed[0].number, 5u);
  EXPECT_EQ(list.malformed[0].text, "10.0.0.300");
  EXPECT_EQ(list.malformed[1].number, 7u);
  EXPECT_EQ(list.malformed[1].text, "host.example");
  EXPECT_TRUE(listener::ConsoleAllowed(list.blocks, 0x0A14FFFEu));
  EXPECT_FALSE(listener::ConsoleAllowed(list.blocks, 0x0A150001u));
}

TEST(AllowedConsolesParser, LoggedLinesCarryNoControlCharactersAndAreBounded) {
  EXPECT_EQ(listener::QuoteConsoleLine(std::string("a\0b\x1b", 4)), "a?b?");
  EXPECT_EQ(listener::QuoteConsoleLine(std::string(200, 'x')), std::string(80, 'x') + "...");
}

// A console that connects from a chosen loopback address, on the agent's loop. Only the platform's
// raw calls can choose the source address.
class RawConsole {
 public:
  RawConsole(Agent& agent, const std::string& from) : agent_(agent) {
    int error = 0;
    h_ = sockapi::CreateTcp(&error);
    EXPECT_NE(h_, platform::kInvalidSocket) << error;
    EXPECT_EQ(sockapi::BindTo(h_, from, 0), 0) << "cannot bind " << from;
  }
  ~RawConsole() {
    if (h_ != platform::kInvalidSocket) sockapi::CloseSocket(h_);
  }
  RawConsole(const RawConsole&) = delete;
  RawConsole& operator=(const RawConsole&) = delete;

  // Connects and waits until the agent greets or closes the connection; returns what arrived, or
  // "<closed>".
  std::string Connect(uint16_t port) {
    const int rc = sockapi::ConnectStart(h_, "127.0.0.1", port);
    EXPECT_TRUE(rc == 0 || rc == sockapi::kInProgress || rc == sockapi::kWouldBlock) << rc;
    std::string got;
    bool closed = false;
    agent_.WaitUntil(10, [&] {
      char buf[64];
      int error = 0;
      const long n = sockapi::Recv(h_, buf, sizeof buf, false, &error);
      if (n > 0) got.append(buf, static_cast<size_t>(n));
      else if (n == 0 || (error != sockapi::kWouldBlock && error != sockapi::kInProgress && error != 0)) closed = true;
      return closed || got.size() >= 7;
    });
    return closed && got.empty() ? "<closed>" : got;
  }

 private:
  Agent& agent_;
  SocketHandle h_ = platform::kInvalidSocket;
};

class AllowedConsolesListener : public ListeningAgent {
 protected:
  std::string ListFile() const { return t.dir.File(listener::kAllowedConsolesFile); }
  void WriteList(const std::string& text) {
    testing::WriteFile(ListFile(), text);
  }
  // Lets more than one tick of the request-file timer pass on the simulated clock.
  void NextTick() { t->loop().RunFor(1100); }
};

TEST_F(AllowedConsolesListener, WithoutTheFileEveryConsoleIsServed) {
  listener::ListenerOf(*t).allowed_consoles().Load(*t);
  RawConsole a(*t, "127.0.0.1"), b(*t, "127.0.0.2");
  EXPECT_EQ(a.Connect(Port()), "|READY|");
  EXPECT_EQ(b.Connect(Port()), "|READY|");
  EXPECT_EQ(listener::ListenerOf(*t).ListenConnectionIndex, 2);
  EXPECT_TRUE(NewMessages().empty());
}

TEST_F(AllowedConsolesListener, AListedPeerIsServedAndAnOtherIsClosedBeforeTheGreeting) {
  WriteList("127.0.0.2\r\n");
  listener::ListenerOf(*t).allowed_consoles().Load(*t);
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{
                               "Trace in TDACLI: Read TDACLI-AllowedConsoles.TXT: 1 entries, other consoles are refused."}));

  RawConsole listed(*t, "127.0.0.2");
  EXPECT_EQ(listed.Connect(Port()), "|READY|");
  EXPECT_EQ(listener::ListenerOf(*t).ListenConnectionIndex, 1);

  RawConsole other(*t, "127.0.0.1");
  EXPECT_EQ(other.Connect(Port()), "<closed>");
  // No element was created for the refused peer: the listed console is still the one served.
  EXPECT_EQ(listener::ListenerOf(*t).ListenConnectionIndex, 1);
  EXPECT_EQ(listener::ListenerOf(*t).ElementState(1), platform::TcpSocket::kConnected);
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{
                "Warning in TDACLI: Refused connection from 127.0.0.1: the address is not listed in "
                "TDACLI-AllowedConsoles.TXT"}));
  // Refusals go to the event log as warnings, like every warning.
  ASSERT_FALSE(t.event_log.entries.empty());
  EXPECT_EQ(t.event_log.entries.back().first, 2);
}

TEST_F(AllowedConsolesListener, AtMostOneWarningPerAddressPerHour) {
  WriteList("127.0.0.2/32\r\n");
  listener::ListenerOf(*t).allowed_consoles().Load(*t);
  NewMessages();
  const std::string warning =
      "Warning in TDACLI: Refused connection from 127.0.0.1: the address is not listed in TDACLI-AllowedConsoles.TXT";
  for (int i = 0; i < 3; ++i) {
    RawConsole other(*t, "127.0.0.1");
    EXPECT_EQ(other.Connect(Port()), "<closed>");
    NextTick();
  }
  EXPECT_EQ(NewMessages(), std::vector<std::string>{warning});

  t->loop().RunFor(60LL * 60 * 1000 - 5000);  // just under an hour after the first warning
  {
    RawConsole other(*t, "127.0.0.1");
    EXPECT_EQ(other.Connect(Port()), "<closed>");
  }
  EXPECT_TRUE(NewMessages().empty());
  t->loop().RunFor(5000);
  {
    RawConsole other(*t, "127.0.0.1");
    EXPECT_EQ(other.Connect(Port()), "<closed>");
  }
  EXPECT_EQ(NewMessages(), std::vector<std::string>{warning});
  EXPECT_EQ(listener::ListenerOf(*t).ListenConnectionIndex, 0);
}

TEST_F(AllowedConsolesListener, AMalformedLineIsSkippedWithOneWarningNamingIt) {
  WriteList("# supervisors\r\n127.0.0.2\r\n127.0.0.300\r\n");
  listener::ListenerOf(*t).allowed_consoles().Load(*t);
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{
                "Warning in TDACLI: Skipped malformed line 3 of TDACLI-AllowedConsoles.TXT: [127.0.0.300]",
                "Trace in TDACLI: Read TDACLI-AllowedConsoles.TXT: 1 entries, other consoles are refused."}));
  // The file has not changed: reading it again names nothing again.
  NextTick();
  listener::ListenerOf(*t).allowed_consoles().Load(*t);
  RawConsole listed(*t, "127.0.0.2");
  EXPECT_EQ(listed.Connect(Port()), "|READY|");
  EXPECT_TRUE(NewMessages().empty());
}

TEST_F(AllowedConsolesListener, AFileOfOnlyMalformedLinesHasNoEntryAndEveryoneIsServed) {
  WriteList("localhost\r\n");
  listener::ListenerOf(*t).allowed_consoles().Load(*t);
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{
                "Warning in TDACLI: Skipped malformed line 1 of TDACLI-AllowedConsoles.TXT: [localhost]",
                "Trace in TDACLI: Read TDACLI-AllowedConsoles.TXT: 0 entries, every console is served."}));
  RawConsole a(*t, "127.0.0.1");
  EXPECT_EQ(a.Connect(Port()), "|READY|");
}

TEST_F(AllowedConsolesListener, AFileChangedWhileRunningIsReadAgainAtTheNextTick) {
  WriteList("127.0.0.2\r\n");
  listener::ListenerOf(*t).allowed_consoles().Load(*t);
  NextTick();
  {
    RawConsole other(*t, "127.0.0.1");
    EXPECT_EQ(other.Connect(Port()), "<closed>");
  }
  // Changed within the same tick: not looked at yet.
  WriteList("127.0.0.1\r\n");
  {
    RawConsole other(*t, "127.0.0.1");
    EXPECT_EQ(other.Connect(Port()), "<closed>");
  }
  NewMessages();
  NextTick();
  {
    RawConsole now_listed(*t, "127.0.0.1");
    EXPECT_EQ(now_listed.Connect(Port()), "|READY|");
    RawConsole no_longer(*t, "127.0.0.2");
    EXPECT_EQ(no_longer.Connect(Port()), "<closed>");
  }
  EXPECT_EQ(NewMessages(),
            (std::vector<std::string>{
                "Trace in TDACLI: Read TDACLI-AllowedConsoles.TXT: 1 entries, other consoles are refused.",
                "Warning in TDACLI: Refused connection from 127.0.0.2: the address is not listed in "
                "TDACLI-AllowedConsoles.TXT"}));

  // Removed: every console is served again.
  testing::WriteFile(ListFile(), "");
  std::filesystem::remove(ListFile());
  NextTick();
  RawConsole again(*t, "127.0.0.2");
  EXPECT_EQ(again.Connect(Port()), "|READY|");
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{
                               "Trace in TDACLI: TDACLI-AllowedConsoles.TXT has been removed: every console is served."}));
}

TEST_F(AllowedConsolesListener, OnlyTheFirst64KiBAreReadAndFewMalformedLinesAreNamed) {
  std::string big;
  for (int i = 0; i < 20; ++i) big += "bad" + std::to_string(i) + "\r\n";
  big += "127.0.0.2\r\n";
  while (big.size() < listener::kAllowedConsolesMaxBytes + 100) big += "# padding padding padding padding\r\n";
  big += "127.0.0.1\r\n";  // beyond the bound: never an entry
  WriteList(big);
  listener::ListenerOf(*t).allowed_consoles().Load(*t);
  const auto msgs = NewMessages();
  ASSERT_EQ(msgs.size(), 1u + 10u + 1u + 1u);
  EXPECT_EQ(msgs[0], "Warning in TDACLI: TDACLI-AllowedConsoles.TXT is larger than 65536 bytes: the rest of it is ignored.");
  EXPECT_EQ(msgs[1], "Warning in TDACLI: Skipped malformed line 1 of TDACLI-AllowedConsoles.TXT: [bad0]");
  EXPECT_EQ(msgs[10], "Warning in TDACLI: Skipped malformed line 10 of TDACLI-AllowedConsoles.TXT: [bad9]");
  EXPECT_EQ(msgs[11], "Warning in TDACLI: Skipped 10 more malformed lines of TDACLI-AllowedConsoles.TXT");
  EXPECT_EQ(listener::ListenerOf(*t).allowed_consoles().Blocks(), (std::vector<ConsoleBlock>{{0x7F000002u, 0xFFFFFFFFu}}));
}

TEST(AllowedConsolesStartup, TheFileIsReadByTheStartUpWork) {
  testing::TestAgent t;
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), "ListeningPorts=1,0,2,3\r\n");
  testing::WriteFile(t.dir.File(listener::kAllowedConsolesFile), "127.0.0.2\r\nnonsense\r\n");
  LoadTimer_Timer(*t);
  const auto msgs = t.Messages();
  auto has = [&](const std::string& m) { return std::find(msgs.begin(), msgs.end(), m) != msgs.end(); };
  EXPECT_TRUE(has("Warning in TDACLI: Skipped malformed line 2 of TDACLI-AllowedConsoles.TXT: [nonsense]"));
  EXPECT_TRUE(has("Trace in TDACLI: Read TDACLI-AllowedConsoles.TXT: 1 entries, other consoles are refused."));
  EXPECT_TRUE(listener::ListenerOf(*t).allowed_consoles().Active());
}

}  // namespace
}  // namespace tdacli
