// Files written by others and names taken from the server: bounded reads, paths refused before any
// file-system call, names that must stay inside their folder, values that cannot plant lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "common/files.h"
#include "common/logging.h"
#include "config/configuration.h"
#include "config/result_files.h"
#include "platform/platform.h"
#include "support/test_agent.h"
#include "triggers/capture_files.h"

namespace tdacli {
namespace {

using testing::Exists;
using testing::Lines;
using testing::ReadFile;
using testing::TestAgent;
using testing::WriteFile;

std::vector<std::string> EachLine(const std::string& path) {
  std::vector<std::string> out;
  EXPECT_TRUE(ForEachLine(path, [&](std::string_view l) {
    out.emplace_back(l);
    return true;
  }));
  return out;
}

TEST(BoundedRead, LinesEndAtCrLfCrOrLfLikeTheWholeFileReader) {
  testing::TempDir dir;
  const std::string path = dir.File("x.txt");
  for (const std::string& text : {std::string("a\r\nb\rc\nd"), std::string("a\r\n\r\nb\r\n"), std::string("\n\r"),
                                 std::string(""), std::string("x\r"), std::string("x\n\r\ny")}) {
    WriteFile(path, text);
    EXPECT_EQ(EachLine(path), SplitLines(text)) << text;
  }
  // A CR LF pair split across the reader's buffer boundary is still one line end.
  const std::string boundary = std::string(kMaxFileLine - 1, 'a') + "\r\nb";
  WriteFile(path, boundary);
  EXPECT_EQ(EachLine(path), SplitLines(boundary));
  EXPECT_FALSE(ForEachLine(dir.File("missing.txt"), [](std::string_view) { return true; }));
}

TEST(BoundedRead, ALineLongerThanTheLimitIsCutAndTheNextLineIsIntact) {
  testing::TempDir dir;
  const std::string path = dir.File("x.txt");
  WriteFile(path, "Ext=" + std::string(300000, '9') + "\r\nServer=10.0.0.1\r\n");
  auto lines = EachLine(path);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].size(), kMaxFileLine);
  EXPECT_EQ(lines[1], "Server=10.0.0.1");
  // Stopping early.
  int seen = 0;
  ForEachLine(path, [&](std::string_view) { return ++seen < 1; });
  EXPECT_EQ(seen, 1);
}

TEST(BoundedRead, SettingsFileWithAHugeLineLoadsTheCutValueAndTheRest) {
  TestAgent t;
  WriteFile(t.dir.File("TDRegInfo.TXT"),
            "[Config]\r\nExt=" + std::string(200000, '5') + "\r\nServer=10.9.8.7\r\nCurrentUser=jsmith\r\n");
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Ext, std::string(kMaxFileLine - 4, '5'));
  EXPECT_EQ(t->settings.Server, "10.9.8.7");
  EXPECT_EQ(t->settings.CurrentUser, "jsmith");
}

TEST(BoundedRead, SaveConfigurationKeepsOnlyTheTwentyOneStoredLines) {
  TestAgent t;
  std::string text;
  for (int i = 0; i < 5000; ++i) text += "Line" + std::to_string(i) + "\r\n";
  WriteFile(t.dir.File("TDRegInfo.TXT"), text);
  ASSERT_TRUE(SaveConfiguration(*t));
  EXPECT_EQ(t->stored_lines[20], "Line20");
  const auto lines = Lines(t.dir.File("TDRegInfo.TXT"));
  ASSERT_EQ(lines.size(), 26u);  // stored lines 0-19, then the six rewritten keys
  EXPECT_EQ(lines[19], "Line19");
  EXPECT_EQ(lines[20], "SvrTemp=Unknown");
}

TEST(PathsFromOutside, AFolderWithANulIsRefusedBeforeAnyFileCall) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  t->settings.CurrentUser = "jsmith";
  // The server names a file followed by a NUL: the OS call would stop there and truncate the file.
  const std::string victim = t.dir.File("victim.txt");
  WriteFile(victim, "precious");
  EXPECT_FALSE(CanWriteToFolder(*t, victim + std::string(1, '\0')));
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error during 'CanWriteToFolder' Routine(): 52-Bad file name or number");
  EXPECT_EQ(ReadFile(victim), "precious");
  EXPECT_FALSE(CanWriteToFolder(*t, t.dir.path() + "\x01" "x"));
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error during 'CanWriteToFolder' Routine(): 52-Bad file name or number");
}

TEST(PathsFromOutside, AUserNameThatLeadsOutOfTheFolderFailsTheWriteTest) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  const std::string folder = t.dir.File("Temp");
  std::filesystem::create_directory(folder);
  for (const std::string& user : {std::string("../up"), std::string("..\\up"), std::string("C:up"),
                                 std::string("a/b"), std::string("N/A")}) {
    t->settings.CurrentUser = user;
    EXPECT_FALSE(CanWriteToFolder(*t, folder)) << user;
    EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error during 'CanWriteToFolder' Routine(): 76-Path not found");
  }
  t->settings.CurrentUser = std::string("a\0b", 3);
  EXPECT_FALSE(CanWriteToFolder(*t, folder));
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error during 'CanWriteToFolder' Routine(): 52-Bad file name or number");
  EXPECT_TRUE(std::filesystem::is_empty(folder));
  int files = 0;
  for (auto& e : std::filesystem::directory_iterator(t.dir.path())) files += e.is_regular_file();
  EXPECT_EQ(files, 3);  // the two trace files and the error log, nothing else
  t->settings.CurrentUser = "jsmith";
  EXPECT_TRUE(CanWriteToFolder(*t, folder));
}

