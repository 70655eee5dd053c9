#include "config/configuration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>

#include "common/files.h"
#include "common/text.h"
#include "listener/listener.h"
#include "listener/listening_port.h"
#include "platform/tcp_socket.h"
#include "service/lifecycle.h"
#include "support/fault_file_system.h"
#include "support/test_agent.h"


namespace tdacli {
namespace {

using platform::TcpSocket;
using testing::TestAgent;

std::string Crlf(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& l : lines) out += l + "\r\n";
  return out;
}

bool Logged(TestAgent& t, const std::string& line) {
  auto msgs = t.Messages();
  return std::find(msgs.begin(), msgs.end(), line) != msgs.end();
}

std::string SettingsPath(TestAgent& t) { return t.dir.File("TDRegInfo.TXT"); }

// ---------------------------------------------------------------- loading

TEST(LoadConfiguration, MissingFileGivesDefaultsAndLeavesWindowsFolder) {
  TestAgent t;
  t->settings.Server = "10.9.9.9";
  t->windows_folder = "untouched";
  LoadConfiguration(*t);
  const Settings& s = t->settings;
  EXPECT_EQ(s.Server, "127.0.0.1");
  EXPECT_EQ(s.Ext, "1234");
  EXPECT_EQ(s.LocalTemp, "Unknown");  // not lower-cased: no expansion without a file
  EXPECT_EQ(s.SvrTemp, "Unknown");
  EXPECT_EQ(s.CurrentUser, "N/A");
  EXPECT_EQ(s.CurrentEvent, "N/A");
  EXPECT_EQ(s.UseTrace, "False");
  EXPECT_EQ(s.NotificationMethod, "FileMessage");
  EXPECT_EQ(s.ListeningPorts, "w,x,y,z");
  EXPECT_EQ(s.PopEx, "false");
  EXPECT_EQ(s.PopWinName, "false");
  EXPECT_EQ(t->windows_folder, "untouched");
}

TEST(LoadConfiguration, ReadsAllElevenKeys) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Tyndrel - Agent Client Configuration", "[Config]", "Ext=4321",
                                            "Server=10.1.2.3", "UseTrace=True", "LocalTemp=d:\\cap\\",
                                            "CurrentUser=jsmith", "CurrentEvent=Shift2", "SvrTemp=\\\\srv\\temp",
                                            "NotificationMethod=Socket", "PopEx=true", "PopWinName=True",
                                            "ListeningPorts=5001,6000,6001,6002"}));
  LoadConfiguration(*t);
  const Settings& s = t->settings;
  EXPECT_EQ(s.Ext, "4321");
  EXPECT_EQ(s.Server, "10.1.2.3");
  EXPECT_EQ(s.UseTrace, "True");
  EXPECT_EQ(s.LocalTemp, "d:\\cap\\");
  EXPECT_EQ(s.CurrentUser, "jsmith");
  EXPECT_EQ(s.CurrentEvent, "Shift2");
  EXPECT_EQ(s.SvrTemp, "\\\\srv\\temp");
  EXPECT_EQ(s.NotificationMethod, "Socket");
  EXPECT_EQ(s.PopEx, "true");
  EXPECT_EQ(s.PopWinName, "True");
  EXPECT_EQ(s.ListeningPorts, "5001,6000,6001,6002");
}

TEST(LoadConfiguration, BlanksAroundEqualsSignMakeTheLineUnknown) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Server = 10.0.0.1"}));
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Server, "127.0.0.1");
}

TEST(LoadConfiguration, KeyInOtherCaseIsIgnored) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"ext=9999", "SERVER=10.0.0.2"}));
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Ext, "1234");
  EXPECT_EQ(t->settings.Server, "127.0.0.1");
}

TEST(LoadConfiguration, KeyWithNothingAfterEqualsKeepsDefault) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Server=10.0.0.5", "Server="}));
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Server, "10.0.0.5");  // the empty line does not clear the earlier value
  testing::WriteFile(SettingsPath(t), Crlf({"Server="}));
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Server, "127.0.0.1");
}

