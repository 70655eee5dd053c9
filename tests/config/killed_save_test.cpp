// A real process ended hard in the middle of a settings save, at each of its steps in turn
// (TerminateProcess on Windows, so under Wine too; SIGKILL elsewhere): the next process loads the old
// settings or the new ones, never the defaults. The process that saves is this test program again,
// run as a child process, which ends itself from inside the save through the file-system seam.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "config/configuration.h"
#include "support/child_process.h"
#include "support/fault_file_system.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

std::string Crlf(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) out += l + "\r\n";
  return out;
}

std::string Fresh(const std::string& ext) {
  return Crlf({"Tyndrel - Agent Client Configuration", "[Config]", "Ext=" + ext, "Server=10.0.0.1", "UseTrace=False",
               "LocalTemp=unknown", "CurrentUser=jsmith", "CurrentEvent=N/A", "SvrTemp=Unknown",
               "NotificationMethod=FileMessage", "PopEx=false", "PopWinName=false", "ListeningPorts=1,0,2,3"});
}

// The child: saves Ext=4711 over the settings of the folder and ends itself hard before step
// `end_at` of the save (a step that writes a file is ended halfway: a part of the bytes is on the
// disk). A save that gets through notes how many steps it took.
int SaveExtAndEndHard(const std::vector<std::string>& args) {
  if (args.size() != 2) return 2;
  const int end_at = std::atoi(args[0].c_str());
  const std::string& folder = args[1];

  platform::SimulatedClock clock({2026, 11, 14, 23, 15, 2});
  testing::FakeHost host;
  testing::FakeEventLog event_log;
  testing::FakeServiceControl service_control;
  testing::FakeDialogs dialogs;
  testing::FakeServiceHost service_host;
  testing::FakeHttpClient http;
  testing::FakeInternet internet;
  AgentOptions o;
  o.exe_folder = folder;
  auto agent = NewAgent(
      AgentFacilities{clock, host, event_log, service_control, dialogs, service_host, http, internet}, o);
  testing::FaultFileSystem files;
  int step = 0;
  files.before = [&](const std::string& what) {
    if (++step != end_at) return;
    if (what.rfind("Write ", 0) == 0) {
      std::string path = what.substr(6);
      if (path.size() > 8 && path.compare(path.size() - 8, 8, " flushed") == 0) path.resize(path.size() - 8);
      platform::SystemFileSystem().Write(path, "Tyndrel - Agent Client Configuration\r\n[Con", false);
    }
    testing::EndThisProcessHard();
  };
  agent->file_system = &files;
  LoadConfiguration(*agent);
  agent->settings.Ext = "4711";
  if (!SaveExt(*agent)) return 1;
  testing::WriteFile(folder + kSepStr + "steps.txt", std::to_string(step));
  return 0;
}

const testing::RegisterChildJob kSaveExtAndEndHard("save-ext-and-end-hard", &SaveExtAndEndHard);

TEST(SettingsSaveKilled, AtEachStepTheNextProcessLoadsTheOldOrTheNewSettings) {
  // A save that runs through: how many steps it has.
  int steps = 0;
  {
    testing::TestAgent t;
    testing::WriteFile(t.dir.File("TDRegInfo.TXT"), Fresh("1111"));
    const testing::ChildEnd end = testing::RunChildProcess("save-ext-and-end-hard", {"1000", t.dir.path()});
    ASSERT_FALSE(end.ended_hard);
    ASSERT_EQ(end.status, 0);
    steps = std::atoi(testing::ReadFile(t.dir.File("steps.txt")).c_str());
    ASSERT_GE(steps, 3);  // the temporary file, the rename, the trace line
    EXPECT_EQ(testing::ReadFile(t.dir.File("TDRegInfo.TXT")), Fresh("4711"));
  }
  int saw_old = 0, saw_new = 0;
  for (int end_at = 1; end_at <= steps; ++end_at) {
    testing::TestAgent t;
    testing::WriteFile(t.dir.File("TDRegInfo.TXT"), Fresh("1111"));
    const testing::ChildEnd end =
        testing::RunChildProcess("save-ext-and-end-hard", {std::to_string(end_at), t.dir.path()});
    ASSERT_TRUE(end.ended_hard) << "step " << end_at << ": status " << end.status;
    const std::string bytes = testing::ReadFile(t.dir.File("TDRegInfo.TXT"));
    ASSERT_TRUE(bytes == Fresh("1111") || bytes == Fresh("4711")) << "step " << end_at << ":\n" << bytes;
    LoadConfiguration(*t);
    EXPECT_EQ(t->settings.Ext, bytes == Fresh("1111") ? "1111" : "4711") << "step " << end_at;
    EXPECT_EQ(t->settings.Server, "10.0.0.1") << "step " << end_at;
    (bytes == Fresh("1111") ? saw_old : saw_new)++;
  }
  EXPECT_GE(saw_old, 2);  // ended while the temporary file was written, and before the rename
  EXPECT_GE(saw_new, 1);
}

}  // namespace
}  // namespace tdacli