TEST(PathsFromOutside, SafeFileNames) {
  EXPECT_TRUE(IsSafeFileName("jsmith20261114.TXT"));
  EXPECT_TRUE(IsSafeFileName("..."));
  EXPECT_TRUE(IsSafeFileName("a..b"));
  for (const std::string& bad : {std::string(""), std::string("."), std::string(".."), std::string("a/b"),
                                std::string("a\\b"), std::string("C:x"), std::string("a\0b", 3), std::string("a\rb"),
                                std::string("a\x7f")})
    EXPECT_FALSE(IsSafeFileName(bad)) << bad;
}

TEST(PathsFromOutside, AnErrorLogNamedByAnEscapingUserIsNotWritten) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  WriteFile(t.dir.File("thinterminal.dat"), "");
  std::filesystem::create_directory(t.dir.File("sub"));
  t->settings.CurrentUser = "../escape";
  WriteErrorLog(*t, "TDACLI", "message");
  EXPECT_FALSE(Exists(t.dir.File("192-168-5-20-../escape-Error.LOG")));
  t->settings.CurrentUser = "jsmith";
  WriteErrorLog(*t, "TDACLI", "message");
  EXPECT_EQ(Lines(t.dir.File("192-168-5-20-jsmith-Error.LOG")).size(), 1u);
}

TEST(LineInjection, ResultFilesCutServerValuesAtTheirFirstLineBreak) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  std::string mask = "127.0.0.\r\nIPMask=0.0.0.";
  SaveValidIPMask(*t, mask);
  EXPECT_EQ(ReadFile(t.dir.File("TDIPMASK.INI")),
            "[Tyndrel - Agent Client - Valid IP Mask]\r\n\r\n[Config]\r\nIPMask=127.0.0.\r\n");
  t->WriteLogin().TDLiveID = "48213\nRepeaterIP=6.6.6.6";
  t->WriteLogin().RepeaterIP = "10.1.2.3";
  t->WriteLogin().RepeaterPort = "5020\r";
  SaveLiveID(*t);
  EXPECT_EQ(ReadFile(t.dir.File("TDLiveID.INI")),
            "[LiveID]\r\nTDLiveID=48213\r\nRepeaterIP=10.1.2.3\r\nRepeaterPort=5020\r\nPeerToPeerCapable=False\r\n");
  t->settings.SvrTemp = "\\\\fs\\t\\:FTP@ftp.example:user\r\nX=1:9F8E";
  SaveFtpCredentials(*t);
  EXPECT_EQ(Lines(t.dir.File("TDACFTP.INI"))[5], "UserName=user");
  t->WriteLogin().KekInfo = "KEK-1\r\nplanted";
  t->WriteLogin().HundredScreensParam = "SCR:010\nplanted";
  Make100ScreensParamFile(*t);
  EXPECT_EQ(ReadFile(t.dir.File("100Screen.KEK")), "KEK-1\r\n");
  EXPECT_EQ(ReadFile(t.dir.File("100ScreenParam.TXT")), "SCR:010\r\n");
  std::vector<std::string> warnings;
  for (const auto& m : t.Messages())
    if (m.rfind("Warning in TDACLI: The value of (", 0) == 0) warnings.push_back(m.substr(33, m.find(')') - 33));
  EXPECT_EQ(warnings, (std::vector<std::string>{"IPMask", "TDLiveID", "RepeaterPort", "UserName", "KekInfo",
                                                "HundredScreensParam"}));
}

TEST(LineInjection, SettingsValuesStoredByTheServerAreCutBeforeTheyAreWritten) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  t->settings.CurrentUser = "jsmith\r\nUseTrace=True";
  t->settings.LocalTemp = "c:\\temp\nListeningPorts=1,2,3,4";
  ASSERT_TRUE(SaveConfiguration(*t));
  const auto lines = Lines(t.dir.File("TDRegInfo.TXT"));
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "CurrentUser=jsmith"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "LocalTemp=c:\\temp"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "UseTrace=True"), 0);
  EXPECT_EQ(t->settings.CurrentUser, "jsmith");
}

using namespace std::string_literals;

