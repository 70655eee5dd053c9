// Every file the siblings read is written whole: under a temporary name beside it that none of them
// looks for, then renamed into place, so a sibling that reads it never finds half of it. These files
// are rebuilt at every login and are not flushed. On a full disk each writer logs its own error line
// with "61, Disk full" and leaves no temporary file.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "common/files.h"
#include "config/result_files.h"
#include "siblings/delivery.h"
#include "siblings/request_file.h"
#include "support/fault_file_system.h"
#include "support/test_agent.h"
#include "triggers/capture_files.h"

namespace tdacli {
namespace {

using testing::FaultFileSystem;
using testing::TestAgent;

struct Writer {
  const char* name;
  std::string file;                         // relative to the application folder
  std::function<void(Agent& agent)> write;  // writes it
  std::string bytes;                        // what it holds afterwards
};

std::vector<Writer> Writers() {
  const std::string rc = std::string("RC") + kSep + "TDACVC.INI";
  return {
      {"TDACFTP.INI", "TDACFTP.INI",
       [](Agent& a) {
         a.settings.SvrTemp = "\\\\fs01\\tdtemp\\:FTP@ftp.example.com:tduser:9F8E7D6C";
         SaveFtpCredentials(a);
       },
       "[Tyndrel - Agent Client - FTP Credentials]\r\n\r\n[Config]\r\nServerTemp=\\\\fs01\\tdtemp\\\r\n"
       "FTPServer=ftp.example.com\r\nUserName=tduser\r\nEncryptedPassword=9F8E7D6C\r\nPort=21\r\nSsl=False\r\n"
       "AuthTLS=False\r\nPassive=False\r\nPassiveUseHostAddr=False\r\nProtocol=FTP\r\n"},
      {"TDIPMASK.INI", "TDIPMASK.INI",
       [](Agent& a) {
         std::string mask = "192.168.5.";
         SaveValidIPMask(a, mask);
       },
       "[Tyndrel - Agent Client - Valid IP Mask]\r\n\r\n[Config]\r\nIPMask=192.168.5.\r\n"},
      {"TDLiveID.INI", "TDLiveID.INI",
       [](Agent& a) {
         a.WriteLogin().TDLiveID = "48213";
         a.WriteLogin().RepeaterIP = "10.1.2.3";
         a.WriteLogin().RepeaterPort = "5020";
         a.WriteLogin().PeerToPeerCapable = true;
         SaveLiveID(a);
       },
       "[LiveID]\r\nTDLiveID=48213\r\nRepeaterIP=10.1.2.3\r\nRepeaterPort=5020\r\nPeerToPeerCapable=True\r\n"},
      {"RC-TDACVC.INI", rc,
       [](Agent& a) {
         std::filesystem::create_directory(a.app_folder + "RC");
         CreateRemoteControlSettings(a);
       },
       "[Permissions]\r\n[admin]\r\nDisableTrayIcon=1\r\nAutoPortSelect=0\r\nPortNumber=5017\r\n"
       "HTTPPortNumber=5018\r\nHTTPConnect=1\r\nAuthRequired=0\r\n"},
      {"100ScreenParam.TXT", "100ScreenParam.TXT",
       [](Agent& a) {
         a.WriteLogin().KekInfo = "N/A";
         a.WriteLogin().HundredScreensParam = "SCR:010|ATLOGO:2|010|001";
         Make100ScreensParamFile(a);
       },
       "SCR:010|ATLOGO:2|010|001\r\n"},
      {"100Screen.KEK", "100Screen.KEK",
       [](Agent& a) {
         a.WriteLogin().KekInfo = "KEK-0001";
         a.WriteLogin().HundredScreensParam = "SCR:010";
         Make100ScreensParamFile(a);
       },
       "KEK-0001\r\n"},
      {"UseWebCam.TXT", "UseWebCam.TXT",
       [](Agent& a) {
         a.WriteLogin().UseWebCam = true;
         HandleWebCamTrigger(a);
       },
       "WEBCAM=True\r\n"},
      {"SendFrames-job7.TSF", "SendFrames-job7.TSF",
       [](Agent& a) { SendFrames(a, "|SENDFRAMES|a@b@job7@c"); }, "|SENDFRAMES|a@b@job7@c\r\n"},
      {"request file", "20261114231502.TDACSC", [](Agent& a) { MakeRequestFile(a, "TDACSC", "Code=135"); },
       "Code=135\r\n"},
  };
}

TEST(WrittenWhole, EveryFileForTheSiblingsAppearsInOneStepUnderItsOwnName) {
  for (const Writer& w : Writers()) {
    TestAgent t;
    t->local_ip = "192.168.5.20";
    FaultFileSystem files;
    const std::string path = t->app_folder + w.file;
    const std::string temporary = TemporaryNameBeside(path);
    std::vector<std::string> seen;
    files.before = [&](const std::string& step) {
      if (step.rfind("Append ", 0) != 0) seen.push_back(step + (testing::Exists(path) ? " (there)" : " (none)"));
    };
    t->file_system = &files;
    w.write(*t);
    EXPECT_EQ(testing::ReadFile(path), w.bytes) << w.name;
    // Only the step that renames can make it appear, and it appears whole.
    std::vector<std::string> expected = {"Write " + temporary + " (none)",
                                         "Rename " + temporary + " -> " + path + " (none)"};
    if (std::string(w.name) == "100Screen.KEK")
      expected.insert(expected.end(), {"Write " + TemporaryNameBeside(t->AppPath("100ScreenParam.TXT")) + " (there)",
                                       "Rename " + TemporaryNameBeside(t->AppPath("100ScreenParam.TXT")) + " -> " +
                                           t->AppPath("100ScreenParam.TXT") + " (there)"});
    EXPECT_EQ(seen, expected) << w.name;
    EXPECT_EQ(files.file_flushes + files.folder_flushes, 0) << w.name;
    EXPECT_FALSE(testing::Exists(temporary)) << w.name;
  }
}

TEST(WrittenWhole, TheLoadRequestForTheLoginDetectorToo) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  FaultFileSystem files;
  t->file_system = &files;
  RequestRemoteControlLoad(*t);
  const std::string path = t->app_folder + kSepStr + "20261114231502.TDACLD";
  EXPECT_EQ(testing::ReadFile(path), "LOAD=TDACVC\r\n");
  const std::string temporary = TemporaryNameBeside(path);
  ASSERT_GE(files.steps.size(), 2u);
  EXPECT_EQ(files.steps[0], "Write " + temporary);
  EXPECT_EQ(files.steps[1], "Rename " + temporary + " -> " + path);
}

TEST(WrittenWhole, AnEditedRemoteControlFileThatAppearsMeanwhileIsNeverReplaced) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  std::filesystem::create_directory(t->app_folder + "RC");
  const std::string path = t->app_folder + "RC" + kSepStr + "TDACVC.INI";
  FaultFileSystem files;
  files.before = [&](const std::string& step) {
    if (step.rfind("Rename ", 0) == 0) testing::WriteFile(path, "[admin]\r\nPortNumber=6000\r\n");
  };
  t->file_system = &files;
  CreateRemoteControlSettings(*t);
  EXPECT_EQ(testing::ReadFile(path), "[admin]\r\nPortNumber=6000\r\n");
  EXPECT_FALSE(testing::Exists(TemporaryNameBeside(path)));
}

