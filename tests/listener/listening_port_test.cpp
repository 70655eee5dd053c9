#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>

#include "listener/listener.h"
#include "listener/listening_port.h"
#include "platform/tcp_socket.h"
#include "support/test_agent.h"

namespace tdacli::listener {
namespace {

using platform::TcpSocket;
using testing::TestAgent;

bool Logged(TestAgent& t, const std::string& line) {
  auto msgs = t.Messages();
  return std::find(msgs.begin(), msgs.end(), line) != msgs.end();
}

std::string SettingsPath(TestAgent& t) { return t.dir.File("TDRegInfo.TXT"); }

// Runs the agent's events until `done` or until `real_ms` of real time have passed: a peer on the
// network answers in real time, whatever the simulated clock does meanwhile.
bool WaitForPeer(TestAgent& t, const std::function<bool()>& done, int real_ms = 10000) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(real_ms);
  while (!done() && std::chrono::steady_clock::now() < limit) t->WaitUntil(1, done);
  return done();
}

TEST(SaveListeningPortsAndFollow, ReopensListenerOnTheNewPortAndAClientConnectsThere) {
  TestAgent t;
  t.clock.idle_grace_ms = 100;
  auto& listener = ListenerOf(*t);
  ASSERT_FALSE(listener.Listen(0));
  const uint16_t old_port = listener.Listener().LocalPort();
  const uint16_t new_port = testing::FreeListenPort(t->loop());
  ASSERT_NE(new_port, 0);
  ASSERT_NE(new_port, old_port);

  t->settings.ListeningPorts = "5001," + std::to_string(new_port) + ",5003,5004";
  ASSERT_TRUE(SaveListeningPortsAndFollow(*t));
  EXPECT_EQ(GetListeningPort(*t), static_cast<int16_t>(new_port));
  EXPECT_EQ(listener.Listener().State(), TcpSocket::kListening);
  EXPECT_EQ(listener.Listener().LocalPort(), new_port);
  EXPECT_EQ(testing::Lines(SettingsPath(t)).back(), "ListeningPorts=5001," + std::to_string(new_port) + ",5003,5004");

  TcpSocket accepted(t->loop());
  bool request = false;
  listener.Listener().on_connection_request = [&](int64_t id) { request = !accepted.Accept(listener.Listener(), id); };
  TcpSocket client(t->loop());
  bool connected = false;
  client.on_connect = [&] { connected = true; };
  client.SetRemoteHost("127.0.0.1");
  client.SetRemotePort(new_port);
  ASSERT_FALSE(client.Connect());
  EXPECT_TRUE(WaitForPeer(t, [&] { return connected && request; }));
  EXPECT_EQ(accepted.State(), TcpSocket::kConnected);

  // The old port is closed.
  TcpSocket stale(t->loop());
  bool refused = false, stale_connected = false;
  stale.on_error = [&](int, const std::string&) { refused = true; };
  stale.on_connect = [&] { stale_connected = true; };
  stale.SetRemoteHost("127.0.0.1");
  stale.SetRemotePort(old_port);
  if (stale.Connect()) refused = true;
  EXPECT_TRUE(WaitForPeer(t, [&] { return refused || stale_connected; }));
  EXPECT_TRUE(refused);
  EXPECT_FALSE(stale_connected);
}

TEST(SaveListeningPortsAndFollow, TellsTheSiblingsByControlCodeOnUnknownWindowsVersion) {
  TestAgent t;
  t->os_code = 99;
  t->settings.ListeningPorts = "1," + std::to_string(testing::FreeListenPort(t->loop())) + ",2,3";
  ASSERT_TRUE(SaveListeningPortsAndFollow(*t));
  ASSERT_EQ(t.service_control.sent.size(), 2u);
  EXPECT_EQ(t.service_control.sent[0], std::make_pair(std::string("TDACSC"), 135));
  EXPECT_EQ(t.service_control.sent[1], std::make_pair(std::string("TDACLM"), 135));
}

TEST(SaveListeningPortsAndFollow, TellsTheSiblingsByRequestFileFromVistaOn) {
  TestAgent t;
  t->os_code = 10;
  t->settings.ListeningPorts = "1," + std::to_string(testing::FreeListenPort(t->loop())) + ",2,3";
  ASSERT_TRUE(SaveListeningPortsAndFollow(*t));
  EXPECT_TRUE(t.service_control.sent.empty());
  EXPECT_EQ(testing::ReadFile(t.dir.File("20261114231502.TDACSC")), "Code=135\r\n");
  EXPECT_EQ(testing::ReadFile(t.dir.File("20261114231502.TDACLM")), "Code=135\r\n");
}

TEST(SaveListeningPortsAndFollow, PortInUseIsLoggedAndTheSiblingsAreNotTold) {
  TestAgent t;
  TcpSocket occupier(t->loop());
  const uint16_t port = testing::FreeListenPort(t->loop());
  occupier.SetLocalPort(port);
  ASSERT_FALSE(occupier.Listen());
  t->settings.ListeningPorts = "1," + std::to_string(port) + ",2,3";
  EXPECT_FALSE(SaveListeningPortsAndFollow(*t));
  EXPECT_TRUE(Logged(t, "Error in TDACLI: Error saving settings: Address already in use (Port: " +
                            std::to_string(port) + ")"));
  EXPECT_EQ(testing::Lines(SettingsPath(t)).back(), "ListeningPorts=1," + std::to_string(port) + ",2,3");
  EXPECT_NE(ListenerOf(*t).Listener().State(), TcpSocket::kListening);
  EXPECT_TRUE(t.service_control.sent.empty());
}

}  // namespace
}  // namespace tdacli::listener