TEST(LineInjection, ResultAndCaptureFilesCutServerValuesAtTheirFirstNul) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  std::string mask = "127.0.0.\0IPMask=0.0.0."s;
  SaveValidIPMask(*t, mask);
  EXPECT_EQ(ReadFile(t.dir.File("TDIPMASK.INI")),
            "[Tyndrel - Agent Client - Valid IP Mask]\r\n\r\n[Config]\r\nIPMask=127.0.0.\r\n");
  t->WriteLogin().TDLiveID = "48213\0\r\nRepeaterIP=6.6.6.6"s;
  t->WriteLogin().RepeaterIP = "10.1.2.3\0evil"s;
  t->WriteLogin().RepeaterPort = "5020";
  SaveLiveID(*t);
  EXPECT_EQ(ReadFile(t.dir.File("TDLiveID.INI")),
            "[LiveID]\r\nTDLiveID=48213\r\nRepeaterIP=10.1.2.3\r\nRepeaterPort=5020\r\nPeerToPeerCapable=False\r\n");
  t->settings.SvrTemp = "\\\\fs\\t\\:FTP@ftp.example\0evil:user:9F8E"s;
  SaveFtpCredentials(*t);
  EXPECT_EQ(Lines(t.dir.File("TDACFTP.INI"))[4], "FTPServer=ftp.example");
  t->WriteLogin().KekInfo = "KEK-1\0planted"s;
  t->WriteLogin().HundredScreensParam = "SCR:010\0planted"s;
  Make100ScreensParamFile(*t);
  EXPECT_EQ(ReadFile(t.dir.File("100Screen.KEK")), "KEK-1\r\n");
  EXPECT_EQ(ReadFile(t.dir.File("100ScreenParam.TXT")), "SCR:010\r\n");
  SendFramesForGrabberTask(*t, "10.1.1.1@x@Job7@y\0planted"s);
  EXPECT_EQ(ReadFile(t.dir.File("SendFrames-Job7.TSF")), "10.1.1.1@x@Job7@y\r\n");
  std::vector<std::string> warnings;
  for (const auto& m : t.Messages())
    if (m.rfind("Warning in TDACLI: The value of (", 0) == 0) warnings.push_back(m);
  std::vector<std::string> expected;
  for (const char* name : {"IPMask", "TDLiveID", "RepeaterIP", "FTPServer", "KekInfo", "HundredScreensParam",
                           "SendFrames"})
    expected.push_back("Warning in TDACLI: The value of ("s + name + ") held a line break and was cut at it.");
  EXPECT_EQ(warnings, expected);
  for (const auto& entry : std::filesystem::directory_iterator(t.dir.path())) {
    const std::string name = entry.path().filename().string();
    if (name.find("-TraceFile.TXT") == std::string::npos) {
      EXPECT_EQ(ReadFile(entry.path().string()).find('\0'), std::string::npos) << name;
    }
  }
}

TEST(LineInjection, SettingsValuesWithANulAreCutBeforeTheyAreWrittenAndWhenTheyAreRead) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  t->startup_banner_written = true;
  t->settings.Server = "10.0.0.1\0evil"s;
  t->settings.CurrentUser = "jsmith\0\r\nUseTrace=True"s;
  ASSERT_TRUE(SaveConfiguration(*t));
  const std::string written = ReadFile(t.dir.File("TDRegInfo.TXT"));
  EXPECT_EQ(written.find('\0'), std::string::npos);
  const auto lines = Lines(t.dir.File("TDRegInfo.TXT"));
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Server=10.0.0.1"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "CurrentUser=jsmith"), 1);
  EXPECT_EQ(t->settings.Server, "10.0.0.1");
  EXPECT_EQ(t.Messages(), (std::vector<std::string>{
                              "Warning in TDACLI: The value of (Server) held a line break and was cut at it.",
                              "Warning in TDACLI: The value of (CurrentUser) held a line break and was cut at it.",
                              "Trace in TDACLI: Wrote Login Settings to config file"}));

  // A file written by someone else: the value ends at its NUL as at a line end, and a value that is
  // nothing but a NUL counts as an empty one (the default stays).
  WriteFile(t.dir.File("TDRegInfo.TXT"), "[Config]\r\nServer=10.0.0.7\0evil\r\nExt=\0\r\nSvrTemp=\\\\fs\\t\0\\..\r\n"s);
  LoadConfiguration(*t);
  EXPECT_EQ(t->settings.Server, "10.0.0.7");
  EXPECT_EQ(t->settings.Ext, "1234");
  EXPECT_EQ(t->settings.SvrTemp, "\\\\fs\\t");
  EXPECT_EQ(ParseSettings("Server=a\0b\r\nPopEx=\0true"s).Server, "a");
  EXPECT_EQ(ParseSettings("Server=a\0b\r\nPopEx=\0true"s).PopEx, "false");
}

TEST(StartupChecks, FolderIsWritableOnlyForAFolderThatTakesAFile) {
  testing::TempDir dir;
  EXPECT_TRUE(platform::FolderIsWritable(dir.path()));
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));  // the probe is gone again
  EXPECT_FALSE(platform::FolderIsWritable(dir.File("missing")));
  WriteFile(dir.File("file"), "x");
  EXPECT_FALSE(platform::FolderIsWritable(dir.File("file")));
}

}  // namespace
}  // namespace tdacli
