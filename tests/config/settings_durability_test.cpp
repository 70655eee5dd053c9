// The settings file across crashes and full disks: at every step of a save the file on the disk is
// the old one or the new one, a whole temporary file left by an older version's interrupted save is
// taken instead of the defaults (a part of one never), and a save that cannot be written leaves the
// old file whole and logs the error.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "common/files.h"
#include "config/configuration.h"
#include "platform/tcp_socket.h"
#include "service/lifecycle.h"
#include "support/fault_file_system.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::FaultFileSystem;
using testing::TestAgent;

std::string Crlf(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) out += l + "\r\n";
  return out;
}

std::string Fresh(const std::string& ext, const std::string& server, const std::string& ports) {
  return Crlf({"Tyndrel - Agent Client Configuration", "[Config]", "Ext=" + ext, "Server=" + server,
               "UseTrace=False", "LocalTemp=unknown", "CurrentUser=jsmith", "CurrentEvent=N/A", "SvrTemp=Unknown",
               "NotificationMethod=FileMessage", "PopEx=false", "PopWinName=false", "ListeningPorts=" + ports});
}

const char* const kRecovered =
    "Warning in TDACLI: Settings file [%s] was missing; recovered it from [%s], left whole by an interrupted save.";

std::string RecoveredLine(TestAgent& t) {
  std::string line = kRecovered;
  line.replace(line.find("%s"), 2, t.dir.File("TDRegInfo.TXT"));
  line.replace(line.find("%s"), 2, t.dir.File("TDRegInfo.tmp"));
  return line;
}

size_t Count(const std::vector<std::string>& all, const std::string& line) {
  return static_cast<size_t>(std::count(all.begin(), all.end(), line));
}

// ---------------------------------------------------------------- an older version's interrupted save

TEST(InterruptedSave, AWholeTemporaryFileIsTakenWithOneWarningInsteadOfTheDefaults) {
  TestAgent t;
  const std::string saved = Fresh("4711", "10.1.1.9", "5001,6000,6001,6002");
  testing::WriteFile(t.dir.File("TDRegInfo.tmp"), saved);
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Ext, "4711");
  EXPECT_EQ(t->settings.Server, "10.1.1.9");
  EXPECT_EQ(t->settings.ListeningPorts, "5001,6000,6001,6002");
  // Put in the settings file's place, so that the next start and every reload find it there.
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDRegInfo.TXT")), saved);
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
  EXPECT_EQ(Count(t.Messages(), RecoveredLine(t)), 1u);
  ASSERT_EQ(t.event_log.entries.size(), 1u);
  EXPECT_EQ(t.event_log.entries[0].first, 2);
  EXPECT_EQ("Warning in TDACLI: " + t.event_log.entries[0].second, RecoveredLine(t));
  LoadConfiguration(*t);
  EXPECT_EQ(Count(t.Messages(), RecoveredLine(t)), 1u);
  EXPECT_EQ(t->settings.Ext, "4711");
}

TEST(InterruptedSave, TheStartUpBannerShowsTheRecoveredSettings) {
  TestAgent t;
  testing::WriteFile(t.dir.File("TDRegInfo.tmp"), Fresh("4711", "10.1.1.9", "1,0,2,3"));
  Form_Load(*t);
  AttachServiceHost(*t, true);
  t.service_host.events.on_start();
  t->loop().RunFor(1500);
  const auto msgs = t.Messages();
  EXPECT_EQ(Count(msgs, RecoveredLine(t)), 1u);
  const std::string trace = testing::ReadFile(t.ProgramTrace());
  EXPECT_NE(trace.find("TD Server: 10.1.1.9(Port: 5003)\r\nExtension: 4711\r\n"), std::string::npos);
}

TEST(InterruptedSave, APerSettingSaveOnARecoveredFileKeepsItsOtherValues) {
  TestAgent t;
  testing::WriteFile(t.dir.File("TDRegInfo.tmp"), Fresh("4711", "10.1.1.9", "1,0,2,3"));
  t->settings.Ext = "5555";
  ASSERT_TRUE(SaveExt(*t));
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDRegInfo.TXT")), Fresh("5555", "10.1.1.9", "1,0,2,3"));
  EXPECT_EQ(Count(t.Messages(), RecoveredLine(t)), 1u);
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
}

