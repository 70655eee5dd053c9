// The login, trace-file and send-frames commands: over real loopback connections for the replies and
// the sharing of the listener between connections, and through the dispatcher directly where the
// bytes of a chopped transmission must arrive in exact pieces.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "common/text.h"
#include "listener/command_replies.h"
#include "listener/console.h"
#include "listener/dispatch.h"
#include "listener/listener.h"
#include "listener/send_frames_command.h"
#include "service/control.h"

namespace tdacli {
namespace {

using testing::Console;
using testing::ListeningAgent;

std::string Tr(const std::string& m) { return "Trace in TDACLI: " + m; }
std::string Err(const std::string& m) { return "Error in TDACLI: " + m; }
const std::string kChopped = Tr("Chopped protocol saving data until all is received!");

// The framed job cut into `n` pieces; the first piece holds the whole "|SENDFRAMES|" keyword, as a
// transmission's first piece must.
std::vector<std::string> Chop(const std::string& framed, size_t n) {
  const size_t first = framed.find("|SENDFRAMES|") + 12;
  std::vector<std::string> pieces;
  if (n == 1) return {framed};
  const size_t rest = framed.size() - first;
  size_t at = 0;
  for (size_t i = 0; i < n; ++i) {
    const size_t end = first + rest * i / (n - 1);
    pieces.push_back(framed.substr(at, end - at));
    at = end;
  }
  return pieces;
}

class ConsoleCommands : public ListeningAgent {
 protected:
  size_t Count(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
  }
  // Waits until the trace holds `line` `times` times in all.
  bool WaitForLine(const std::string& line, size_t times = 1, double seconds = 10) {
    return t->WaitUntil(seconds, [&] { return Count(t.Messages(), line) >= times; });
  }
};

// --- SENDFRAMES

const std::string kJob = "|SENDFRAMES|10.1.2.3@5020@JOB42@20261114230000@20261114231500";

TEST_F(ConsoleCommands, SendFramesWithoutTagsIsWrappedAndHandledAtOnce) {
  Console server(*t);
  ASSERT_EQ(server.Connect(Port()), "|READY|");
  server.Send(kJob);
  EXPECT_EQ(server.Reply(), "|OKAY|");
  const std::string framed = "[BEGIN_PROTOCOL]" + kJob + "[END_PROTOCOL]";
  const std::string file = t->AppPath("SendFrames-JOB42.TSF");
  EXPECT_EQ(testing::ReadFile(file), kJob + "\r\n");
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{
                               Tr("Received SENDFRAMES command without protocol tags, they were added!"),
                               Tr("Received SENDFRAMES command from Server (IP = 127.0.0.1), [DATA=" + framed + "]"),
                               Tr("Have all data, calling SendFrames Routine() for [DATA=" + kJob + "]"),
                               Tr("Made 'Send Frames' File (" + file + ") with values (" + kJob + ")"),
                               Tr("Done with SENDFRAMES command, Sent |OKAY| to Server"),
                           }));
}

class ChoppedSendFrames : public ConsoleCommands, public ::testing::WithParamInterface<size_t> {};

TEST_P(ChoppedSendFrames, PiecesAreCollectedUntilBothTagsHaveArrived) {
  const size_t n = GetParam();
  const std::string framed = "[BEGIN_PROTOCOL]" + kJob + "[END_PROTOCOL]";
  const auto pieces = Chop(framed, n);
  ASSERT_EQ(pieces.size(), n);
  Console server(*t);
  ASSERT_EQ(server.Connect(Port()), "|READY|");
  std::vector<std::string> expected;
  for (size_t i = 0; i < n; ++i) {
    server.Send(pieces[i]);
    expected.push_back(Tr("Received SENDFRAMES command from Server (IP = 127.0.0.1), [DATA=" + pieces[i] + "]"));
    if (i + 1 < n) {
      // Each piece is one reception: the next is sent once this one is in.
      ASSERT_TRUE(WaitForLine(kChopped, i + 1)) << "piece " << i;
      expected.push_back(kChopped);
      EXPECT_EQ(server.Take(), "") << "no reply before the last piece";
    }
  }
  EXPECT_EQ(server.Reply(), "|OKAY|");
  expected.push_back(Tr("Have all data, calling SendFrames Routine() for [DATA=" + kJob + "]"));
  const std::string file = t->AppPath("SendFrames-JOB42.TSF");
  expected.push_back(Tr("Made 'Send Frames' File (" + file + ") with values (" + kJob + ")"));
  expected.push_back(Tr("Done with SENDFRAMES command, Sent |OKAY| to Server"));
  EXPECT_EQ(NewMessages(), expected);
  EXPECT_EQ(testing::ReadFile(file), kJob + "\r\n");
  EXPECT_EQ(listener::ListenerOf(*t).PendingProtocolData, "");
}

