// The installer's pre-configured roll-out: "tdacli.exe /msi-preset ..." writes the settings file and
// the allowed-consoles list, never over an existing file, and refuses values that would plant lines.
#include "service/preset_files.h"

#include <gtest/gtest.h>

#include "support/fault_file_system.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::Exists;
using testing::ReadFile;
using testing::TempDir;
using testing::WriteFile;

const char* kExe = R"("C:\Program Files\Tyndrel\Agent Client\tdacli.exe")";

std::string Line(const std::string& args) { return std::string(kExe) + " " + args; }

std::string FreshFile(const std::string& ext, const std::string& server, const std::string& notify,
                      const std::string& ports) {
  return "Tyndrel - Agent Client Configuration\r\n[Config]\r\nExt=" + ext + "\r\nServer=" + server +
         "\r\nUseTrace=False\r\nLocalTemp=Unknown\r\nCurrentUser=N/A\r\nCurrentEvent=N/A\r\nSvrTemp=Unknown\r\n"
         "NotificationMethod=" + notify + "\r\nPopEx=false\r\nPopWinName=false\r\nListeningPorts=" + ports + "\r\n";
}

TEST(PresetSwitch, OtherCommandLinesAreNotTheSwitch) {
  TempDir dir;
  for (const char* cmd : {"", kExe, R"("C:\x\tdacli.exe" /s)", R"("C:\x\tdacli.exe" /u /s)",
                          R"("C:\x\tdacli.exe" /s /msi-preset "SERVER=1.2.3.4")", R"(tdacli.exe /msi-presets)"})
    EXPECT_FALSE(RunPresetSwitch(cmd, dir.path())) << cmd;
  EXPECT_FALSE(Exists(dir.File("TDRegInfo.TXT")));
}

TEST(PresetSwitch, WritesAFreshSettingsFileWithTheGivenValues) {
  TempDir dir;
  auto rc = RunPresetSwitch(Line(R"(/msi-preset "SERVER=127.0.0.1" "EXT=4711" "LISTENINGPORTS=" "NOTIFICATIONMETHOD=" "CONSOLEHOSTS=")"),
                            dir.path());
  ASSERT_TRUE(rc);
  EXPECT_EQ(*rc, 0);
  EXPECT_EQ(ReadFile(dir.File("TDRegInfo.TXT")), FreshFile("4711", "127.0.0.1", "FileMessage", "w,x,y,z"));
  EXPECT_FALSE(Exists(dir.File("TDACLI-AllowedConsoles.TXT")));
}

TEST(PresetSwitch, AllFourSettingsAndTheConsoles) {
  TempDir dir;
  auto rc = RunPresetSwitch(
      Line(R"(/msi-preset "SERVER=10.1.1.1:8080" "EXT=200" "LISTENINGPORTS=5001,6000,6001,6002" )"
           R"("NOTIFICATIONMETHOD=ServiceMessage" "CONSOLEHOSTS=127.0.0.2, 10.20.0.0/16")"),
      dir.path());
  ASSERT_TRUE(rc);
  EXPECT_EQ(*rc, 0);
  EXPECT_EQ(ReadFile(dir.File("TDRegInfo.TXT")),
            FreshFile("200", "10.1.1.1:8080", "ServiceMessage", "5001,6000,6001,6002"));
  EXPECT_EQ(ReadFile(dir.File("TDACLI-AllowedConsoles.TXT")),
            "# Consoles allowed on the command port (written at installation)\r\n127.0.0.2\r\n10.20.0.0/16\r\n");
}

TEST(PresetSwitch, NothingGivenWritesNothing) {
  TempDir dir;
  auto rc = RunPresetSwitch(Line(R"(/msi-preset "SERVER=" "EXT=" "LISTENINGPORTS=" "NOTIFICATIONMETHOD=" "CONSOLEHOSTS=")"),
                            dir.path());
  ASSERT_TRUE(rc);
  EXPECT_EQ(*rc, 0);
  EXPECT_FALSE(Exists(dir.File("TDRegInfo.TXT")));
  EXPECT_FALSE(Exists(dir.File("TDACLI-AllowedConsoles.TXT")));
}

TEST(PresetSwitch, AnExistingFileIsNeverOverwritten) {
  TempDir dir;
  WriteFile(dir.File("TDRegInfo.TXT"), "Server=10.9.9.9\r\nMyOwnLine\r\n");
  WriteFile(dir.File("TDACLI-AllowedConsoles.TXT"), "10.0.0.1\r\n");
  auto rc = RunPresetSwitch(Line(R"(/msi-preset "SERVER=127.0.0.1" "EXT=4711" "CONSOLEHOSTS=127.0.0.2")"), dir.path());
  ASSERT_TRUE(rc);
  EXPECT_EQ(*rc, 0);
  EXPECT_EQ(ReadFile(dir.File("TDRegInfo.TXT")), "Server=10.9.9.9\r\nMyOwnLine\r\n");
  EXPECT_EQ(ReadFile(dir.File("TDACLI-AllowedConsoles.TXT")), "10.0.0.1\r\n");
}