TEST(InterruptedSave, APartOfOneIsNeverLoaded) {
  const std::string whole = Fresh("4711", "10.1.1.9", "5001,6000,6001,6002");
  const std::vector<std::pair<const char*, std::string>> parts = {
      {"empty", ""},
      {"cut inside a line", whole.substr(0, whole.size() - 5)},
      {"cut before the last CR LF", whole.substr(0, whole.size() - 2)},
      {"cut between CR and LF", whole.substr(0, whole.size() - 1)},
      {"title cut", "Tyndrel - Agent Client Conf"},
      {"no title line", whole.substr(whole.find("[Config]"))},
      {"title without its CR LF", "Tyndrel - Agent Client ConfigurationExt=4711\r\n"},
  };
  for (const auto& [what, bytes] : parts) {
    TestAgent t;
    testing::WriteFile(t.dir.File("TDRegInfo.tmp"), bytes);
    LoadConfiguration(*t);
    EXPECT_EQ(t->settings.Ext, "1234") << what;
    EXPECT_EQ(t->settings.Server, "127.0.0.1") << what;
    EXPECT_EQ(t->settings.ListeningPorts, "w,x,y,z") << what;
    EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.TXT"))) << what;
    EXPECT_EQ(testing::ReadFile(t.dir.File("TDRegInfo.tmp")), bytes) << what;
    EXPECT_TRUE(t.Messages().empty()) << what;
  }
}

TEST(InterruptedSave, AnExistingSettingsFileWinsOverATemporaryFile) {
  TestAgent t;
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), Fresh("1111", "10.0.0.1", "1,0,2,3"));
  testing::WriteFile(t.dir.File("TDRegInfo.tmp"), Fresh("4711", "10.1.1.9", "1,0,2,3"));
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Ext, "1111");
  EXPECT_TRUE(t.Messages().empty());
  EXPECT_TRUE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
}

TEST(InterruptedSave, WhereItCannotBeMovedItIsReadWhereItIs) {
  TestAgent t;
  testing::WriteFile(t.dir.File("TDRegInfo.tmp"), Fresh("4711", "10.1.1.9", "1,0,2,3"));
  FaultFileSystem files;
  files.refuse_rename = [](const std::string&) { return true; };
  t->file_system = &files;
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Ext, "4711");
  EXPECT_EQ(t->settings.Server, "10.1.1.9");
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.TXT")));
  EXPECT_EQ(Count(t.Messages(), RecoveredLine(t)), 1u);
}

// ---------------------------------------------------------------- a crash at every step of a save

// What a crash at one step leaves on the disk: the settings file and its temporary file as they are
// before the step is taken.
struct Snapshot {
  std::string step;
  bool file = false, temporary = false;
  std::string file_bytes, temporary_bytes;
};

Snapshot Take(TestAgent& t, const std::string& step) {
  Snapshot s;
  s.step = step;
  s.file = testing::Exists(t.dir.File("TDRegInfo.TXT"));
  s.temporary = testing::Exists(t.dir.File("TDRegInfo.tmp"));
  if (s.file) s.file_bytes = testing::ReadFile(t.dir.File("TDRegInfo.TXT"));
  if (s.temporary) s.temporary_bytes = testing::ReadFile(t.dir.File("TDRegInfo.tmp"));
  return s;
}

struct CrashCase {
  const char* name;
  void (*change)(Agent& agent);  // puts the new value in and saves
};

class CrashAtEveryStep : public ::testing::TestWithParam<CrashCase> {};