TEST(LoadConfiguration, ValueKeepsFurtherEqualsSignsAndBlanks) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"SvrTemp=a=b=c", "Ext= 55 "}));
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.SvrTemp, "a=b=c");
  EXPECT_EQ(t->settings.Ext, " 55 ");
}

TEST(LoadConfiguration, RepeatedKeyTakesLastValue) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Ext=1", "Ext=2", "Ext=3"}));
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Ext, "3");
}

TEST(LoadConfiguration, DefaultsAreAppliedBeforeEveryRead) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Ext=777", "PopEx=true"}));
  LoadConfiguration(*t);
  testing::WriteFile(SettingsPath(t), Crlf({"PopEx=true"}));
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Ext, "1234");
  EXPECT_EQ(t->settings.PopEx, "true");
}

TEST(LoadConfiguration, SetsWindowsFolderFromHost) {
  TestAgent t;
  t.host.windows_dir = std::string("C:\\WINDOWS\\") + '\0' + "junk";
  testing::WriteFile(SettingsPath(t), Crlf({"Ext=1"}));
  LoadConfiguration(*t);
  EXPECT_EQ(t->windows_folder, "C:\\WINDOWS\\");
}

TEST(LoadConfiguration, WindirPlaceholderInUpperCaseBecomesWindowsFolder) {
  TestAgent t;
  t.host.windows_dir = "C:\\WINDOWS\\";
  testing::WriteFile(SettingsPath(t), Crlf({"LocalTemp=C:\\%WINDIR%\\Temp\\"}));
  LoadConfiguration(*t);
  // Lower-cased before the placeholder is replaced; the Windows folder is put in as the system gives it.
  EXPECT_EQ(t->settings.LocalTemp, "C:\\WINDOWS\\temp\\");
}

TEST(LoadConfiguration, PlaceholdersMatchInAnyCase) {
  TestAgent t;
  t.host.windows_dir = "C:\\Windows\\";
  for (const std::string placeholder : {"c:\\%windir%\\", "C:\\%WinDir%\\", "c:\\%WINDIR%\\"}) {
    testing::WriteFile(SettingsPath(t), Crlf({"LocalTemp=" + placeholder + "Cap\\"}));
    LoadConfiguration(*t);
    EXPECT_EQ(t->settings.LocalTemp, "C:\\Windows\\cap\\") << placeholder;
  }
  for (const std::string placeholder : {"c:\\%appdir%\\", "C:\\%APPDIR%\\", "c:\\%AppDir%\\"}) {
    testing::WriteFile(SettingsPath(t), Crlf({"LocalTemp=" + placeholder + "Frames\\"}));
    LoadConfiguration(*t);
    EXPECT_EQ(t->settings.LocalTemp, t->app_folder + "frames\\") << placeholder;
  }
}

TEST(LoadConfiguration, LocalTempWithoutPlaceholderIsLowerCased) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"LocalTemp=D:\\Capture\\TEMP\\"}));
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.LocalTemp, "d:\\capture\\temp\\");
}

TEST(LoadConfiguration, WindirWithUnknownWindowsFolderLeavesTheRest) {
  TestAgent t;
  t.host.windows_dir = "";
  testing::WriteFile(SettingsPath(t), Crlf({"LocalTemp=c:\\%windir%\\Temp\\"}));
  LoadConfiguration(*t);
  EXPECT_EQ(t->windows_folder, "");
  EXPECT_EQ(t->settings.LocalTemp, "temp\\");
}

TEST(LoadConfiguration, AcceptsLineEndsOtherThanCrLf) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), "Ext=11\nServer=10.0.0.9\rPopEx=yes");
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Ext, "11");
  EXPECT_EQ(t->settings.Server, "10.0.0.9");
  EXPECT_EQ(t->settings.PopEx, "yes");
}

TEST(ParseSettings, IgnoresSectionTitleAndUnknownLines) {
  Settings s = ParseSettings("Tyndrel - Agent Client Configuration\r\n[Config]\r\nColour=Blue\r\n=x\r\nExt=9\r\n");
  EXPECT_EQ(s.Ext, "9");
  EXPECT_EQ(s.Server, "127.0.0.1");
}

