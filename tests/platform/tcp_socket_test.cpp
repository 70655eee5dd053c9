#include "platform/tcp_socket.h"

#include <gtest/gtest.h>

#include <memory>

namespace tdacli::platform {
namespace {

// A listener on a free loopback port and a client connected to it, on one loop.
struct Pair {
  explicit Pair(Clock& clock) : loop(clock), server(loop), client(loop), accepted(loop) {
    server.SetLocalPort(0);
    EXPECT_FALSE(server.Listen());
    server.on_connection_request = [this](int64_t id) { EXPECT_FALSE(accepted.Accept(server, id)); };
    client.SetRemoteHost("127.0.0.1");
    client.SetRemotePort(server.LocalPort());
    client.on_connect = [this] { connected = true; };
    EXPECT_FALSE(client.Connect());
    loop.RunUntil(clock.NowMs() + 5000, [this] {
      return connected && accepted.State() == TcpSocket::kConnected;
    });
  }
  EventLoop loop;
  TcpSocket server, client, accepted;
  bool connected = false;
};

TEST(TcpSocket, ConnectsAndAccepts) {
  SimulatedClock clock;
  Pair p(clock);
  EXPECT_EQ(p.client.State(), 7);
  EXPECT_EQ(p.accepted.State(), 7);
  EXPECT_EQ(p.accepted.RemoteHostIP(), "127.0.0.1");
  EXPECT_EQ(p.server.State(), 2);
}

TEST(TcpSocket, DataArrivalIsRaisedOnceUntilTheDataIsRead) {
  SimulatedClock clock;
  Pair p(clock);
  int arrivals = 0;
  p.accepted.on_data_arrival = [&](size_t) { ++arrivals; };
  ASSERT_FALSE(p.client.SendData("one"));
  p.loop.RunUntil(clock.NowMs() + 2000, [&] { return arrivals > 0; });
  ASSERT_FALSE(p.client.SendData("two"));
  const uint64_t polls = p.loop.poll_calls();
  p.loop.RunFor(200);
  EXPECT_EQ(arrivals, 1);
  // Unread data does not make the loop spin.
  EXPECT_LT(p.loop.poll_calls() - polls, 50u);
  EXPECT_EQ(p.accepted.GetData(), "onetwo");
  ASSERT_FALSE(p.client.SendData("three"));
  p.loop.RunUntil(clock.NowMs() + 2000, [&] { return arrivals > 1; });
  EXPECT_EQ(arrivals, 2);
  EXPECT_EQ(p.accepted.GetData(), "three");
}

TEST(TcpSocket, PeerCloseRaisesCloseOnce) {
  SimulatedClock clock;
  Pair p(clock);
  int closes = 0, errors = 0;
  p.accepted.on_close = [&] { ++closes; };
  p.accepted.on_error = [&](int, const std::string&) { ++errors; };
  p.client.Close();
  EXPECT_EQ(p.client.State(), 0);
  p.loop.RunUntil(clock.NowMs() + 2000, [&] { return closes > 0; });
  p.loop.RunFor(100);
  EXPECT_EQ(closes, 1);
  EXPECT_EQ(errors, 0);  // an orderly close is no error
  EXPECT_EQ(p.accepted.State(), 8);
}

// A peer that resets (a zero linger time, then close) raises Error 10054 once, and no Close.
struct ResetWatch {
  explicit ResetWatch(TcpSocket& s) {
    s.on_close = [this] { ++closes; };
    s.on_error = [this](int n, const std::string& d) {
      ++errors;
      number = n;
      text = d;
    };
  }
  int closes = 0, errors = 0, number = 0;
  std::string text;
};

TEST(TcpSocket, PeerResetRaisesError10054OnceAndNoClose) {
  SimulatedClock clock;
  Pair p(clock);
  ResetWatch w(p.accepted);
  p.client.Reset();
  EXPECT_EQ(p.client.State(), 0);
  p.loop.RunUntil(clock.NowMs() + 2000, [&] { return w.errors > 0; });
  p.loop.RunFor(100);
  EXPECT_EQ(w.errors, 1);
  EXPECT_EQ(w.closes, 0);
  EXPECT_EQ(w.number, 10054);
  EXPECT_EQ(w.text, "Connection reset by peer");
  EXPECT_EQ(p.accepted.State(), 9);
  p.accepted.Close();
  EXPECT_EQ(p.accepted.State(), 0);
}

TEST(TcpSocket, ResetAfterTheDataWasReadRaisesError10054) {
  SimulatedClock clock;
  Pair p(clock);
  ResetWatch w(p.client);
  std::string got;
  p.client.on_data_arrival = [&](size_t) { got += p.client.GetData(); };
  ASSERT_FALSE(p.accepted.SendData("TD Agent Connect OK"));
  p.loop.RunUntil(clock.NowMs() + 2000, [&] { return got.size() >= 19; });
  EXPECT_EQ(got, "TD Agent Connect OK");
  p.accepted.Reset();
  p.loop.RunUntil(clock.NowMs() + 2000, [&] { return w.errors > 0; });
  p.loop.RunFor(100);
  EXPECT_EQ(w.errors, 1);
  EXPECT_EQ(w.closes, 0);
  EXPECT_EQ(w.number, 10054);
}

TEST(TcpSocket, ResetOfAConnectionWhoseArrivalNobodyReadsIsAnErrorToo) {
  SimulatedClock clock;
  Pair p(clock);
  ResetWatch w(p.accepted);
  int arrivals = 0;
  p.accepted.on_data_arrival = [&](size_t) { ++arrivals; };
  ASSERT_FALSE(p.client.SendData("|GETINFO|"));
  p.loop.RunUntil(clock.NowMs() + 2000, [&] { return arrivals > 0; });
  p.accepted.SetDrainUnread(true);
  p.client.Reset();
  p.loop.RunUntil(clock.NowMs() + 2000, [&] { return w.errors > 0; });
  p.loop.RunFor(100);
  EXPECT_EQ(arrivals, 1);
  EXPECT_EQ(w.errors, 1);
  EXPECT_EQ(w.closes, 0);
  EXPECT_EQ(w.number, 10054);
}

TEST(TcpSocket, ResetOfASocketThatIsNotConnectedIsAClose) {
  SimulatedClock clock;
  EventLoop loop(clock);
  TcpSocket s(loop);
  s.SetLocalPort(0);
  ASSERT_FALSE(s.Listen());
  const int64_t open = TcpSocket::OpenSocketCount();
  s.Reset();
  EXPECT_EQ(s.State(), 0);
  EXPECT_LT(TcpSocket::OpenSocketCount(), open);
}

TEST(TcpSocket, ShutdownSendEndsTheDataForThePeerAndKeepsReadingUntilItClosesInReturn) {
  SimulatedClock clock;
  Pair p(clock);
  std::string at_server, at_client;
  bool server_saw_close = false, client_saw_close = false;
  p.accepted.on_data_arrival = [&](size_t) { at_server += p.accepted.GetData(); };
  p.accepted.on_close = [&] {
    at_server += p.accepted.GetData();
    server_saw_close = true;
    // Still able to answer: only the client's sending side is closed.
    p.accepted.Close();
  };
  p.client.on_data_arrival = [&](size_t) { at_client += p.client.GetData(); };
  p.client.on_close = [&] {
    at_client += p.client.GetData();
    client_saw_close = true;
  };
  ASSERT_FALSE(p.client.SendData("last words"));
  p.client.ShutdownSend();
  EXPECT_EQ(p.client.State(), TcpSocket::kConnected);
  EXPECT_TRUE(p.client.SendData("more"));  // nothing may follow the end
  ASSERT_TRUE(p.loop.RunUntil(clock.NowMs() + 5000, [&] { return server_saw_close; }));
  EXPECT_EQ(at_server, "last words");
  ASSERT_TRUE(p.loop.RunUntil(clock.NowMs() + 5000, [&] { return client_saw_close; }));
  EXPECT_EQ(at_client, "");
}

TEST(TcpSocket, ShutdownSendWaitsForQueuedOutput) {
  SimulatedClock clock;
  Pair p(clock);
  // More than the socket buffers take at once: part of it waits in the queue.
  const std::string big(8 << 20, 'x');
  ASSERT_FALSE(p.client.SendData(big));
  ASSERT_GT(p.client.PendingSendBytes(), 0u);
  p.client.ShutdownSend();
  size_t received = 0;
  bool closed = false;
  p.accepted.on_data_arrival = [&](size_t) { received += p.accepted.GetData().size(); };
  p.accepted.on_close = [&] {
    received += p.accepted.GetData().size();
    closed = true;
  };
  ASSERT_TRUE(p.loop.RunUntil(clock.NowMs() + 20000, [&] { return closed; }));
  EXPECT_EQ(received, big.size());
}

TEST(TcpSocket, RefusedConnectionRaisesError10061) {
  SimulatedClock clock;
  EventLoop loop(clock);
  // Find a port where nothing listens: bind, note it, close.
  uint16_t port;
  {
    TcpSocket probe(loop);
    probe.SetLocalPort(0);
    ASSERT_FALSE(probe.Listen());
    port = probe.LocalPort();
  }
  TcpSocket client(loop);
  int number = 0;
  std::string text;
  client.on_error = [&](int n, const std::string& d) {
    number = n;
    text = d;
  };
  client.SetRemoteHost("127.0.0.1");
  client.SetRemotePort(port);
  ASSERT_FALSE(client.Connect());
  loop.RunUntil(clock.NowMs() + 5000, [&] { return number != 0; });
  EXPECT_EQ(number, 10061);
  EXPECT_EQ(text, "Connection is forcefully rejected");
  EXPECT_NE(client.State(), 7);
}

TEST(TcpSocket, ListenOnAPortInUseFailsWithAddressInUse) {
  SimulatedClock clock;
  EventLoop loop(clock);
  TcpSocket a(loop), b(loop);
  a.SetLocalPort(0);
  ASSERT_FALSE(a.Listen());
  b.SetLocalPort(a.LocalPort());
  SocketError e = b.Listen();
  EXPECT_EQ(e.number, 10048);
  EXPECT_EQ(b.State(), 0);
}

TEST(TcpSocket, UnacceptedRequestIsRefusedAndTheNextOneIsAnnounced) {
  SimulatedClock clock;
  EventLoop loop(clock);
  const int64_t sockets_before = TcpSocket::OpenSocketCount();
  TcpSocket server(loop);
  server.SetLocalPort(0);
  ASSERT_FALSE(server.Listen());
  int requests = 0;
  server.on_connection_request = [&](int64_t) { ++requests; };
  std::vector<std::unique_ptr<TcpSocket>> clients;
  for (int i = 0; i < 2; ++i) {
    clients.push_back(std::make_unique<TcpSocket>(loop));
    clients.back()->SetRemoteHost("127.0.0.1");
    clients.back()->SetRemotePort(server.LocalPort());
    ASSERT_FALSE(clients.back()->Connect());
  }
  loop.RunUntil(clock.NowMs() + 5000, [&] { return requests == 2; });
  EXPECT_EQ(requests, 2);
  // The listener, its reserve and two clients: refused ones are released.
  EXPECT_EQ(TcpSocket::OpenSocketCount() - sockets_before, 4);
}

TEST(TcpSocket, SendOnAClosedSocketIsAnError) {
  SimulatedClock clock;
  EventLoop loop(clock);
  TcpSocket s(loop);
  SocketError e = s.SendData("x");
  EXPECT_EQ(e.number, 40006);
}

}  // namespace
}  // namespace tdacli::platform