INSTANTIATE_TEST_SUITE_P(Pieces, ChoppedSendFrames, ::testing::Values(1, 2, 3, 50));

TEST_F(ConsoleCommands, ChoppedJobInterleavedWithGetInfoOnAnotherConnection) {
  const std::string framed = "[BEGIN_PROTOCOL]" + kJob + "[END_PROTOCOL]";
  const auto pieces = Chop(framed, 3);
  Console server(*t);
  ASSERT_EQ(server.Connect(Port()), "|READY|");
  server.Send(pieces[0]);
  ASSERT_TRUE(WaitForLine(kChopped, 1));
  server.Close();
  ASSERT_TRUE(t->WaitUntil(5, [&] { return listener::ListenerOf(*t).ElementState(1) != platform::TcpSocket::kConnected; }));

  // A console asks for the settings meanwhile; the pending job is not touched.
  Console console(*t);
  ASSERT_EQ(console.Connect(Port()), "|READY|");
  console.Send("|GETINFO|");
  EXPECT_TRUE(StartsWith(console.Reply(), "|GETINFO|<PCName>"));
  EXPECT_EQ(listener::ListenerOf(*t).PendingProtocolData, pieces[0]);
  console.Close();
  ASSERT_TRUE(t->WaitUntil(5, [&] { return listener::ListenerOf(*t).ElementState(2) != platform::TcpSocket::kConnected; }));

  // The server comes back on a new connection with the rest.
  Console again(*t);
  ASSERT_EQ(again.Connect(Port()), "|READY|");
  again.Send(pieces[1]);
  ASSERT_TRUE(WaitForLine(kChopped, 2));
  again.Send(pieces[2]);
  EXPECT_EQ(again.Reply(), "|OKAY|");
  EXPECT_EQ(testing::ReadFile(t->AppPath("SendFrames-JOB42.TSF")), kJob + "\r\n");
  EXPECT_EQ(Count(t.Messages(), kChopped), 2u);
  EXPECT_EQ(Count(t.Messages(), Tr("Received GETINFO command from Agent Explorer.")), 1u);
}

TEST_F(ConsoleCommands, UnknownTextIsDroppedSilentlyUnlessAJobIsPending) {
  Console server(*t);
  ASSERT_EQ(server.Connect(Port()), "|READY|");
  server.Send("hello there");
  EXPECT_EQ(server.Quiet(), "");
  EXPECT_EQ(NewMessages(), std::vector<std::string>{});
  server.Send("[BEGIN_PROTOCOL]|SENDFRAMES|1@2@J7");
  ASSERT_TRUE(WaitForLine(kChopped, 1));
  server.Send("hello there");
  ASSERT_TRUE(WaitForLine(kChopped, 2));
  EXPECT_EQ(listener::ListenerOf(*t).PendingProtocolData, "[BEGIN_PROTOCOL]|SENDFRAMES|1@2@J7hello there");
  server.Send("[END_PROTOCOL]");
  EXPECT_EQ(server.Reply(), "|OKAY|");
  EXPECT_EQ(testing::ReadFile(t->AppPath("SendFrames-J7hello there.TSF")), "|SENDFRAMES|1@2@J7hello there\r\n");
}

// --- the dispatcher directly: exact pieces, a peer that has gone, the bound

struct Collected : listener::CommandReplies {
  std::vector<std::pair<std::string, std::string>> replies;
  bool up = true;
  void SendCommandReply(const std::string& reply, std::string_view prefix) override {
    replies.emplace_back(reply, std::string(prefix));
  }
  std::string RemoteHostIP() override { return "10.0.0.5"; }
  bool ReplyConnectionUp() override { return up; }
};

class SendFramesDispatch : public ListeningAgent {
 protected:
  void Feed(const std::string& text) { listener::DispatchCommand(*t, text, c); }
  Collected c;
};

TEST_F(SendFramesDispatch, ThreePiecesTwoChoppedLinesOneOkay) {
  Feed("[BEGIN_PROTOCOL]|SENDFRAMES|a@b@");
  Feed("JOB9@x");
  EXPECT_TRUE(c.replies.empty());
  Feed("y[END_PROTOCOL]");
  ASSERT_EQ(c.replies.size(), 1u);
  EXPECT_EQ(c.replies[0], std::make_pair(std::string("|OKAY|"), std::string(listener::kServerPeer)));
  const auto m = NewMessages();
  EXPECT_EQ(std::count(m.begin(), m.end(), kChopped), 2);
  EXPECT_EQ(testing::ReadFile(t->AppPath("SendFrames-JOB9.TSF")), "|SENDFRAMES|a@b@JOB9@xy\r\n");
}