TEST(ExpandLocalTemp, ReplacesEveryOccurrence) {
  TestAgent t;
  t.host.windows_dir = "W:\\";
  EXPECT_EQ(ExpandLocalTemp(*t, "C:\\%WINDIR%\\a;c:\\%windir%\\B"), "W:\\a;W:\\b");
}

// ---------------------------------------------------------------- whole save

TEST(SaveConfiguration, WithoutFileWritesFreshThirteenLines) {
  TestAgent t;
  Settings& s = t->settings;
  s.Ext = "4321";
  s.Server = "10.1.2.3";
  s.UseTrace = "True";
  s.LocalTemp = "d:\\cap\\";
  s.CurrentUser = "jsmith";
  s.CurrentEvent = "Shift2";
  s.SvrTemp = "\\\\srv\\temp";
  s.NotificationMethod = "Socket";
  s.PopEx = "true";
  s.PopWinName = "false";
  s.ListeningPorts = "5001,6000,6001,6002";
  ASSERT_TRUE(SaveConfiguration(*t));
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)),
            "Tyndrel - Agent Client Configuration\r\n"
            "[Config]\r\n"
            "Ext=4321\r\n"
            "Server=10.1.2.3\r\n"
            "UseTrace=True\r\n"
            "LocalTemp=d:\\cap\\\r\n"
            "CurrentUser=jsmith\r\n"
            "CurrentEvent=Shift2\r\n"
            "SvrTemp=\\\\srv\\temp\r\n"
            "NotificationMethod=Socket\r\n"
            "PopEx=true\r\n"
            "PopWinName=false\r\n"
            "ListeningPorts=5001,6000,6001,6002\r\n");
  EXPECT_TRUE(Logged(t, "Trace in TDACLI: Wrote Login Settings to config file"));
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
}

TEST(SaveConfiguration, DefaultsGiveTheFreshFileOfDefaults) {
  TestAgent t;
  ASSERT_TRUE(SaveConfiguration(*t));
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)),
            Crlf({"Tyndrel - Agent Client Configuration", "[Config]", "Ext=1234", "Server=127.0.0.1",
                  "UseTrace=False", "LocalTemp=Unknown", "CurrentUser=N/A", "CurrentEvent=N/A", "SvrTemp=Unknown",
                  "NotificationMethod=FileMessage", "PopEx=false", "PopWinName=false", "ListeningPorts=w,x,y,z"}));
}

TEST(SaveConfiguration, KeepsHandMadeLinesAndUnknownKeysAndUpdatesOnlySixKeys) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Tyndrel - Agent Client Configuration", "[Config]",
                                            "; set up by hand for the night shift", "Ext=5555",
                                            "Server=10.9.8.7", "UseTrace=False", "", "LocalTemp=c:\\old\\",
                                            "CurrentUser=jsmith", "CurrentEvent=N/A", "SvrTemp=\\\\old\\share",
                                            "NotificationMethod=FileMessage", "AgentColour=Blue",
                                            "ListeningPorts=w,x,y,z"}));
  Settings& s = t->settings;
  s.Ext = "9999";  // differs from the file: a whole save leaves the file's value
  s.Server = "1.1.1.1";
  s.CurrentUser = "other";
  s.CurrentEvent = "Shift9";
  s.NotificationMethod = "Socket";
  s.SvrTemp = "\\\\srv\\temp";
  s.LocalTemp = "d:\\cap\\";
  s.UseTrace = "True";
  s.PopEx = "true";
  s.PopWinName = "false";
  s.ListeningPorts = "5001,6000,6001,6002";
  ASSERT_TRUE(SaveConfiguration(*t));
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)),
            "Tyndrel - Agent Client Configuration\r\n"
            "[Config]\r\n"
            "; set up by hand for the night shift\r\n"
            "Ext=5555\r\n"
            "Server=10.9.8.7\r\n"
            "UseTrace=True\r\n"
            "LocalTemp=d:\\cap\\\r\n"
            "CurrentUser=jsmith\r\n"
            "CurrentEvent=N/A\r\n"
            "SvrTemp=\\\\srv\\temp\r\n"
            "NotificationMethod=FileMessage\r\n"
            "AgentColour=Blue\r\n"
            "ListeningPorts=5001,6000,6001,6002\r\n"
            "PopEx=true\r\n"
            "PopWinName=false\r\n");
  EXPECT_EQ(s.Ext, "9999");  // memory is not touched by a whole save
}