TEST(PresetSwitch, ValuesThatWouldPlantLinesOrPiecesAreRefused) {
  TempDir dir;
  for (const std::string& args :
       {std::string("/msi-preset \"EXT=12\r\nServer=6.6.6.6\""), std::string("/msi-preset \"EXT=1") + '\0' + "2\"",
        std::string(R"(/msi-preset "SERVER=a"b")"), std::string(R"(/msi-preset "SERVER=a"EXT=5")"),
        std::string(R"(/msi-preset "PASSWORD=x")"), std::string(R"(/msi-preset SERVER)"),
        std::string(R"(/msi-preset "CONSOLEHOSTS=127.0.0.1,console7")"),
        std::string(R"(/msi-preset "CONSOLEHOSTS=10.0.0.0/33")"),
        "/msi-preset \"SERVER=" + std::string(2000, 'x') + "\""}) {
    auto rc = RunPresetSwitch(Line(args), dir.path());
    ASSERT_TRUE(rc) << args;
    EXPECT_EQ(*rc, kPresetInvalidValue) << args;
  }
  EXPECT_FALSE(Exists(dir.File("TDRegInfo.TXT")));
  EXPECT_FALSE(Exists(dir.File("TDACLI-AllowedConsoles.TXT")));
}

TEST(PresetSwitch, AFolderThatCannotBeWrittenFailsTheSwitch) {
  TempDir dir;
  auto rc = RunPresetSwitch(Line(R"(/msi-preset "SERVER=127.0.0.1")"), dir.File("no-such-folder"));
  ASSERT_TRUE(rc);
  EXPECT_EQ(*rc, kPresetWriteFailed);
}

TEST(PresetFiles, BothAreFlushedToTheDiskAndPutInPlaceOnlyWhereNoFileIs) {
  TempDir dir;
  testing::FaultFileSystem files;
  PresetValues v;
  v.server = "10.1.1.1";
  v.console_hosts = "127.0.0.2";
  std::string log;
  EXPECT_EQ(WritePresetFiles(dir.path(), v, log, files), kPresetOk);
  const std::string settings = dir.File("TDRegInfo.TXT"), consoles = dir.File("TDACLI-AllowedConsoles.TXT");
  EXPECT_EQ(files.steps, (std::vector<std::string>{
                             "Write " + dir.File("~TDRegInfo_TXT.tdtmp") + " flushed",
                             "Rename " + dir.File("~TDRegInfo_TXT.tdtmp") + " -> " + settings + " durable",
                             "Write " + dir.File("~TDACLI-AllowedConsoles_TXT.tdtmp") + " flushed",
                             "Rename " + dir.File("~TDACLI-AllowedConsoles_TXT.tdtmp") + " -> " + consoles + " durable"}));
  EXPECT_EQ(files.file_flushes, 2);
  EXPECT_EQ(files.folder_flushes, 2);
  EXPECT_EQ(log, "TDRegInfo.TXT written\nTDACLI-AllowedConsoles.TXT written\n");
}

TEST(PresetFiles, AFileThatAppearsWhileTheyAreWrittenIsLeftAsItIs) {
  TempDir dir;
  testing::FaultFileSystem files;
  const std::string settings = dir.File("TDRegInfo.TXT");
  files.before = [&](const std::string& step) {
    if (step.rfind("Rename ", 0) == 0 && !Exists(settings)) WriteFile(settings, "Server=10.9.9.9\r\n");
  };
  PresetValues v;
  v.server = "10.1.1.1";
  std::string log;
  EXPECT_EQ(WritePresetFiles(dir.path(), v, log, files), kPresetOk);
  EXPECT_EQ(ReadFile(settings), "Server=10.9.9.9\r\n");
  EXPECT_EQ(log, "TDRegInfo.TXT exists and is left as it is\n");
  EXPECT_FALSE(Exists(dir.File("~TDRegInfo_TXT.tdtmp")));
}

TEST(PresetFiles, TheSettingsOfAnInterruptedSaveAreLeftForTheAgent) {
  TempDir dir;
  const std::string saved = FreshFile("200", "10.2.2.2", "FileMessage", "w,x,y,z");
  WriteFile(dir.File("TDRegInfo.tmp"), saved);
  PresetValues v;
  v.server = "10.1.1.1";
  std::string log;
  EXPECT_EQ(WritePresetFiles(dir.path(), v, log), kPresetOk);
  EXPECT_FALSE(Exists(dir.File("TDRegInfo.TXT")));
  EXPECT_EQ(ReadFile(dir.File("TDRegInfo.tmp")), saved);
  EXPECT_EQ(log, "TDRegInfo.tmp holds the settings of an interrupted save and is left for the agent\n");
  // A part of one is not settings: the preset is written.
  WriteFile(dir.File("TDRegInfo.tmp"), saved.substr(0, 50));
  log.clear();
  EXPECT_EQ(WritePresetFiles(dir.path(), v, log), kPresetOk);
  EXPECT_EQ(log, "TDRegInfo.TXT written\n");
}

}  // namespace
}  // namespace tdacli