TEST_F(SendFramesDispatch, AnEmptyReadIsNeverAContinuationPiece) {
  Feed("[BEGIN_PROTOCOL]|SENDFRAMES|a@b@J1");
  NewMessages();
  Feed("");
  EXPECT_EQ(NewMessages(), std::vector<std::string>{});
  EXPECT_EQ(listener::ListenerOf(*t).PendingProtocolData, "[BEGIN_PROTOCOL]|SENDFRAMES|a@b@J1");
}

TEST_F(SendFramesDispatch, NoOkayToAServerThatHasGone) {
  c.up = false;
  Feed("|SENDFRAMES|a@b@J2");
  ASSERT_EQ(c.replies.size(), 1u);  // through the reply step, which logs the warning instead of sending
  EXPECT_EQ(c.replies[0].second, std::string(listener::kServerPeer));
  const auto m = NewMessages();
  EXPECT_EQ(std::count(m.begin(), m.end(), Tr("Done with SENDFRAMES command, Sent |OKAY| to Server")), 0);
  EXPECT_TRUE(testing::Exists(t->AppPath("SendFrames-J2.TSF")));
}

TEST_F(SendFramesDispatch, APendingTransmissionPastOneMebibyteIsDiscardedAndTheNextJobWorks) {
  const std::string first = "[BEGIN_PROTOCOL]|SENDFRAMES|a@b@BIG";
  Feed(first);
  const std::string chunk(64 * 1024, 'x');
  size_t total = first.size();
  while (total + chunk.size() <= listener::kMaxPendingProtocolData) {
    Feed(chunk);
    total += chunk.size();
  }
  EXPECT_EQ(listener::ListenerOf(*t).PendingProtocolData.size(), total);
  NewMessages();
  Feed(chunk);
  auto m = NewMessages();
  ASSERT_EQ(m.size(), 2u);
  EXPECT_EQ(m[1], Err("Discarded chopped SENDFRAMES data from Server (IP = 10.0.0.5): " +
                      std::to_string(total + chunk.size()) + " bytes, more than 1048576 bytes allowed"));
  EXPECT_EQ(listener::ListenerOf(*t).PendingProtocolData, "");
  EXPECT_TRUE(c.replies.empty());
  // The rest of the oversized transmission is unknown text now, and the next job goes through.
  Feed(chunk);
  EXPECT_EQ(NewMessages(), std::vector<std::string>{});
  Feed("|SENDFRAMES|a@b@NEXT");
  ASSERT_EQ(c.replies.size(), 1u);
  EXPECT_EQ(c.replies[0].first, "|OKAY|");
  EXPECT_FALSE(testing::Exists(t->AppPath("SendFrames-BIG.TSF")));
}

TEST_F(SendFramesDispatch, AFirstPieceAloneLargerThanTheBoundIsDiscarded) {
  Feed("[BEGIN_PROTOCOL]|SENDFRAMES|" + std::string(listener::kMaxPendingProtocolData, 'y'));
  const auto m = NewMessages();
  ASSERT_EQ(m.size(), 2u);
  EXPECT_EQ(m[1], Err("Discarded chopped SENDFRAMES data from Server (IP = 10.0.0.5): " +
                      std::to_string(listener::kMaxPendingProtocolData + 28) + " bytes, more than 1048576 bytes allowed"));
  EXPECT_EQ(listener::ListenerOf(*t).PendingProtocolData, "");
}

TEST_F(ConsoleCommands, TheListenerServesOnAfterAnOversizedTransmission) {
  Console server(*t);
  ASSERT_EQ(server.Connect(Port()), "|READY|");
  server.Send("[BEGIN_PROTOCOL]|SENDFRAMES|a@b@HUGE");
  ASSERT_TRUE(WaitForLine(kChopped, 1));
  const std::string chunk(256 * 1024, 'z');
  for (int i = 0; i < 6; ++i) server.Send(chunk);
  ASSERT_TRUE(t->WaitUntil(20, [&] {
    for (const auto& m : t.Messages())
      if (StartsWith(m, Err("Discarded chopped SENDFRAMES data from Server (IP = 127.0.0.1): "))) return true;
    return false;
  }));
  ASSERT_TRUE(t->WaitUntil(20, [&] { return listener::ListenerOf(*t).PendingProtocolData.size() < 64; }));
  Console console(*t);
  ASSERT_EQ(console.Connect(Port()), "|READY|");
  console.Send("|GETINFO|");
  EXPECT_TRUE(StartsWith(console.Reply(), "|GETINFO|<PCName>"));
}

// --- GETTRACEFILE

