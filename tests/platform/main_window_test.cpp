// The hidden main form on Windows: a real top-level window on the loop's thread, whose close requests
// arrive as the form's query-unload; and the program built for the GUI subsystem.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "platform/main_window.h"
#include "platform/platform.h"
#include "service/lifecycle.h"
#include "support/test_agent.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace tdacli {
namespace {

// The subsystem field of a PE image's optional header: 2 Windows GUI, 3 console; -1 when unreadable.
int PeSubsystem(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  auto read = [&](std::streamoff at, size_t n) {
    std::string b(n, '\0');
    f.seekg(at);
    f.read(b.data(), static_cast<std::streamsize>(n));
    return f ? b : std::string();
  };
  const std::string dos = read(0, 64);
  if (dos.size() != 64 || dos.compare(0, 2, "MZ") != 0) return -1;
  const auto lfanew = static_cast<std::streamoff>(static_cast<unsigned char>(dos[0x3C]) |
                                                  static_cast<unsigned char>(dos[0x3D]) << 8 |
                                                  static_cast<unsigned char>(dos[0x3E]) << 16);
  if (read(lfanew, 4) != std::string("PE\0\0", 4)) return -1;
  // The optional header follows the 4-byte signature and the 20-byte file header; its subsystem field
  // sits at offset 68 in both the 32-bit and the 64-bit layout.
  const std::string sub = read(lfanew + 24 + 68, 2);
  if (sub.size() != 2) return -1;
  return static_cast<unsigned char>(sub[0]) | static_cast<unsigned char>(sub[1]) << 8;
}

#ifdef _WIN32

TEST(WindowsProgram, AgentIsBuiltForTheGuiSubsystemAndTheToolsForTheConsole) {
  EXPECT_EQ(PeSubsystem(std::string(TDACLI_BIN_DIR) + "/tdacli.exe"), 2);
  EXPECT_EQ(PeSubsystem(std::string(TDACLI_BIN_DIR) + "/td-login-server.exe"), 3);
}

// An agent on the real clock, so that the loop really blocks while another thread talks to its form.
struct FormAgent {
  FormAgent() : clock(platform::MakeSystemClock()) {
    AgentOptions o;
    o.exe_folder = t.dir.path();
    o.exe_base_name = "tdacli";
    agent = NewAgent(
        AgentFacilities{*clock, t.host, t.event_log, t.service_control, t.dialogs, t.service_host, t.http, t.internet}, o);
    agent->local_ip = "192.168.5.20";
    agent->startup_banner_written = true;
    agent->on_end_process = [this] { ended = true; };
    form = platform::MakeMainWindow([this] {
      bool cancel = false;
      Form_QueryUnload(*agent, cancel);
      return cancel;
    });
  }
  // Sends `msg` to the form from another thread, as the system does, while the agent's loop waits;
  // returns the form's answer.
  LRESULT Send(UINT msg, WPARAM wp = 0) {
    HWND hwnd = reinterpret_cast<HWND>(form->Handle());
    std::atomic<bool> answered{false};
    LRESULT answer = -1;
    std::thread system([&] {
      answer = SendMessageA(hwnd, msg, wp, 0);
      answered = true;
      agent->loop().Post([] {});
    });
    agent->loop().RunUntil(clock->NowMs() + 30'000, [&] { return answered.load() || ended; });
    system.join();
    return answer;
  }
  testing::TestAgent t;
  std::unique_ptr<platform::Clock> clock;
  std::unique_ptr<Agent> agent;
  std::unique_ptr<platform::MainWindow> form;
  bool ended = false;
};

TEST(MainForm, IsAHiddenTopLevelWindow) {
  FormAgent a;
  HWND hwnd = reinterpret_cast<HWND>(a.form->Handle());
  ASSERT_TRUE(IsWindow(hwnd));
  EXPECT_FALSE(IsWindowVisible(hwnd));
  EXPECT_EQ(GetParent(hwnd), nullptr);
  EXPECT_EQ(GetAncestor(hwnd, GA_ROOT), hwnd);
  EXPECT_EQ(GetWindowThreadProcessId(hwnd, nullptr), GetCurrentThreadId());
}

TEST(MainForm, AsAServiceCloseAndSessionEndAreRefusedAndLogged) {
  FormAgent a;
  EXPECT_EQ(a.Send(WM_CLOSE), 0);
  EXPECT_EQ(a.Send(WM_QUERYENDSESSION), FALSE);
  HWND hwnd = reinterpret_cast<HWND>(a.form->Handle());
  EXPECT_TRUE(IsWindow(hwnd));
  EXPECT_FALSE(a.ended);
  EXPECT_FALSE(a.agent->Ended());
  EXPECT_EQ(a.t.Messages(), (std::vector<std::string>{"Trace in TDACLI: Form_QueryUnload Invoked",
                                                       "Trace in TDACLI: Form_QueryUnload Invoked"}));
}

TEST(MainForm, AsAServiceOneEndOfTheSessionIsLoggedOnce) {
  FormAgent a;
  // The question, refused, then the end that comes all the same (a forced sign-out or shutdown).
  EXPECT_EQ(a.Send(WM_QUERYENDSESSION), FALSE);
  EXPECT_EQ(a.Send(WM_ENDSESSION, TRUE), 0);
  EXPECT_EQ(a.t.Messages(), (std::vector<std::string>{"Trace in TDACLI: Form_QueryUnload Invoked"}));
  // An end that was called off asks nothing; an end without the question asks once.
  EXPECT_EQ(a.Send(WM_QUERYENDSESSION), FALSE);
  EXPECT_EQ(a.Send(WM_ENDSESSION, FALSE), 0);
  EXPECT_EQ(a.Send(WM_ENDSESSION, TRUE), 0);
  EXPECT_EQ(a.t.Messages(), (std::vector<std::string>{"Trace in TDACLI: Form_QueryUnload Invoked",
                                                       "Trace in TDACLI: Form_QueryUnload Invoked",
                                                       "Trace in TDACLI: Form_QueryUnload Invoked"}));
  EXPECT_FALSE(a.agent->Ended());
}

TEST(MainForm, InUserSessionModeTheEndOfTheSessionRunsTheStopHandler) {
  FormAgent a;
  testing::WriteFile(a.t.dir.File("thinterminal.dat"), "");
  a.Send(WM_QUERYENDSESSION);
  EXPECT_TRUE(a.ended);
  EXPECT_TRUE(a.agent->Ended());
  EXPECT_EQ(a.t.Messages(), (std::vector<std::string>{"Information in TDACLI: TD Agent Client Login Service Stopped",
                                                       "Information in TDACLI: **********",
                                                       "Information in TDACLI: *  STOP  *",
                                                       "Information in TDACLI: **********"}));
}

TEST(MainForm, InUserSessionModeClosingTheFormRunsTheStopHandler) {
  FormAgent a;
  testing::WriteFile(a.t.dir.File("thinterminal.dat"), "");
  a.Send(WM_CLOSE);
  EXPECT_TRUE(a.ended);
  ASSERT_FALSE(a.t.Messages().empty());
  EXPECT_EQ(a.t.Messages().back(), "Information in TDACLI: **********");
  EXPECT_EQ(a.t.Messages()[2], "Information in TDACLI: *  STOP  *");
}

TEST(MainForm, LoopWaitingForNothingElseWakesForTheWindowMessage) {
  FormAgent a;
  // No timer and no socket: the loop blocks in the OS wait until the message arrives.
  const auto start = std::chrono::steady_clock::now();
  a.Send(WM_CLOSE);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_LE(a.agent->loop().poll_calls(), 10u);
  EXPECT_EQ(a.t.Messages(), (std::vector<std::string>{"Trace in TDACLI: Form_QueryUnload Invoked"}));
}

#else

TEST(MainForm, ThereIsNoWindowWithoutAWindowingSystem) {
  bool asked = false;
  auto form = platform::MakeMainWindow([&] { return asked = true; });
  EXPECT_EQ(form->Handle(), 0);
  EXPECT_FALSE(asked);
}

TEST(PeHeader, ReadsNothingFromAFileThatIsNoProgramImage) {
  testing::TempDir dir;
  testing::WriteFile(dir.File("x.exe"), "not a program");
  EXPECT_EQ(PeSubsystem(dir.File("x.exe")), -1);
}

#endif

}  // namespace
}  // namespace tdacli
