#pragma once
// An agent wired for the login client, with the login server simulator on the agent's own loop,
// listening on a loopback address of its own (the port 5003 is fixed, so parallel runs differ by
// address).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "common/paths.h"
#include "login/drivers.h"
#include "login_server.h"
#include "platform/tcp_socket.h"
#include "service/login_socket.h"
#include "support/test_agent.h"

namespace tdacli::testing {

// The user most tests log in: every value the server hands out at login is set.
inline loginsim::UserRecord Jsmith() {
  loginsim::UserRecord u;
  u.name = "jsmith";
  u.server_temp = "\\\\fs01\\tdtemp\\:FTP@ftp.example.com:tduser:9F8E7D6C";
  u.local_temp = "C:\\%WINDIR%\\Temp";
  u.live_id = "48213:10.1.2.3:5020:T";
  u.kek_info = "KEK-0001";
  u.valid_ip_mask = "192.168.5.";
  u.trace = "True";
  u.webcam = "true";
  return u;
}

inline loginsim::UserTable Users(std::vector<loginsim::UserRecord> users) {
  loginsim::UserTable table;
  for (auto& u : users) table.Add(std::move(u));
  return table;
}

// Messages of the trace lines from `from` on.
inline std::vector<std::string> From(const std::vector<std::string>& all, size_t from) {
  if (from >= all.size()) return {};
  return std::vector<std::string>(all.begin() + static_cast<long>(from), all.end());
}

struct LoginFixture {
  LoginFixture() {
    WireLoginSocket(*t);
    t.host.windows_dir = "C:\\WINDOWS\\";
    t->local_ip = "192.168.5.20";  // as after start-up
    t->settings.CurrentUser = "jsmith";
    // Write the first trace line now, so that tests can take the lines of one exchange.
    t->startup_banner_written = true;
  }

  // Starts the simulator on the agent's loop and points `Server` at it.
  void StartServer(loginsim::UserTable users = Users({Jsmith()}), loginsim::Options options = {}) {
    server = std::make_unique<loginsim::LoginServer>(t->loop(), std::move(users), options);
    platform::SocketError error = server->StartOnFreeLoopback();
    ASSERT_FALSE(error) << error.number << " " << error.description;
    t->settings.Server = server->address();
  }

  // A loopback address on which nothing listens on port 5003.
  std::string DeadAddress() {
    loginsim::LoginServer probe(t->loop(), loginsim::UserTable{}, {});
    EXPECT_FALSE(probe.StartOnFreeLoopback());
    std::string address = probe.address();
    probe.Stop();
    return address;
  }

  // Runs the loop until the server has seen `count` requests (or a few seconds of clock pass).
  void PumpUntilRequests(size_t count) {
    t->WaitUntil(5, [&] { return server->Requests().size() >= count; });
  }
  // Lets the server take in what the client sent last (and notice the hang-up).
  void Drain() { t->loop().RunFor(50); }

  size_t Mark() const { return t.Messages().size(); }
  std::vector<std::string> Since(size_t mark) const { return From(t.Messages(), mark); }
  int64_t Now() { return t.clock.NowMs(); }
  std::string App(const std::string& name) { return t->AppPath(name); }

  TestAgent t;
  std::unique_ptr<loginsim::LoginServer> server;
};

}  // namespace tdacli::testing
