// Whole files appear whole: written beside their place and renamed over it, never half written for a
// sibling that reads them; a full disk keeps the old file and says "Disk full"; the folder write test
// checks the write; logging on a full disk loses its lines and nothing else; deleting never removes a
// folder or reaches through a link.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/file_errors.h"
#include "common/files.h"
#include "common/logging.h"
#include "support/fault_file_system.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

namespace fs = std::filesystem;
using testing::Exists;
using testing::FaultFileSystem;
using testing::ReadFile;
using testing::TestAgent;
using testing::WriteFile;

TEST(TemporaryNameBeside, NoPatternOfTheSuiteMatchesIt) {
  EXPECT_EQ(TemporaryNameBeside("SendFrames-7.TSF"), "~SendFrames-7_TSF.tdtmp");
  const std::string folder = std::string("app") + kSep;
  EXPECT_EQ(TemporaryNameBeside(folder + "20261114231502.TDACSC"), folder + "~20261114231502_TDACSC.tdtmp");
  EXPECT_EQ(TemporaryNameBeside(folder + "RC" + kSep + "TDACVC.INI"), folder + "RC" + kSep + "~TDACVC_INI.tdtmp");
  EXPECT_EQ(TemporaryNameBeside(folder + "SendFrames-a.TSF.TSF"), folder + "~SendFrames-a_TSF_TSF.tdtmp");
  // A name near the system's limit keeps the temporary name within it.
  const std::string long_name = "SendFrames-" + std::string(240, 'x') + ".TSF";
  const std::string temporary = TemporaryNameBeside(folder + long_name);
  EXPECT_EQ(temporary.size() - folder.size(), 255u);
  EXPECT_EQ(temporary.substr(temporary.size() - 6), ".tdtmp");
}

TEST(SaveWholeFile, AReaderFindsTheOldFileOrTheNewOneAtEveryStep) {
  TestAgent t;
  const std::string path = t.dir.File("TDACFTP.INI");
  WriteFile(path, "old\r\n");
  FaultFileSystem files;
  std::vector<std::string> seen;
  files.before = [&](const std::string& step) { seen.push_back(step + ": " + ReadFile(path)); };
  TrappedError error;
  ASSERT_TRUE(SaveWholeFile(files, path, "new\r\nlines\r\n", {}, error));
  seen.push_back("after: " + ReadFile(path));
  const std::string temporary = t.dir.File("~TDACFTP_INI.tdtmp");
  EXPECT_EQ(seen, (std::vector<std::string>{"Write " + temporary + ": old\r\n",
                                            "Rename " + temporary + " -> " + path + ": old\r\n",
                                            "after: new\r\nlines\r\n"}));
  EXPECT_FALSE(Exists(temporary));
  EXPECT_EQ(files.file_flushes + files.folder_flushes, 0);  // rebuilt at every login: not flushed
}

TEST(SaveWholeFile, TheAdministratorsFilesAreFlushedBeforeAndAfterTheRename) {
  TestAgent t;
  const std::string path = t.dir.File("TDACLI-AllowedConsoles.TXT");
  FaultFileSystem files;
  WholeFileSave how;
  how.flush = true;
  TrappedError error;
  ASSERT_TRUE(SaveWholeFile(files, path, "10.1.2.0/24\r\n", how, error));
  const std::string temporary = t.dir.File("~TDACLI-AllowedConsoles_TXT.tdtmp");
  EXPECT_EQ(files.steps, (std::vector<std::string>{"Write " + temporary + " flushed",
                                                   "Rename " + temporary + " -> " + path + " durable"}));
  EXPECT_EQ(files.file_flushes, 1);
  EXPECT_EQ(files.folder_flushes, 1);
}

TEST(SaveWholeFile, AFullDiskKeepsTheOldFileWholeAndRemovesWhatItWrote) {
  TestAgent t;
  const std::string path = t.dir.File("100ScreenParam.TXT");
  WriteFile(path, "SCR:010\r\n");
  FaultFileSystem files;
  files.FullEverywhere();
  TrappedError error;
  EXPECT_FALSE(SaveWholeFile(files, path, "SCR:020\r\n", {}, error));
  EXPECT_EQ(error.number, 61);
  EXPECT_EQ(error.description, "Disk full");
  EXPECT_EQ(ReadFile(path), "SCR:010\r\n");
  EXPECT_FALSE(Exists(t.dir.File("~100ScreenParam_TXT.tdtmp")));
  files.SpaceBack();
  EXPECT_TRUE(SaveWholeFile(files, path, "SCR:020\r\n", {}, error));
  EXPECT_EQ(ReadFile(path), "SCR:020\r\n");
}

TEST(SaveWholeFile, AFolderInTheFilesPlaceStaysAndTheSaveFails) {
  TestAgent t;
  const std::string path = t.dir.File("UseWebCam.TXT");
  fs::create_directory(path);
  TrappedError error;
  EXPECT_FALSE(SaveWholeFile(platform::SystemFileSystem(), path, "WEBCAM=True\r\n", {}, error));
  EXPECT_EQ(error.number, 75);
  EXPECT_EQ(error.description, "Path/File access error");
  EXPECT_TRUE(fs::is_directory(path));
  EXPECT_FALSE(Exists(t.dir.File("~UseWebCam_TXT.tdtmp")));
}