TEST(WrittenWhole, OnAFullDiskEachWriterLogsDiskFullAndLeavesNothingBehind) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  t->startup_banner_written = true;
  FaultFileSystem files;
  // Full for everything but the trace, so that the lines can be read back.
  files.full = [&](const std::string& p) { return p.find("TraceFile") == std::string::npos; };
  t->file_system = &files;
  t->WriteLogin().KekInfo = "KEK-0001";
  t->WriteLogin().HundredScreensParam = "SCR:010";
  Make100ScreensParamFile(*t);
  t->WriteLogin().UseWebCam = true;
  HandleWebCamTrigger(*t);
  SendFrames(*t, "|SENDFRAMES|a@b@job7@c");
  MakeRequestFile(*t, "TDACSC", "Code=135");
  RequestRemoteControlLoad(*t);
  const auto msgs = t.Messages();
  auto has = [&](const std::string& m) { return std::find(msgs.begin(), msgs.end(), m) != msgs.end(); };
  EXPECT_TRUE(has("Error in TDACLI: Error save 100% Screen Capture Params to file (" + t->AppPath("100Screen.KEK") +
                  ") - 61, Disk full"));
  EXPECT_TRUE(has("Error in TDACLI: Error in HandleWebCamTrigger() Routine: [FilNam=" + t->AppPath("UseWebCam.TXT") +
                  "], [Error=Disk full]"));
  EXPECT_TRUE(has("Error in TDACLI: Error saving 'Send Frames' info to file (" + t->AppPath("SendFrames-job7.TSF") +
                  ") - 61, Disk full"));
  EXPECT_TRUE(has("Error in TDACLI: Error creating message request file (" + t->AppPath("20261114231502.TDACSC") +
                  "), MESSAGE=Code=135, ERROR=61, DESC=Disk full"));
  EXPECT_TRUE(has("Error in TDACLI: Error creating message request file (" + t->app_folder + kSepStr +
                  "20261114231502.TDACLD), MESSAGE=LOAD=TDACVC, ERROR=61, DESC=Disk full"));
  for (const auto& entry : std::filesystem::directory_iterator(t.dir.path()))
    EXPECT_NE(entry.path().filename().string().find("TraceFile"), std::string::npos) << entry.path();
}

}  // namespace
}  // namespace tdacli