TEST_F(ConsoleCommands, GetTraceFileWithoutAnswerRepliesZeroAfterElevenSeconds) {
  Console console(*t);
  ASSERT_EQ(console.Connect(Port()), "|READY|");
  const int64_t start = t.clock.NowMs();
  console.Send("|GETTRACEFILE|");
  EXPECT_EQ(console.Reply(30), "|GETTRACEFILE|<Status>0");
  const int64_t took = t.clock.NowMs() - start;
  EXPECT_GE(took, 11000);
  EXPECT_LT(took, 12500);
  EXPECT_EQ(t.service_control.sent, (std::vector<std::pair<std::string, int>>{{"TDACMT", 140}}));
  EXPECT_EQ(NewMessages(), (std::vector<std::string>{
                               Tr("Received GETTRACEFILE command from Agent Explorer (IP = 127.0.0.1), calling "
                                  "svcMain_Control()"),
                               Tr("Agent Explorer Asked for Local Trace File, Calling TDACMT!"),
                               Err("No Response From TDACMT!"),
                           }));
}

TEST_F(ConsoleCommands, GetTraceFileEndsAsSoonAsTdacmtAnswers) {
  platform::Timer answer(t->loop());
  answer.SetInterval(2000);
  answer.on_tick = [&] {
    answer.SetEnabled(false);
    Service_Control(*t, 142);
  };
  t.service_control.on_send = [&](const std::string& service, int code) {
    if (service == "TDACMT" && code == 140) answer.SetEnabled(true);
  };
  Console console(*t);
  ASSERT_EQ(console.Connect(Port()), "|READY|");
  const int64_t start = t.clock.NowMs();
  console.Send("|GETTRACEFILE|");
  EXPECT_EQ(console.Reply(30), "|GETTRACEFILE|<Status>2");
  EXPECT_LT(t.clock.NowMs() - start, 3000);
  const auto m = NewMessages();
  ASSERT_FALSE(m.empty());
  EXPECT_EQ(m.back(), Tr("TDACMT Replied With: 2"));
}

// The answer ends the one-second wait step it arrives in at once, not at the step's end.
TEST_F(ConsoleCommands, GetTraceFileAnswerEndsItsWaitStepAtOnce) {
  platform::Timer answer(t->loop());
  answer.SetInterval(2500);
  answer.on_tick = [&] {
    answer.SetEnabled(false);
    Service_Control(*t, 141);
  };
  t.service_control.on_send = [&](const std::string& service, int code) {
    if (service == "TDACMT" && code == 140) answer.SetEnabled(true);
  };
  Console console(*t);
  ASSERT_EQ(console.Connect(Port()), "|READY|");
  const int64_t start = t.clock.NowMs();
  console.Send("|GETTRACEFILE|");
  EXPECT_EQ(console.Reply(30), "|GETTRACEFILE|<Status>1");
  const int64_t took = t.clock.NowMs() - start;
  EXPECT_GE(took, 2500);
  EXPECT_LT(took, 3000);
}

TEST_F(ConsoleCommands, GetTraceFileInUserSessionModeWritesARequestFile) {
  testing::WriteFile(t.dir.File("thinterminal.dat"), "");
  Console console(*t);
  ASSERT_EQ(console.Connect(Port()), "|READY|");
  const std::string stamp = FormatCompact(t->Now());
  console.Send("|GETTRACEFILE|");
  EXPECT_EQ(console.Reply(30), "|GETTRACEFILE|<Status>0");
  EXPECT_TRUE(t.service_control.sent.empty());
  EXPECT_EQ(testing::ReadFile(t->AppPath(stamp + ".TDACMT")), "Code=140\r\n");
}

// A second console is served while GETTRACEFILE waits (its exchange runs from a timer, inside the wait);
// the late reply goes to the newest connection, as every reply of the listener does.
TEST_F(ConsoleCommands, AnotherConsoleIsServedDuringTheTraceFileWait) {
  Console first(*t), second(*t);
  std::string info_reply;
  int64_t info_at = 0;
  platform::Timer meanwhile(t->loop());
  meanwhile.SetInterval(2000);
  meanwhile.on_tick = [&] {
    meanwhile.SetEnabled(false);
    EXPECT_EQ(second.Connect(Port()), "|READY|");
    second.Send("|GETINFO|");
    info_reply = second.Reply();
    info_at = t.clock.NowMs();
  };
  t.service_control.on_send = [&](const std::string&, int code) {
    if (code == 140) meanwhile.SetEnabled(true);
  };
  ASSERT_EQ(first.Connect(Port()), "|READY|");
  const int64_t start = t.clock.NowMs();
  first.Send("|GETTRACEFILE|");
  ASSERT_TRUE(t->WaitUntil(30, [&] { return Count(t.Messages(), Err("No Response From TDACMT!")) == 1; }));
  EXPECT_TRUE(StartsWith(info_reply, "|GETINFO|<PCName>")) << info_reply;
  EXPECT_LT(info_at - start, 3000);
  EXPECT_EQ(second.Reply(), "|GETTRACEFILE|<Status>0");
  EXPECT_EQ(first.Take(), "");
}

}  // namespace
}  // namespace tdacli
