// "|LOGIN|" end to end on the agent's loop: a console connection, the login server simulator and a
// stand-in media-transfer service answering through the control handler.
#include <gtest/gtest.h>

#include <algorithm>

#include "common/text.h"
#include "listener/console.h"
#include "login/login_fixture.h"
#include "service/control.h"

namespace tdacli {
namespace {

using testing::Console;

std::string Tr(const std::string& m) { return "Trace in TDACLI: " + m; }

struct LoginCommand : ::testing::Test, testing::LoginFixture {
  void SetUp() override {
    DetermineLocalIP(*t);
    t.service_control.on_send = [this](const std::string& service, int code) {
      if (service == "TDACMT" && code == 130) t->loop().Post([this] { Service_Control(*t, 131); });
    };
  }
  void Start(const std::string& user, loginsim::UserTable users = testing::Users({Jsmith()})) {
    StartServer(std::move(users));
    testing::WriteFile(t.dir.File("TDRegInfo.TXT"),
                       "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=4711\r\nServer=" + server->address() +
                           "\r\nCurrentUser=" + user + "\r\nListeningPorts=1,0,2,3\r\n");
    LoadConfiguration(*t);
    ASSERT_FALSE(listener::ListenerOf(*t).Listen(0));
    ASSERT_EQ(console.Connect(listener::ListenerOf(*t).Listener().LocalPort()), "|READY|");
  }
  static loginsim::UserRecord Jsmith() {
    loginsim::UserRecord u = testing::Jsmith();
    u.local_temp = "c:\\%appdir%\\Capture";
    u.hundred_screen = "SCR:010|ATLOGO:2|010|001";
    return u;
  }
  std::vector<std::string> Sent() const {
    std::vector<std::string> out;
    for (const auto& [service, code] : t.service_control.sent) out.push_back(service + ":" + std::to_string(code));
    return out;
  }
  bool Logged(const std::string& line) {
    auto m = t.Messages();
    return std::find(m.begin(), m.end(), line) != m.end();
  }
  Console console{*t};
};

const std::string kSuccess =
    "The Tyndrel Agent Client Successfully Logged in User (jsmith).{CRLF}{CRLF}User has proper access to both temp "
    "folders.";

TEST_F(LoginCommand, LogsInRunsThePostLoginWorkAndRepliesWithTheResult) {
  Start("jsmith");
  const size_t mark = Mark();
  console.Send("|LOGIN|");
  EXPECT_EQ(console.Reply(120), "|LOGIN|<Status>" + kSuccess);
  const auto m = Since(mark);
  ASSERT_GE(m.size(), 2u);
  EXPECT_EQ(m[0], Tr("Received LOGIN command from Agent Explorer (IP = 127.0.0.1), calling svcMain_Control()"));
  EXPECT_EQ(m[1], Tr("Received request from AgentExplorer at (127.0.0.1) to perform a login."));
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACMT:130", "TDACMT:131"}));
  auto requests = server->Requests();
  EXPECT_NE(std::find(requests.begin(), requests.end(), "STATUS0"), requests.end());
  EXPECT_EQ(testing::ReadFile(App("100ScreenParam.TXT")), "SCR:010|ATLOGO:2|010|001\r\n");
  EXPECT_EQ(testing::ReadFile(App("UseWebCam.TXT")), "WEBCAM=True\r\n");
}

TEST_F(LoginCommand, AnEarlierLoginsParameterFileMeansALogoffFirst) {
  Start("jsmith");
  testing::WriteFile(App("100ScreenParam.TXT"), "NOTSET\r\n");
  console.Send("|LOGIN|");
  EXPECT_EQ(console.Reply(120), "|LOGIN|<Status>" + kSuccess);
  // The logoff told the screen-capture service (control code: OS code 99), then the login ran.
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACSC:130", "TDACMT:130", "TDACMT:131"}));
  EXPECT_TRUE(Logged(Tr("Received notification user (jsmith) just logged off.")));
}

TEST_F(LoginCommand, AFailedLoginStillRepliesWipesAndNotifies) {
  Start("nobody");
  console.Send("|LOGIN|");
  const std::string reply = console.Reply(120);
  EXPECT_FALSE(t->login().LoginSucceeded);
  EXPECT_EQ(reply, "|LOGIN|<Status>The Tyndrel Agent Client could not execute a login for (nobody) to (" +
                       server->address() + ":5003)");
  EXPECT_EQ(Sent(), (std::vector<std::string>{"TDACMT:131"}));
  auto requests = server->Requests();
  EXPECT_EQ(std::find(requests.begin(), requests.end(), "STATUS0"), requests.end());
}

// The login waits for the server and for TDACMT with events flowing: a second console is served
// meanwhile (its exchange runs from a timer inside the login's wait), and the login's reply then goes
// to the newest connection.
TEST_F(LoginCommand, AnotherConsoleIsServedDuringTheLogin) {
  Start("jsmith");
  Console second(*t);
  std::string info;
  t.service_control.on_send = [&](const std::string& service, int code) {
    if (service != "TDACMT" || code != 130) return;
    t->loop().Post([&] {
      EXPECT_EQ(second.Connect(listener::ListenerOf(*t).Listener().LocalPort()), "|READY|");
      second.Send("|GETINFO|");
      info = second.Reply();
      Service_Control(*t, 131);
    });
  };
  console.Send("|LOGIN|");
  EXPECT_EQ(second.Reply(120), "|LOGIN|<Status>" + kSuccess);
  EXPECT_TRUE(StartsWith(info, "|GETINFO|<PCName>")) << info;
  EXPECT_EQ(console.Take(), "");
}

TEST_F(LoginCommand, AConsoleThatHasGoneIsOnlyLoggedAsAWarning) {
  Start("jsmith");
  console.Send("|LOGIN|");
  console.Close();
  ASSERT_TRUE(t->WaitUntil(120, [&] {
    return Logged("Warning in TDACLI: Cannot send response - AgentExplorer (IP = 127.0.0.1) already disconnected!");
  }));
  EXPECT_TRUE(t->login().LoginSucceeded);
}

}  // namespace
}  // namespace tdacli