TEST(SaveWholeFile, AMissingFolderIsPathNotFound) {
  TestAgent t;
  TrappedError error;
  EXPECT_FALSE(SaveWholeFile(platform::SystemFileSystem(), t.dir.File("RC") + kSepStr + "TDACVC.INI", "x\r\n", {},
                             error));
  EXPECT_EQ(error.number, 76);
  EXPECT_EQ(error.description, "Path not found");
}

TEST(SaveWholeFile, ASaveThatMayNotReplaceLeavesAnExistingFile) {
  TestAgent t;
  const std::string path = t.dir.File("TDRegInfo.TXT");
  WriteFile(path, "edited by hand\r\n");
  WholeFileSave how;
  how.replace = false;
  TrappedError error;
  EXPECT_FALSE(SaveWholeFile(platform::SystemFileSystem(), path, "fresh\r\n", how, error));
  EXPECT_EQ(error.number, 58);
  EXPECT_EQ(error.description, "File already exists");
  EXPECT_EQ(ReadFile(path), "edited by hand\r\n");
  EXPECT_FALSE(Exists(t.dir.File("~TDRegInfo_TXT.tdtmp")));
  fs::remove(path);
  EXPECT_TRUE(SaveWholeFile(platform::SystemFileSystem(), path, "fresh\r\n", how, error));
  EXPECT_EQ(ReadFile(path), "fresh\r\n");
}

TEST(SaveWholeFile, TheSameBytesAreNotWrittenAgainWhenAsked) {
  TestAgent t;
  const std::string path = t.dir.File("TDRegInfo.TXT");
  WriteFile(path, "same\r\n");
  FaultFileSystem files;
  WholeFileSave how;
  how.flush = true;
  how.skip_equal = true;
  TrappedError error;
  EXPECT_TRUE(SaveWholeFile(files, path, "same\r\n", how, error));
  EXPECT_TRUE(files.steps.empty());
  // A longer or shorter file is not the same.
  EXPECT_TRUE(SaveWholeFile(files, path, "same\r\n+", how, error));
  EXPECT_TRUE(SaveWholeFile(files, path, "same", how, error));
  EXPECT_EQ(files.steps.size(), 4u);
  EXPECT_EQ(ReadFile(path), "same");
}

#ifndef _WIN32
TEST(SaveWholeFile, ALinkUnderTheTemporaryNameGoesItselfAndItsTargetIsUntouched) {
  TestAgent t;
  testing::TempDir outside;
  const std::string victim = outside.File("victim.txt");
  WriteFile(victim, "outside");
  fs::permissions(victim, fs::perms::owner_read, fs::perm_options::replace);
  fs::create_symlink(victim, t.dir.File("~TDIPMASK_INI.tdtmp"));
  TrappedError error;
  ASSERT_TRUE(SaveWholeFile(platform::SystemFileSystem(), t.dir.File("TDIPMASK.INI"), "mask\r\n", {}, error));
  EXPECT_EQ(ReadFile(t.dir.File("TDIPMASK.INI")), "mask\r\n");
  EXPECT_EQ(ReadFile(victim), "outside");
  EXPECT_EQ(fs::status(victim).permissions(), fs::perms::owner_read);
  EXPECT_FALSE(fs::exists(fs::symlink_status(t.dir.File("~TDIPMASK_INI.tdtmp"))));
}

TEST(SaveWholeFile, ALeftoverSharingItsBytesWithAnotherNameIsNotWrittenThrough) {
  TestAgent t;
  testing::TempDir outside;
  const std::string other = outside.File("other.txt");
  WriteFile(other, "outside");
  // A rename that kept its target links the file under the new name and then removes the old one; a
  // removal that failed leaves the temporary name as a second name of the same bytes.
  fs::create_hard_link(other, t.dir.File("~TDIPMASK_INI.tdtmp"));
  TrappedError error;
  ASSERT_TRUE(SaveWholeFile(platform::SystemFileSystem(), t.dir.File("TDIPMASK.INI"), "mask\r\n", {}, error));
  EXPECT_EQ(ReadFile(t.dir.File("TDIPMASK.INI")), "mask\r\n");
  EXPECT_EQ(ReadFile(other), "outside");
  EXPECT_EQ(fs::hard_link_count(other), 1u);
  EXPECT_FALSE(fs::exists(t.dir.File("~TDIPMASK_INI.tdtmp")));
}