TEST_P(CrashAtEveryStep, TheFileIsTheOldOrTheNewOneAndLoadsAsSuch) {
  const CrashCase& c = GetParam();
  TestAgent t;
  // A hand-made file with a line the program does not know: a per-setting save drops it.
  const std::string old_bytes = Fresh("1111", "10.0.0.1", "1,0,2,3") + "AgentColour=Blue\r\n";
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), old_bytes);
  LoadConfiguration(*t);
  const Settings old_settings = t->settings;
  FaultFileSystem files;
  std::vector<Snapshot> snapshots;
  files.before = [&](const std::string& step) { snapshots.push_back(Take(t, step)); };
  t->file_system = &files;
  c.change(*t);
  snapshots.push_back(Take(t, "after the save"));
  const std::string new_bytes = testing::ReadFile(t.dir.File("TDRegInfo.TXT"));
  ASSERT_NE(new_bytes, old_bytes) << c.name;
  LoadConfiguration(*t);
  const Settings new_settings = t->settings;

  size_t saw_old = 0, saw_new = 0;
  for (const Snapshot& s : snapshots) {
    ASSERT_TRUE(s.file) << c.name << ": the settings file was missing before: " << s.step;
    ASSERT_TRUE(s.file_bytes == old_bytes || s.file_bytes == new_bytes) << c.name << ": half a file before: " << s.step;
    (s.file_bytes == old_bytes ? saw_old : saw_new)++;
    // What the next start finds after a crash here.
    TestAgent restarted;
    testing::WriteFile(restarted.dir.File("TDRegInfo.TXT"), s.file_bytes);
    if (s.temporary) testing::WriteFile(restarted.dir.File("TDRegInfo.tmp"), s.temporary_bytes);
    LoadConfiguration(*restarted);
    const Settings& got = restarted->settings;
    const Settings& want = s.file_bytes == old_bytes ? old_settings : new_settings;
    EXPECT_EQ(got.Ext, want.Ext) << c.name << " " << s.step;
    EXPECT_EQ(got.Server, want.Server) << c.name << " " << s.step;
    EXPECT_EQ(got.ListeningPorts, want.ListeningPorts) << c.name << " " << s.step;
    EXPECT_EQ(got.SvrTemp, want.SvrTemp) << c.name << " " << s.step;
  }
  EXPECT_GE(saw_old, 2u) << c.name;  // the write of the temporary file and the rename came first
  EXPECT_GE(saw_new, 1u) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Saves, CrashAtEveryStep,
    ::testing::Values(
        CrashCase{"SaveExt",
                  [](Agent& a) {
                    a.settings.Ext = "4711";
                    ASSERT_TRUE(SaveExt(a));
                  }},
        CrashCase{"SaveServer",
                  [](Agent& a) {
                    a.settings.Server = "10.1.1.9";
                    ASSERT_TRUE(SaveServer(a));
                  }},
        CrashCase{"SaveListeningPorts",
                  [](Agent& a) {
                    a.settings.ListeningPorts = "5001,0,6001,6002";
                    ASSERT_TRUE(SaveListeningPorts(a));
                  }},
        CrashCase{"SaveConfiguration",
                  [](Agent& a) {
                    // As after a login: the server's temp folder and trace flag.
                    a.settings.SvrTemp = "\\\\fs01\\tdtemp\\";
                    a.settings.UseTrace = "True";
                    ASSERT_TRUE(SaveConfiguration(a));
                  }}),
    [](const ::testing::TestParamInfo<CrashCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------- repeated saves

TEST(SettingsSave, TheSameBytesAgainAreNotWrittenButTheTraceLineStays) {
  TestAgent t;
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), Fresh("1111", "10.0.0.1", "1,0,2,3"));
  LoadConfiguration(*t);
  FaultFileSystem files;
  t->file_system = &files;
  t->settings.Ext = "1111";
  ASSERT_TRUE(SaveExt(*t));
  for (const auto& step : files.steps) EXPECT_EQ(step.rfind("Append ", 0), 0u) << step;
  EXPECT_EQ(files.file_flushes + files.folder_flushes, 0);
  EXPECT_EQ(t.Messages().back(), "Trace in TDACLI: Wrote Login Settings to config file");
}

