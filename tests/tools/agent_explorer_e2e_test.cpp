// The real programs together: tdacli started in its own application folder, agent-explorer run against
// it as a separate process. POSIX only: on Windows tdacli runs under the service manager.
#ifndef _WIN32
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>
#include <memory>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/tcp_socket.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

namespace fs = std::filesystem;
using platform::TcpSocket;

const std::string kBin = TDACLI_BIN_DIR;

// Real time passes here: the other side is another process.
bool WaitReal(double seconds, const std::function<bool()>& done) {
  auto clock = platform::MakeSystemClock();
  platform::EventLoop loop(*clock);
  platform::Timer tick(loop);
  tick.SetInterval(50);
  tick.SetEnabled(true);
  tick.on_tick = [] {};
  return loop.RunUntil(clock->NowMs() + static_cast<int64_t>(seconds * 1000), done);
}

// A port that is free now and fits the agent's 16-bit port setting (system-chosen ports are above
// 32767 here, which the setting cannot hold).
uint16_t FreePort() {
  platform::SimulatedClock clock;
  platform::EventLoop loop(clock);
  const uint16_t first = static_cast<uint16_t>(20000 + std::random_device{}() % 12000);
  for (uint16_t p = first; p < 32700; ++p) {
    TcpSocket probe(loop);
    probe.SetLocalPort(p);
    if (!probe.Listen()) return p;
  }
  ADD_FAILURE() << "no free port";
  return 0;
}

struct ProgramRun {
  int exit_code = -1;
  std::string out;
};

// Runs agent-explorer with the arguments (each quoted for the shell) and collects its standard output
// (and its standard error when asked).
ProgramRun Explorer(const std::vector<std::string>& args, bool with_errors = false) {
  std::string cmd = "'" + kBin + "/agent-explorer'";
  for (const auto& a : args) cmd += " '" + a + "'";
  cmd += with_errors ? " 2>&1" : " 2>/dev/null";
  ProgramRun r;
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int status = pclose(p);
  r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

class RunningAgent : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(fs::exists(kBin + "/tdacli"));
    ASSERT_TRUE(fs::exists(kBin + "/agent-explorer"));
    fs::copy_file(kBin + "/tdacli", dir_.File("tdacli"));
    port_ = FreePort();
    ports_ = "1," + std::to_string(port_) + ",2,3";
    testing::WriteFile(dir_.File("TDRegInfo.TXT"), "[Config]\r\nListeningPorts=" + ports_ + "\r\n");
    const std::string exe = dir_.File("tdacli");
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) {
      int null = open("/dev/null", O_RDWR);
      dup2(null, 0);
      dup2(null, 1);
      dup2(null, 2);
      execl(exe.c_str(), exe.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    // The listener opens with the start-up work, a second after the start.
    ASSERT_TRUE(WaitReal(20, [&] { return TraceText().find("Listening Port: " + std::to_string(port_)) != std::string::npos; }))
        << TraceText();
  }
  void TearDown() override {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      int status = 0;
      waitpid(pid_, &status, 0);
    }
  }
  std::string TraceText() {
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir_.path(), ec)) {
      const std::string name = e.path().filename().string();
      if (name.ends_with("-TDACLI-TraceFile.TXT")) return testing::ReadFile(e.path().string());
    }
    return "";
  }
  std::string Target() { return "127.0.0.1:" + std::to_string(port_); }

  testing::TempDir dir_;
  pid_t pid_ = -1;
  uint16_t port_ = 0;
  std::string ports_;
};

