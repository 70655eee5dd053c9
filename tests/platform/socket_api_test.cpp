// The OS layer under the event loop and the socket control: the poller's wake-up, and the raw socket
// calls with their Winsock error numbers, on loopback. Runs natively and under Wine.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/poller.h"
#include "platform/socket_api.h"

namespace tdacli {
namespace {

namespace sockapi = platform::sockapi;
using platform::Poller;
using platform::SocketHandle;

// Closes the sockets of a test whatever happens.
struct Sockets {
  std::vector<SocketHandle> all;
  SocketHandle Add(SocketHandle h) {
    if (h != platform::kInvalidSocket) all.push_back(h);
    return h;
  }
  ~Sockets() {
    for (auto h : all) sockapi::CloseSocket(h);
  }
};

SocketHandle Listener(Sockets& s, uint16_t* port) {
  int err = 0;
  SocketHandle l = s.Add(sockapi::CreateTcp(&err));
  EXPECT_NE(l, platform::kInvalidSocket) << err;
  EXPECT_EQ(sockapi::Bind(l, 0), 0);
  EXPECT_EQ(sockapi::ListenOn(l), 0);
  *port = sockapi::LocalPort(l);
  EXPECT_NE(*port, 0);
  return l;
}

// Polls (at most `rounds` times 5 s) until the handle is reported.
Poller::Ready WaitFor(Poller& poller, Poller::Interest interest, int rounds = 6) {
  for (int i = 0; i < rounds; ++i) {
    for (const auto& r : poller.Poll({interest}, 5000))
      if (r.handle == interest.handle) return r;
  }
  return {platform::kInvalidSocket, false, false, false};
}

TEST(Poller, WakeBeforePollEndsAnUnlimitedWait) {
  auto poller = platform::MakePoller();
  poller->Wake();
  EXPECT_TRUE(poller->Poll({}, -1).empty());
  // The wake-up was consumed: a look without waiting finds nothing.
  EXPECT_TRUE(poller->Poll({}, 0).empty());
}

TEST(Poller, WakeFromAnotherThreadEndsAnUnlimitedWait) {
  auto poller = platform::MakePoller();
  std::thread waker([&] { poller->Wake(); });
  poller->Poll({}, -1);
  waker.join();
  SUCCEED();
}

TEST(SocketApi, RefusedConnectIsReportedAs10061) {
  sockapi::Startup();
  Sockets s;
  uint16_t port = 0;
  SocketHandle l = Listener(s, &port);
  sockapi::CloseSocket(l);
  s.all.clear();

  int err = 0;
  SocketHandle c = s.Add(sockapi::CreateTcp(&err));
  ASSERT_NE(c, platform::kInvalidSocket);
  const int rc = sockapi::ConnectStart(c, "127.0.0.1", port);
  if (rc == sockapi::kConnRefused) return;  // refused at once: nothing left to wait for
  ASSERT_TRUE(rc == sockapi::kWouldBlock || rc == sockapi::kInProgress) << rc;
  auto poller = platform::MakePoller();
  Poller::Ready r = WaitFor(*poller, {c, false, true});
  ASSERT_EQ(r.handle, c) << "the failed connect was never reported";
  EXPECT_TRUE(r.error || r.write);
  EXPECT_EQ(sockapi::PendingError(c), sockapi::kConnRefused);
  EXPECT_EQ(sockapi::Describe(sockapi::kConnRefused), "Connection is forcefully rejected");
}

TEST(SocketApi, SecondListenerOnAPortInUseGets10048) {
  sockapi::Startup();
  Sockets s;
  uint16_t port = 0;
  Listener(s, &port);
  int err = 0;
  SocketHandle second = s.Add(sockapi::CreateTcp(&err));
  ASSERT_NE(second, platform::kInvalidSocket);
  EXPECT_EQ(sockapi::Bind(second, port), sockapi::kAddrInUse);
}

TEST(SocketApi, ConnectAcceptSendReceiveAndClose) {
  sockapi::Startup();
  Sockets s;
  uint16_t port = 0;
  SocketHandle l = Listener(s, &port);
  auto poller = platform::MakePoller();

  int err = 0;
  SocketHandle c = s.Add(sockapi::CreateTcp(&err));
  const int rc = sockapi::ConnectStart(c, "127.0.0.1", port);
  ASSERT_TRUE(rc == 0 || rc == sockapi::kWouldBlock || rc == sockapi::kInProgress) << rc;
  ASSERT_EQ(WaitFor(*poller, {l, true, false}).handle, l) << "no connection request";
  SocketHandle a = s.Add(sockapi::Accept(l, &err));
  ASSERT_NE(a, platform::kInvalidSocket) << err;
  Poller::Ready connected = WaitFor(*poller, {c, false, true});
  ASSERT_EQ(connected.handle, c);
  EXPECT_TRUE(connected.write);
  EXPECT_EQ(sockapi::PendingError(c), 0);
  EXPECT_EQ(sockapi::PeerAddress(a), "127.0.0.1");
  EXPECT_EQ(sockapi::LocalPort(a), port);

  char buf[64];
  EXPECT_EQ(sockapi::Recv(a, buf, sizeof buf, false, &err), -1);
  EXPECT_EQ(err, sockapi::kWouldBlock);

  ASSERT_EQ(sockapi::Send(c, "hello", &err), 5);
  Poller::Ready readable = WaitFor(*poller, {a, true, false});
  ASSERT_EQ(readable.handle, a);
  EXPECT_TRUE(readable.read);
  EXPECT_EQ(sockapi::Recv(a, buf, sizeof buf, true, &err), 5);  // peeking leaves the data
  ASSERT_EQ(sockapi::Recv(a, buf, sizeof buf, false, &err), 5);
  EXPECT_EQ(std::string(buf, 5), "hello");

  sockapi::CloseSocket(c);
  s.all.erase(s.all.begin() + 1);
  ASSERT_EQ(WaitFor(*poller, {a, true, false}).handle, a) << "the close was never reported";
  EXPECT_EQ(sockapi::Recv(a, buf, sizeof buf, false, &err), 0);
}

TEST(SocketApi, ResolvesDottedAddressesAsTheyAre) {
  sockapi::Startup();
  EXPECT_EQ(sockapi::ResolveIPv4("127.0.0.1"), "127.0.0.1");
  EXPECT_EQ(sockapi::ResolveIPv4(""), "");
}

}  // namespace
}  // namespace tdacli