TEST(SaveConfiguration, LineHoldingAKeyAnywhereIsThatKeysLine) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Title", "OldSvrTemp=legacy", "MyPopWinName=x", "LocalTemp=a"}));
  t->settings.SvrTemp = "S";
  t->settings.PopWinName = "P";
  t->settings.LocalTemp = "L";
  ASSERT_TRUE(SaveConfiguration(*t));
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)),
            Crlf({"Title", "SvrTemp=S", "PopWinName=P", "LocalTemp=L", "UseTrace=False", "PopEx=false",
                  "ListeningPorts=w,x,y,z"}));
}

TEST(SaveConfiguration, FileOfTwentyFiveLinesKeepsOnlyTheFirstTwenty) {
  TestAgent t;
  std::vector<std::string> lines = {"Tyndrel - Agent Client Configuration", "[Config]"};
  for (int i = 2; i < 20; ++i) lines.push_back("Note" + std::to_string(i) + "=kept");
  lines.push_back("UseTrace=True");  // line 21: read into the table's last entry, never written
  for (int i = 21; i < 25; ++i) lines.push_back("Note" + std::to_string(i) + "=lost");
  ASSERT_EQ(lines.size(), 25u);
  testing::WriteFile(SettingsPath(t), Crlf(lines));
  t->settings.UseTrace = "False";
  t->settings.SvrTemp = "\\\\srv\\temp";
  ASSERT_TRUE(SaveConfiguration(*t));

  std::vector<std::string> expected(lines.begin(), lines.begin() + 20);
  for (const std::string l : {"SvrTemp=\\\\srv\\temp", "LocalTemp=Unknown", "UseTrace=False", "PopEx=false",
                              "PopWinName=false", "ListeningPorts=w,x,y,z"})
    expected.push_back(l);
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)), Crlf(expected));
  EXPECT_EQ(t->stored_lines[20], "UseTrace=True");  // the table keeps what was read
  EXPECT_EQ(t->stored_lines[19], "Note19=kept");
}

TEST(SaveConfiguration, ShorterFileClearsTheEntriesOfAnEarlierLongerOne) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"T", "A=1", "B=2", "C=3"}));
  ASSERT_TRUE(SaveConfiguration(*t));
  testing::WriteFile(SettingsPath(t), Crlf({"T", "A=1"}));
  ASSERT_TRUE(SaveConfiguration(*t));
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)),
            Crlf({"T", "A=1", "SvrTemp=Unknown", "LocalTemp=Unknown", "UseTrace=False", "PopEx=false",
                  "PopWinName=false", "ListeningPorts=w,x,y,z"}));
}

TEST(SaveConfiguration, EmptyFirstLineGivesTheFreshFile) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"", "Colour=Blue", "Ext=5"}));
  t->settings.Ext = "6";
  ASSERT_TRUE(SaveConfiguration(*t));
  auto lines = testing::Lines(SettingsPath(t));
  ASSERT_EQ(lines.size(), 13u);
  EXPECT_EQ(lines[0], "Tyndrel - Agent Client Configuration");
  EXPECT_EQ(lines[2], "Ext=6");
}

TEST(SaveConfiguration, WithoutFileUsesTheLinesReadLastTime) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Title", "Colour=Blue"}));
  ASSERT_TRUE(SaveConfiguration(*t));
  std::filesystem::remove(SettingsPath(t));
  t->settings.PopEx = "true";
  ASSERT_TRUE(SaveConfiguration(*t));
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)),
            Crlf({"Title", "Colour=Blue", "SvrTemp=Unknown", "LocalTemp=Unknown", "UseTrace=False", "PopEx=true",
                  "PopWinName=false", "ListeningPorts=w,x,y,z"}));
}

