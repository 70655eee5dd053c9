#include "common/files.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "common/text.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::Exists;
using testing::ReadFile;
using testing::TestAgent;
using testing::WriteFile;

TEST(Files, FolderExistsWithAndWithoutTrailingSeparator) {
  TestAgent t;
  std::string temp = t.dir.File("Temp");
  std::filesystem::create_directory(temp);
  EXPECT_TRUE(FolderExists(temp));
  EXPECT_TRUE(FolderExists(temp + kSepStr));
  EXPECT_FALSE(FolderExists(t.dir.File("Nope")));
  EXPECT_FALSE(FolderExists(t.dir.File("Nope") + kSepStr));
  WriteFile(t.dir.File("plain.txt"), "x");
  EXPECT_FALSE(FolderExists(t.dir.File("plain.txt")));
}

TEST(Files, FileExistsIsFalseForFoldersAndMissingFiles) {
  TestAgent t;
  WriteFile(t.dir.File("a.txt"), "x");
  EXPECT_TRUE(FileExists(t.dir.File("a.txt")));
  EXPECT_FALSE(FileExists(t.dir.File("b.txt")));
  EXPECT_FALSE(FileExists(t.dir.path()));
  EXPECT_FALSE(FileExists(""));
}

TEST(Files, DeleteFileRemovesReadOnlyFilesAndIgnoresMissingOnes) {
  TestAgent t;
  std::string f = t.dir.File("ro.txt");
  WriteFile(f, "x");
  std::filesystem::permissions(f, std::filesystem::perms::owner_read, std::filesystem::perm_options::replace);
  DeleteFile(f);
  EXPECT_FALSE(Exists(f));
  DeleteFile(f);  // no error
}

TEST(Files, MoveFileOntoAnExistingDestinationReplacesItAfterOneSecond) {
  TestAgent t;
  WriteFile(t.dir.File("src.txt"), "new");
  WriteFile(t.dir.File("dst.txt"), "old");
  const int64_t start = t.clock.NowMs();
  auto real_start = std::chrono::steady_clock::now();
  MoveFile(*t, t.dir.File("src.txt"), t.dir.File("dst.txt"));
  EXPECT_EQ(ReadFile(t.dir.File("dst.txt")), "new");
  EXPECT_FALSE(Exists(t.dir.File("src.txt")));
  EXPECT_GE(t.clock.NowMs() - start, 1000);
  EXPECT_LT(std::chrono::steady_clock::now() - real_start, std::chrono::milliseconds(900));
}

TEST(Files, MoveFileWithoutDestinationDoesNotPause) {
  TestAgent t;
  WriteFile(t.dir.File("src.txt"), "new");
  const int64_t start = t.clock.NowMs();
  MoveFile(*t, t.dir.File("src.txt"), t.dir.File("dst.txt"));
  EXPECT_EQ(ReadFile(t.dir.File("dst.txt")), "new");
  EXPECT_EQ(t.clock.NowMs(), start);
}

TEST(Files, SplitStringKeepsEmptyPiecesFromPositionOne) {
  std::vector<std::string> parts;
  EXPECT_EQ(SplitString("a,b", ",", parts), 2);
  EXPECT_EQ(parts, (std::vector<std::string>{"", "a", "b"}));
  EXPECT_EQ(SplitString("a,,b", ",", parts), 3);
  EXPECT_EQ(parts, (std::vector<std::string>{"", "a", "", "b"}));
  EXPECT_EQ(SplitString("abc", ",", parts), 1);
  EXPECT_EQ(parts[1], "abc");
  EXPECT_EQ(SplitString("a,", ",", parts), 2);
  EXPECT_EQ(parts[2], "");
}

TEST(Files, EnsureFolderCreatesEveryMissingLevelAndFixesTheCallersText) {
  TestAgent t;
  std::filesystem::create_directory(t.dir.File("A"));
  std::string path = t.dir.File("A") + kSepStr + "B" + kSepStr + "C";
  EnsureFolder(*t, path);
  EXPECT_EQ(path, t.dir.File("A") + kSepStr + "B" + kSepStr + "C" + kSepStr);
  EXPECT_TRUE(FolderExists(t.dir.File("A") + kSepStr + "B"));
  EXPECT_TRUE(FolderExists(path));
}

TEST(Files, CanWriteToFolderWritesAndRemovesATestFile) {
  TestAgent t;
  t->settings.CurrentUser = "jsmith";
  std::vector<std::string> seen;
  t->refuse_delete = [&](const std::string& p) {
    seen.push_back(testing::ReadFile(p));
    return false;
  };
  EXPECT_TRUE(CanWriteToFolder(*t, t.dir.path()));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0], "TEST FOR WRITE ACCESS\r\n");
  EXPECT_FALSE(Exists(t.dir.File("jsmith20261114231502.TXT")));
}