TEST(SaveWholeFile, ALinkUnderTheFilesNameIsReplacedByTheFileAndItsTargetIsUntouched) {
  TestAgent t;
  testing::TempDir outside;
  const std::string victim = outside.File("victim.txt");
  WriteFile(victim, "outside");
  fs::permissions(victim, fs::perms::owner_read, fs::perm_options::replace);
  const std::string path = t.dir.File("TDLiveID.INI");
  fs::create_symlink(victim, path);
  TrappedError error;
  ASSERT_TRUE(SaveWholeFile(platform::SystemFileSystem(), path, "[LiveID]\r\n", {}, error));
  EXPECT_FALSE(fs::is_symlink(path));
  EXPECT_EQ(ReadFile(path), "[LiveID]\r\n");
  EXPECT_EQ(ReadFile(victim), "outside");
  EXPECT_EQ(fs::status(victim).permissions(), fs::perms::owner_read);
}
#endif

// ---------------------------------------------------------------- the folder write test

TEST(CanWriteToFolderOnAFullDisk, TheWriteFailsWithDiskFullAndNoTestFileIsLeft) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  t->settings.CurrentUser = "jsmith";
  const std::string folder = t.dir.File("Temp");
  fs::create_directory(folder);
  FaultFileSystem files;
  // The temp folder's disk is full; the application folder (and its trace) is not.
  files.full = [&](const std::string& p) { return p.rfind(folder, 0) == 0; };
  t->file_system = &files;
  EXPECT_FALSE(CanWriteToFolder(*t, folder));
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error during 'CanWriteToFolder' Routine(): 61-Disk full");
  EXPECT_TRUE(fs::is_empty(folder));
  files.SpaceBack();
  EXPECT_TRUE(CanWriteToFolder(*t, folder));
  EXPECT_TRUE(fs::is_empty(folder));
}

TEST(CanWriteToFolderOnAFullDisk, AFolderNamedLikeTheTestFileIsLeftAlone) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  t->settings.CurrentUser = "jsmith";
  const std::string test_name = t.dir.File("jsmith20261114231502.TXT");
  fs::create_directory(test_name);
  EXPECT_FALSE(CanWriteToFolder(*t, t.dir.path()));
  EXPECT_EQ(t.Messages().back(), "Error in TDACLI: Error during 'CanWriteToFolder' Routine(): 75-Path/File access error");
  EXPECT_TRUE(fs::is_directory(test_name));
}

// ---------------------------------------------------------------- logging on a full disk

TEST(LoggingOnAFullDisk, LinesAreLostAndNothingElseHappensThenLoggingGoesOn) {
  TestAgent t;
  t->local_ip = "192.168.5.20";
  LogMessage(*t, "before", "Trace");
  const std::string trace_before = ReadFile(t.ProgramTrace());
  FaultFileSystem files;
  files.FullEverywhere();
  t->file_system = &files;
  for (int i = 0; i < 1000; ++i) LogMessage(*t, "Error number " + std::to_string(i), "Error");
  // Each line was tried once in each of its three files (program trace, host trace, error log) and
  // given up: no retry, no other file, no error about the error.
  EXPECT_EQ(files.appends_refused, 3000);
  EXPECT_EQ(files.steps.size(), 3000u);
  EXPECT_EQ(ReadFile(t.ProgramTrace()), trace_before);
  EXPECT_FALSE(Exists(t.ErrorLog()));
  // The event log is not on the disk: it still has every line.
  EXPECT_EQ(t.event_log.entries.size(), 1000u);
  files.SpaceBack();
  LogMessage(*t, "after", "Trace");
  EXPECT_EQ(t.Messages().back(), "Trace in TDACLI: after");
}

// ---------------------------------------------------------------- deleting

TEST(DeleteFileTouchesFilesOnly, AFolderOfTheNameStaysEvenWhenEmpty) {
  TestAgent t;
  const std::string empty = t.dir.File("PerformLogoff.TXT");
  const std::string full = t.dir.File("TDLiveID.INI");
  fs::create_directory(empty);
  fs::create_directory(full);
  WriteFile(full + kSepStr + "inside", "x");
  DeleteFile(*t, empty);
  DeleteFile(*t, full);
  DeleteFile(empty);
  EXPECT_TRUE(fs::is_directory(empty));
  EXPECT_EQ(ReadFile(full + kSepStr + "inside"), "x");
}

#ifndef _WIN32
TEST(DeleteFileTouchesFilesOnly, ALinkGoesItselfAndItsTargetKeepsItsModeAndBytes) {
  TestAgent t;
  testing::TempDir outside;
  const std::string victim = outside.File("victim.txt");
  WriteFile(victim, "outside");
  fs::permissions(victim, fs::perms::owner_read, fs::perm_options::replace);
  const std::string link = t.dir.File("PerformLogoff.TXT");
  fs::create_symlink(victim, link);
  DeleteFile(*t, link);
  EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
  EXPECT_EQ(fs::status(victim).permissions(), fs::perms::owner_read);
  EXPECT_EQ(ReadFile(victim), "outside");
  // A link to a folder goes too, and the folder with what it holds stays.
  fs::create_directory(outside.File("folder"));
  WriteFile(outside.File("folder") + "/kept", "x");
  fs::create_symlink(outside.File("folder"), link);
  DeleteFile(*t, link);
  EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
  EXPECT_EQ(ReadFile(outside.File("folder") + "/kept"), "x");
}
#endif

}  // namespace
}  // namespace tdacli