TEST(SaveConfiguration, LeftoverTemporaryFileIsReplaced) {
  TestAgent t;
  testing::WriteFile(t.dir.File("TDRegInfo.tmp"), "half-written leftover\r\n");
  testing::WriteFile(SettingsPath(t), Crlf({"Title", "[Config]"}));
  ASSERT_TRUE(SaveConfiguration(*t));
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)),
            Crlf({"Title", "[Config]", "SvrTemp=Unknown", "LocalTemp=Unknown", "UseTrace=False", "PopEx=false",
                  "PopWinName=false", "ListeningPorts=w,x,y,z"}));
}

TEST(SaveConfiguration, ReplacesExistingFileWithoutPauseWhenItCanBeDeleted) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Title"}));
  const int64_t before = t.clock.NowMs();
  ASSERT_TRUE(SaveConfiguration(*t));
  // The target is deleted before the move, so the move itself has nothing to wait for.
  EXPECT_EQ(t.clock.NowMs(), before);
}

TEST(SaveConfiguration, ReplacesTheFileInOneStepWithoutDeletingItFirst) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Title"}));
  const std::string target = SettingsPath(t);
  const std::string temporary = t.dir.File("TDRegInfo.tmp");
  int asked = 0;
  t->refuse_delete = [&](const std::string& p) { return p == target && ++asked > 0; };
  testing::FaultFileSystem files;
  t->file_system = &files;
  const int64_t before = t.clock.NowMs();
  ASSERT_TRUE(SaveConfiguration(*t));
  // Never deleted, never waited for: written beside, flushed, and renamed over it with its folder
  // flushed.
  EXPECT_EQ(asked, 0);
  EXPECT_EQ(t.clock.NowMs(), before);
  EXPECT_EQ(files.steps[0], "Write " + temporary + " flushed");
  EXPECT_EQ(files.steps[1], "Rename " + temporary + " -> " + target + " durable");
  EXPECT_EQ(files.file_flushes, 1);
  EXPECT_EQ(files.folder_flushes, 1);
  EXPECT_EQ(testing::Lines(target).size(), 7u);
  EXPECT_FALSE(testing::Exists(temporary));
}

TEST(MoveFile, OntoExistingDestinationPausesOneSecondOnTheAgentsClock) {
  TestAgent t;
  testing::WriteFile(t.dir.File("a.tmp"), "new");
  testing::WriteFile(t.dir.File("a.TXT"), "old");
  const int64_t before = t.clock.NowMs();
  const auto real_start = std::chrono::steady_clock::now();
  MoveFile(*t, t.dir.File("a.tmp"), t.dir.File("a.TXT"));
  const auto real_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - real_start).count();
  EXPECT_GE(t.clock.NowMs() - before, 1000);
  EXPECT_LT(real_ms, 900);
  EXPECT_EQ(testing::ReadFile(t.dir.File("a.TXT")), "new");
  EXPECT_FALSE(testing::Exists(t.dir.File("a.tmp")));
}

TEST(SaveConfiguration, UnwritableTemporaryFileIsLoggedAndGivesFalse) {
  TestAgent t;
  testing::WriteFile(SettingsPath(t), Crlf({"Title", "Ext=5"}));
  // A folder under the temporary file's name, not empty, so it can be neither deleted nor opened.
  std::filesystem::create_directory(t.dir.File("TDRegInfo.tmp"));
  testing::WriteFile(t.dir.File("TDRegInfo.tmp") + kSepStr + "x", "x");
  EXPECT_FALSE(SaveConfiguration(*t));
  const std::string msg = "Unable to write configuration information to file [" + SettingsPath(t) +
                          "]: Path/File access error";
  EXPECT_TRUE(Logged(t, "Error in TDACLI: " + msg));
  ASSERT_FALSE(t.event_log.entries.empty());
  EXPECT_EQ(t.event_log.entries.back(), std::make_pair(1, msg));
  EXPECT_FALSE(Logged(t, "Trace in TDACLI: Wrote Login Settings to config file"));
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)), Crlf({"Title", "Ext=5"}));
}

// ---------------------------------------------------------------- per-setting saves

struct PerSettingCase {
  const char* name;
  bool (*save)(Agent&);
  std::string Settings::*field;
  const char* line_prefix;
  const char* new_value;
};