TEST(SettingsSave, ALeftoverTemporaryFileIsDeletedFirstAsBefore) {
  TestAgent t;
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), Fresh("1111", "10.0.0.1", "1,0,2,3"));
  testing::WriteFile(t.dir.File("TDRegInfo.tmp"), "Tyndrel - Agent");
  LoadConfiguration(*t);
  FaultFileSystem files;
  t->file_system = &files;
  t->settings.Ext = "4711";
  ASSERT_TRUE(SaveExt(*t));
  ASSERT_GE(files.steps.size(), 3u);
  EXPECT_EQ(files.steps[0], "Remove " + t.dir.File("TDRegInfo.tmp"));
  EXPECT_EQ(files.steps[1], "Write " + t.dir.File("TDRegInfo.tmp") + " flushed");
  EXPECT_EQ(files.steps[2], "Rename " + t.dir.File("TDRegInfo.tmp") + " -> " + t.dir.File("TDRegInfo.TXT") + " durable");
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDRegInfo.TXT")), Fresh("4711", "10.0.0.1", "1,0,2,3"));
}

TEST(SettingsSave, AFileHeldByAnotherProgramGetsTheMovesSecondAndOneMoreTry) {
  TestAgent t;
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), Fresh("1111", "10.0.0.1", "1,0,2,3"));
  LoadConfiguration(*t);
  FaultFileSystem files;
  int refused = 0;
  files.refuse_rename = [&](const std::string&) { return refused++ == 0; };
  t->file_system = &files;
  const int64_t before = t.clock.NowMs();
  t->settings.Ext = "4711";
  ASSERT_TRUE(SaveExt(*t));
  EXPECT_GE(t.clock.NowMs() - before, 1000);
  EXPECT_EQ(refused, 2);
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDRegInfo.TXT")), Fresh("4711", "10.0.0.1", "1,0,2,3"));
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
}

TEST(SettingsSave, AFileHeldForLongerKeepsItsBytesAndTheSaveFails) {
  TestAgent t;
  const std::string old_bytes = Fresh("1111", "10.0.0.1", "1,0,2,3");
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), old_bytes);
  LoadConfiguration(*t);
  FaultFileSystem files;
  files.refuse_rename = [](const std::string&) { return true; };
  t->file_system = &files;
  t->settings.Ext = "4711";
  EXPECT_FALSE(SaveExt(*t));
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error saving settings: Path/File access error");
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDRegInfo.TXT")), old_bytes);
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
}

// ---------------------------------------------------------------- a full disk

TEST(SettingsOnAFullDisk, APerSettingSaveKeepsTheOldFileAndLogsDiskFull) {
  TestAgent t;
  const std::string old_bytes = Fresh("1111", "10.0.0.1", "1,0,2,3");
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), old_bytes);
  LoadConfiguration(*t);
  FaultFileSystem files;
  files.FullEverywhere();
  t->file_system = &files;
  t->settings.Ext = "4711";
  EXPECT_FALSE(SaveExt(*t));
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDRegInfo.TXT")), old_bytes);
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
  // The trace cannot be written either; the event log still has the line.
  ASSERT_FALSE(t.event_log.entries.empty());
  EXPECT_EQ(t.event_log.entries.back(), std::make_pair(1, std::string("Error saving settings: Disk full")));

  files.SpaceBack();
  t->settings.Ext = "4711";
  EXPECT_TRUE(SaveExt(*t));
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDRegInfo.TXT")), Fresh("4711", "10.0.0.1", "1,0,2,3"));
  EXPECT_EQ(t.Messages().back(), "Trace in TDACLI: Wrote Login Settings to config file");
}

TEST(SettingsOnAFullDisk, TheSaveAfterALoginKeepsTheOldFileAndLogsItsError) {
  TestAgent t;
  const std::string old_bytes = Fresh("1111", "10.0.0.1", "1,0,2,3");
  testing::WriteFile(t.dir.File("TDRegInfo.TXT"), old_bytes);
  LoadConfiguration(*t);
  FaultFileSystem files;
  // Only the settings file's folder entry is full: the trace still takes its lines.
  files.full = [&](const std::string& p) { return p == t.dir.File("TDRegInfo.tmp"); };
  t->file_system = &files;
  t->settings.SvrTemp = "\\\\fs01\\tdtemp\\";
  EXPECT_FALSE(SaveConfiguration(*t));
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Unable to write configuration information to file [" +
                                     t.dir.File("TDRegInfo.TXT") + "]: Disk full");
  EXPECT_EQ(testing::ReadFile(t.dir.File("TDRegInfo.TXT")), old_bytes);
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
}

}  // namespace
}  // namespace tdacli
