#pragma once
// A console connection to an agent's listener on the agent's own loop, and an agent that listens on a
// free loopback port ("ListeningPorts" 1,0,2,3 gives port 0).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/local_host.h"
#include "config/configuration.h"
#include "listener/listener.h"
#include "listener/listening_port.h"
#include "platform/tcp_socket.h"
#include "support/test_agent.h"

namespace tdacli::testing {

class Console {
 public:
  explicit Console(Agent& agent) : agent_(agent), socket_(agent.loop()) {
    socket_.on_connect = [this] { connected_ = true; };
    socket_.on_data_arrival = [this](size_t) { received_ += socket_.GetData(); };
    socket_.on_close = [this] { closed_ = true; };
    socket_.on_error = [this](int, const std::string&) { failed_ = true; };
  }

  // Connects and waits for the greeting, which is returned (and not kept as a reply).
  std::string Connect(uint16_t port) {
    socket_.SetRemoteHost("127.0.0.1");
    socket_.SetRemotePort(port);
    EXPECT_FALSE(socket_.Connect());
    agent_.WaitUntil(10, [this] { return failed_ || closed_ || received_.size() >= 7; });
    std::string greeting = received_;
    received_.clear();
    return greeting;
  }
  void Send(const std::string& text) { EXPECT_FALSE(socket_.SendData(text)); }
  // Waits for a reply and takes it.
  std::string Reply(double seconds = 10) {
    agent_.WaitUntil(seconds, [this] { return !received_.empty(); });
    // A reply is sent in one piece; give a split delivery a moment to complete.
    agent_.loop().RunFor(20);
    return Take();
  }
  // Lets the agent handle what was sent, then takes whatever came back (expected: nothing).
  std::string Quiet(double seconds = 1) {
    agent_.loop().RunFor(static_cast<int64_t>(seconds * 1000));
    return Take();
  }
  std::string Take() {
    std::string r = received_;
    received_.clear();
    return r;
  }
  void Close() { socket_.Close(); }
  // Leaves as a console that is killed or loses its network does: the agent sees a reset.
  void Reset() { socket_.Reset(); }
  bool closed() const { return closed_; }
  bool connected() const { return connected_; }
  platform::TcpSocket& socket() { return socket_; }

 private:
  Agent& agent_;
  platform::TcpSocket socket_;
  std::string received_;
  bool connected_ = false, closed_ = false, failed_ = false;
};

// The thirteen lines a per-setting save writes, CR LF ended.
inline std::string SettingsFile(const std::string& ext = "1234", const std::string& server = "127.0.0.1",
                                const std::string& notify = "FileMessage", const std::string& ports = "1,0,2,3",
                                const std::string& pop_ex = "false", const std::string& pop_win = "false",
                                const std::string& local_temp = "unknown", const std::string& user = "N/A") {
  return "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=" + ext + "\r\nServer=" + server +
         "\r\nUseTrace=False\r\nLocalTemp=" + local_temp + "\r\nCurrentUser=" + user +
         "\r\nCurrentEvent=N/A\r\nSvrTemp=Unknown\r\nNotificationMethod=" + notify + "\r\nPopEx=" + pop_ex +
         "\r\nPopWinName=" + pop_win + "\r\nListeningPorts=" + ports + "\r\n";
}

// An agent with its settings file, listening on a free port.
class ListeningAgent : public ::testing::Test {
 protected:
  void SetUp() override {
    t->startup_banner_written = true;  // the trace then holds only the lines of the test
    DetermineLocalIP(*t);
    WriteFile(ConfigFile(), SettingsFile());
    LoadConfiguration(*t);
    StartListening();
    mark_ = t.Messages().size();
  }
  void StartListening() {
    ASSERT_FALSE(listener::ListenerOf(*t).Listen(static_cast<uint16_t>(listener::GetListeningPort(*t))));
    ASSERT_EQ(listener::ListenerOf(*t).Listener().State(), platform::TcpSocket::kListening);
  }
  uint16_t Port() { return listener::ListenerOf(*t).Listener().LocalPort(); }
  std::string ConfigFile() const { return t.dir.File("TDRegInfo.TXT"); }
  // Trace messages written since the last call (or since the agent started listening).
  std::vector<std::string> NewMessages() {
    auto all = t.Messages();
    std::vector<std::string> out(all.begin() + static_cast<long>(std::min(mark_, all.size())), all.end());
    mark_ = all.size();
    return out;
  }

  TestAgent t;
  size_t mark_ = 0;
};

}  // namespace tdacli::testing