class PerSettingSave : public ::testing::TestWithParam<PerSettingCase> {};

TEST_P(PerSettingSave, WritesFreshFileWithFileValuesAndTheNewOne) {
  const PerSettingCase& c = GetParam();
  TestAgent t;
  const std::vector<std::string> file = {
      "Tyndrel - Agent Client Configuration", "[Config]", "; set up by hand", "AgentColour=Blue", "Ext=5555",
      "Server=10.9.8.7", "UseTrace=False", "LocalTemp=D:\\Capture\\", "CurrentUser=jsmith", "CurrentEvent=N/A",
      "SvrTemp=\\\\old\\share", "NotificationMethod=FileMessage", "PopEx=false", "PopWinName=false",
      "ListeningPorts=w,x,y,z"};
  testing::WriteFile(SettingsPath(t), Crlf(file));
  LoadConfiguration(*t);
  // Changed in memory but never saved: these go back to the file's values.
  t->settings.CurrentUser = "unsaved";
  t->settings.Ext = "0000";
  t->settings.ListeningPorts = "9,9,9,9";
  t->settings.*c.field = c.new_value;
  ASSERT_TRUE(c.save(*t)) << c.name;

  std::vector<std::string> expected = {"Tyndrel - Agent Client Configuration",
                                       "[Config]",
                                       "Ext=5555",
                                       "Server=10.9.8.7",
                                       "UseTrace=False",
                                       "LocalTemp=d:\\capture\\",  // as loaded: lower-cased
                                       "CurrentUser=jsmith",
                                       "CurrentEvent=N/A",
                                       "SvrTemp=\\\\old\\share",
                                       "NotificationMethod=FileMessage",
                                       "PopEx=false",
                                       "PopWinName=false",
                                       "ListeningPorts=w,x,y,z"};
  for (auto& l : expected)
    if (StartsWith(l, c.line_prefix)) l = std::string(c.line_prefix) + c.new_value;
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)), Crlf(expected)) << c.name;
  EXPECT_EQ(t->settings.*c.field, c.new_value);
  EXPECT_EQ(t->settings.CurrentUser, "jsmith");
  EXPECT_TRUE(Logged(t, "Trace in TDACLI: Wrote Login Settings to config file"));
  EXPECT_EQ(t->stored_lines[0], "");
  EXPECT_FALSE(testing::Exists(t.dir.File("TDRegInfo.tmp")));
}

TEST_P(PerSettingSave, UnwritableFileIsLoggedAsErrorSavingSettings) {
  const PerSettingCase& c = GetParam();
  TestAgent t;
  std::filesystem::create_directory(t.dir.File("TDRegInfo.tmp"));
  testing::WriteFile(t.dir.File("TDRegInfo.tmp") + kSepStr + "x", "x");
  t->settings.*c.field = c.new_value;
  EXPECT_FALSE(c.save(*t)) << c.name;
  EXPECT_TRUE(Logged(t, "Error in TDACLI: Error saving settings: Path/File access error"));
  EXPECT_FALSE(testing::Exists(SettingsPath(t)));
  EXPECT_TRUE(t.service_control.sent.empty());
}

INSTANTIATE_TEST_SUITE_P(
    AllSaves, PerSettingSave,
    // The listening ports name port 0 (any free port), so the re-opened listener cannot collide.
    ::testing::Values(PerSettingCase{"SaveExt", &SaveExt, &Settings::Ext, "Ext=", "4711"},
                      PerSettingCase{"SaveServer", &SaveServer, &Settings::Server, "Server=", "td.example:8443"},
                      PerSettingCase{"SaveNotificationMethod", &SaveNotificationMethod, &Settings::NotificationMethod,
                                     "NotificationMethod=", "Socket"},
                      PerSettingCase{"SaveListeningPorts", &SaveListeningPorts, &Settings::ListeningPorts,
                                     "ListeningPorts=", "5001,0,6001,6002"},
                      PerSettingCase{"SavePopEx", &SavePopEx, &Settings::PopEx, "PopEx=", "true"},
                      PerSettingCase{"SavePopWinName", &SavePopWinName, &Settings::PopWinName, "PopWinName=",
                                     "True"}),
    [](const ::testing::TestParamInfo<PerSettingCase>& info) { return std::string(info.param.name); });