TEST_F(RunningAgent, GetInfoPrintsTheSettingsTable) {
  ProgramRun r = Explorer({Target(), "getinfo"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out.rfind("|GETINFO|\n  <PCName>               ", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("\\0\n  <NETUsername>          "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("  <Extension>            1234\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("  <Listening Ports>      " + ports_ + "\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("  <Pop4Win>              false\n"), std::string::npos) << r.out;

  ProgramRun raw = Explorer({"--raw", Target(), "getinfo"});
  EXPECT_EQ(raw.exit_code, 0);
  EXPECT_EQ(raw.out.rfind("|GETINFO|<PCName>", 0), 0u);
  EXPECT_EQ(std::count(raw.out.begin(), raw.out.end(), '\0'), 2);
  const std::string tail = "<Extension>1234;<TD Server>127.0.0.1;<Notification Method>FileMessage;<Listening Ports>" +
                           ports_ + ";<Pop4Ext>false;<Pop4Win>false;";
  ASSERT_GE(raw.out.size(), tail.size());
  EXPECT_EQ(raw.out.substr(raw.out.size() - tail.size()), tail);
  EXPECT_NE(TraceText().find("Received GETINFO command from Agent Explorer."), std::string::npos);
}

TEST_F(RunningAgent, SetStoresTheValueInTheSettingsFile) {
  ProgramRun r = Explorer({Target(), "set", "ext", "4711"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "    |SETEXT| <Extension> 4711\n");
  EXPECT_EQ(testing::ReadFile(dir_.File("TDRegInfo.TXT")),
            "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=4711\r\nServer=127.0.0.1\r\nUseTrace=False\r\n"
            "LocalTemp=unknown\r\nCurrentUser=N/A\r\nCurrentEvent=N/A\r\nSvrTemp=Unknown\r\n"
            "NotificationMethod=FileMessage\r\nPopEx=false\r\nPopWinName=false\r\nListeningPorts=" +
                ports_ + "\r\n");
  ProgramRun failed = Explorer({Target(), "set", "server", ""});
  EXPECT_EQ(failed.exit_code, 0);
  EXPECT_EQ(failed.out, ">>> |SETSERVER| <TD Server> Failed; <<< FAILED\n");
  ProgramRun all = Explorer({"--raw", Target(), "setall", "99", "notify=Socket"});
  EXPECT_EQ(all.out, "|SETALL|<Extension>99;|SETNOTIFY|<Notification Method>FileMessage;");
}

TEST_F(RunningAgent, TimeOutAgainstAPortWhereNothingAnswers) {
  // A listening socket nobody accepts from: the connection is made by the system, no greeting comes.
  platform::SimulatedClock clock;
  platform::EventLoop loop(clock);
  TcpSocket silent(loop);
  silent.SetLocalPort(0);
  ASSERT_FALSE(silent.Listen());
  const auto start = std::chrono::steady_clock::now();
  ProgramRun r = Explorer({"127.0.0.1:" + std::to_string(silent.LocalPort()), "getinfo", "--timeout", "1"});
  const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_GE(took, 1.0);
  // The running agent answers; a command it drops gets no reply and times out too.
  ProgramRun dropped = Explorer({Target(), "raw", "|nothing|", "--timeout", "1"});
  EXPECT_EQ(dropped.exit_code, 1);
}

TEST_F(RunningAgent, ControlCodesReachTheServiceThroughItsEndpoint) {
  ProgramRun r = Explorer({"control", "TDACLI", "200", "--app-dir", dir_.path()});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "code 200 sent to TDACLI\n");
  EXPECT_TRUE(WaitReal(10, [&] {
    return TraceText().find("The message (200) was recevied and discarded. The service does not recognize that "
                            "request") != std::string::npos;
  }));
  ProgramRun missing = Explorer({"control", "TDACXX", "200", "--app-dir", dir_.path()}, true);
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_EQ(missing.out, "code 200 not sent: no service TDACXX is installed (error 1060)\n");
  // Codes outside the user-defined range are refused before anything is sent.
  ProgramRun system_code = Explorer({"control", "TDACLI", "1", "--app-dir", dir_.path()}, true);
  EXPECT_EQ(system_code.exit_code, 2);
  EXPECT_NE(system_code.out.find("128-255"), std::string::npos);
}

TEST(AgentExplorerProgram, HelpAndUsageErrors) {
  ProgramRun help = Explorer({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("gettracefile"), std::string::npos);
  EXPECT_EQ(Explorer({"pc7", "bogus"}).exit_code, 2);
  testing::TempDir d;
  EXPECT_EQ(Explorer({"127.0.0.1:1", "sendframes", d.File("missing.txt")}).exit_code, 2);
}

}  // namespace
}  // namespace tdacli
#endif