TEST(Files, FolderThatRefusesDeletionFailsTheWriteTest) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  t->settings.CurrentUser = "jsmith";
  t->refuse_delete = [](const std::string&) { return true; };
  std::string folder = t.dir.File("Temp");
  std::filesystem::create_directory(folder);
  EXPECT_FALSE(CanWriteToFolder(*t, folder));
  std::string test_file = folder + kSepStr + "jsmith20261114231502.TXT";
  EXPECT_EQ(t.Messages().back(),
            "Error in TDACLI: ERROR in CanWriteToFolder(): File Exits After Delete 1 [" + test_file + "]");
}

TEST(Files, CanWriteToAMissingFolderLogsTheError) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  t->settings.CurrentUser = "jsmith";
  EXPECT_FALSE(CanWriteToFolder(*t, t.dir.File("missing")));
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error during 'CanWriteToFolder' Routine(): 76-Path not found");
}

TEST(Files, TrimAtNullAndEnsureTrailingSlash) {
  EXPECT_EQ(TrimAtNull(std::string("abc\0def", 7)), "abc");
  EXPECT_EQ(TrimAtNull("abc"), "abc");
  std::string p = "C:\\WINDOWS  ";
  EnsureTrailingSlash(p);
  EXPECT_EQ(p, std::string("C:\\WINDOWS") + kSep);
  std::string q = "C:\\WINDOWS\\";
  EnsureTrailingSlash(q);
  EXPECT_EQ(q, "C:\\WINDOWS\\");
  std::string r = "/usr/";
  EnsureTrailingSlash(r);
  EXPECT_EQ(r, "/usr/");
}

TEST(Files, GetWindowsFolderCutsAtNulAndAddsTheSeparator) {
  TestAgent t;
  t.host.windows_dir = std::string("C:\\WINDOWS\0junk", 15);
  EXPECT_EQ(GetWindowsFolder(*t), std::string("C:\\WINDOWS") + kSep);
  t.host.windows_dir = "";
  EXPECT_EQ(GetWindowsFolder(*t), "");
}

TEST(Waits, WaitSecondsAndPauseTicksRunOnTheAgentsClock) {
  TestAgent t;
  int ticks = 0;
  t->request_file_timer.on_tick = [&] { ++ticks; };
  t->request_file_timer.SetEnabled(true);
  const int64_t start = t.clock.NowMs();
  t->WaitSeconds(3);
  EXPECT_EQ(t.clock.NowMs() - start, 3000);
  EXPECT_EQ(ticks, 3);  // events ran during the wait
  t->PauseTicks(100);
  EXPECT_EQ(t.clock.NowMs() - start, 3100);
}

TEST(Text, FormatsAndConversions) {
  EXPECT_EQ(FormatStamp({2026, 11, 14, 12, 0, 5}), "2026-11-14 12:00:05 PM");
  EXPECT_EQ(FormatStamp({2026, 11, 14, 13, 21, 5}), "2026-11-14 01:21:05 PM");
  EXPECT_EQ(FormatCompact({2026, 11, 14, 23, 15, 2}), "20261114231502");
  EXPECT_EQ(ToInt16("6000"), std::optional<int16_t>(6000));
  EXPECT_EQ(ToInt16(" 12 "), std::optional<int16_t>(12));
  EXPECT_FALSE(ToInt16("abc"));
  EXPECT_FALSE(ToInt16("70000"));
}

TEST(Text, WholeNumbersAreDecimalOnly) {
  EXPECT_EQ(ToLong("8000"), std::optional<long>(8000));
  EXPECT_EQ(ToLong("-12"), std::optional<long>(-12));
  EXPECT_EQ(ToLong("+7"), std::optional<long>(7));
  EXPECT_EQ(ToLong("2.5"), std::optional<long>(2));  // halves round to even
  EXPECT_EQ(ToLong("3.5"), std::optional<long>(4));
  EXPECT_EQ(ToLong(".5"), std::optional<long>(0));
  EXPECT_EQ(ToLong("7."), std::optional<long>(7));
  EXPECT_EQ(ToInt16("010"), std::optional<int16_t>(10));  // leading zeros are decimal, not octal
  for (const char* text : {"0x1F40", "0X10", "1F40", "8e3", "1E2", "inf", "nan", "infinity", "0x", "-", "+",
                           ".", "", "   ", "1 2", "12abc", "\t12", "1,5"}) {
    EXPECT_FALSE(ToLong(text)) << text;
    EXPECT_FALSE(ToInt16(text)) << text;
  }
  EXPECT_EQ(Mid("TDLIVEID=48213", 10), "48213");
  EXPECT_EQ(Mid("abc", 5), "");
  EXPECT_EQ(ReplaceAll("a.b.c", ".", "-"), "a-b-c");
}

}  // namespace
}  // namespace tdacli