TEST(PerSettingSave, WithoutFileWritesDefaultsAndTheNewValue) {
  TestAgent t;
  t->settings.Server = "10.20.30.40";
  t->settings.Ext = "lost";  // reloaded from the (missing) file: back to the default
  ASSERT_TRUE(SaveServer(*t));
  EXPECT_EQ(testing::ReadFile(SettingsPath(t)),
            Crlf({"Tyndrel - Agent Client Configuration", "[Config]", "Ext=1234", "Server=10.20.30.40",
                  "UseTrace=False", "LocalTemp=Unknown", "CurrentUser=N/A", "CurrentEvent=N/A", "SvrTemp=Unknown",
                  "NotificationMethod=FileMessage", "PopEx=false", "PopWinName=false", "ListeningPorts=w,x,y,z"}));
  EXPECT_EQ(t->settings.Ext, "1234");
}

// ---------------------------------------------------------------- start-up banner

TEST(StartupBanner, ShowsTheSettingsOfARealSettingsFile) {
  TestAgent t;
  const uint16_t port = testing::FreeListenPort(t->loop());
  ASSERT_NE(port, 0);
  testing::WriteFile(SettingsPath(t),
                     Crlf({"Tyndrel - Agent Client Configuration", "[Config]", "Ext=4321", "Server=10.1.2.3",
                           "UseTrace=False", "LocalTemp=C:\\%APPDIR%\\Capture\\", "CurrentUser=jsmith",
                           "CurrentEvent=N/A", "SvrTemp=\\\\srv\\temp", "NotificationMethod=Socket", "PopEx=false",
                           "PopWinName=false", "ListeningPorts=5001," + std::to_string(port) + ",5003,5004"}));
  Form_Load(*t);
  AttachServiceHost(*t, true);
  t.service_host.events.on_start();
  t->loop().RunFor(1500);

  const std::string banner = "TD Agent Client Login Service Started\r\n\r\n"
                             "Version: 3.0 (Build: 107)\r\n"
                             "TD Server: 10.1.2.3(Port: 5003)\r\n"
                             "Extension: 4321\r\n"
                             "Notification Method: Socket\r\n"
                             "Use File Trace: False\r\n"
                             "Listening Port: " + std::to_string(port) + "\r\n"
                             "Running As: WinService\r\n";
  auto& entries = t.event_log.entries;
  EXPECT_NE(std::find(entries.begin(), entries.end(), std::make_pair(4, banner)), entries.end());
  EXPECT_NE(testing::ReadFile(t.ProgramTrace()).find("Information in TDACLI: " + banner), std::string::npos);
  EXPECT_EQ(listener::ListenerOf(*t).Listener().State(), TcpSocket::kListening);
  EXPECT_EQ(t->settings.LocalTemp, t->app_folder + "capture\\");
  EXPECT_FALSE(t->trigger_file_timer.Enabled());  // "Socket" does not start the trigger-file poller
}

TEST(StartupBanner, ServerWithColonIsShownWithoutThePortSuffix) {
  TestAgent t;
  const uint16_t port = testing::FreeListenPort(t->loop());
  testing::WriteFile(SettingsPath(t), Crlf({"Server=td.example:8443", "UseTrace=True", "NotificationMethod=FILEMESSAGE",
                                            "ListeningPorts=1," + std::to_string(port) + ",2,3"}));
  Form_Load(*t);
  AttachServiceHost(*t, true);
  t.service_host.events.on_start();
  t->loop().RunFor(1500);
  const std::string text = testing::ReadFile(t.ProgramTrace());
  EXPECT_NE(text.find("\r\nTD Server: td.example:8443\r\nExtension: 1234\r\nNotification Method: FILEMESSAGE\r\n"
                      "Use File Trace: True\r\n"),
            std::string::npos);
  EXPECT_TRUE(t->trigger_file_timer.Enabled());
}

}  // namespace
}  // namespace tdacli