namespace tdacli::platform {
namespace {

TEST(TcpSocketBounds, ALongTransferArrivesInPiecesOfAtMostSixtyFourKibibytes) {
  SimulatedClock clock;
  EventLoop loop(clock);
  TcpSocket server(loop), client(loop);
  std::unique_ptr<TcpSocket> accepted;
  server.SetLocalPort(0);
  ASSERT_FALSE(server.Listen());
  server.on_connection_request = [&](int64_t id) {
    accepted = std::make_unique<TcpSocket>(loop);
    ASSERT_FALSE(accepted->Accept(server, id));
  };
  client.SetRemoteHost("127.0.0.1");
  client.SetRemotePort(server.LocalPort());
  ASSERT_FALSE(client.Connect());
  ASSERT_TRUE(loop.RunUntil(clock.NowMs() + 5000, [&] { return accepted && client.State() == TcpSocket::kConnected; }));
  std::string sent;
  for (int i = 0; i < 1'000'000; ++i) sent += static_cast<char>('a' + i % 26);
  std::string got;
  size_t largest = 0, pieces = 0;
  accepted->on_data_arrival = [&](size_t) {
    std::string piece = accepted->GetData();
    largest = std::max(largest, piece.size());
    ++pieces;
    got += piece;
  };
  ASSERT_FALSE(client.SendData(sent));
  ASSERT_TRUE(loop.RunUntil(clock.NowMs() + 20000, [&] { return got.size() == sent.size(); }));
  EXPECT_TRUE(got == sent);
  EXPECT_LE(largest, TcpSocket::kMaxArrival);
  EXPECT_GE(pieces, sent.size() / TcpSocket::kMaxArrival);
}

TEST(TcpSocketBounds, OutputPastTheSendLimitIsRefused) {
  SimulatedClock clock;
  EventLoop loop(clock);
  TcpSocket server(loop), client(loop);
  std::unique_ptr<TcpSocket> accepted;
  server.SetLocalPort(0);
  ASSERT_FALSE(server.Listen());
  server.on_connection_request = [&](int64_t id) {
    accepted = std::make_unique<TcpSocket>(loop);
    ASSERT_FALSE(accepted->Accept(server, id));
  };
  client.on_data_arrival = [](size_t) {};  // never reads
  client.SetRemoteHost("127.0.0.1");
  client.SetRemotePort(server.LocalPort());
  ASSERT_FALSE(client.Connect());
  ASSERT_TRUE(loop.RunUntil(clock.NowMs() + 5000, [&] { return accepted && client.State() == TcpSocket::kConnected; }));
  accepted->SetSendLimit(100000);
  const std::string chunk(50000, 'x');
  SocketError e;
  int sends = 0;
  while (!(e = accepted->SendData(chunk)) && sends < 100000) {
    ++sends;
    loop.DoEvents();
  }
  EXPECT_EQ(e.number, TcpSocket::kOutputFull);
  EXPECT_LE(accepted->PendingSendBytes(), 100000u);
  EXPECT_GT(accepted->PendingSendBytes(), 0u);
  EXPECT_EQ(accepted->State(), TcpSocket::kConnected);
}

}  // namespace
}  // namespace tdacli::platform
