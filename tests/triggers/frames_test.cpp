#include "triggers/frames.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/file_times.h"
#include "support/test_agent.h"

namespace tdacli {
namespace {

using testing::Exists;
using testing::TestAgent;
using testing::WriteFile;

// The simulated clock stands at 2026-11-14 23:15:02.
struct Frames : ::testing::Test {
  Frames() {
    t->local_ip = "192.168.5.20";
    t->startup_banner_written = true;
    temp = t.dir.File("temp");
    t->settings.LocalTemp = temp + kSepStr;
    frames = temp + kSepStr + "100Screens";
    std::filesystem::create_directories(frames);
  }
  std::string Frame(const std::string& name, int day, int hour = 12) {
    std::string p = frames + kSepStr + name;
    WriteFile(p, "frame");
    EXPECT_TRUE(platform::SetFileModifiedLocal(p, {2026, 11, day, hour, 0, 0}));
    return p;
  }
  TestAgent t;
  std::string temp, frames;
};

TEST_F(Frames, FileExactlyMaxDaysOldIsDeletedOneDayYoungerIsKept) {
  std::string old4 = Frame("a.TVF", 10, 23);  // 4 calendar days, though less than 4 x 24 hours
  std::string old3 = Frame("b.TVF", 11, 0);
  CleanupFrames(*t, "Log Off");
  EXPECT_FALSE(Exists(old4));
  EXPECT_TRUE(Exists(old3));
  auto msgs = t.Messages();
  EXPECT_EQ(msgs[0], "Trace in TDACLI: Cleaning up frame files!");
  EXPECT_EQ(msgs[1],
            "Trace in TDACLI: Deleting file (a.TVF) because it is (4) days old. Last Modified is (2026-11-10 11:00:00 PM)");
  EXPECT_EQ(msgs.back(),
            "Information in TDACLI: The Tyndrel 100% Screen Capture Component Analyzed (2) Frame File(s) at (Log Off) "
            "and Deleted (1).");
  // The deletion line goes to the trace files only.
  for (const auto& e : t.event_log.entries) EXPECT_EQ(e.second.find("Deleting file"), std::string::npos);
}

TEST_F(Frames, DefaultAgeKeepsTheLastThreeDays) {
  std::vector<std::string> kept;
  for (int day : {12, 13, 14}) kept.push_back(Frame("f" + std::to_string(day) + ".TDK", day));
  std::string gone = Frame("old.CAM", 9);
  CleanupFrames(*t, "Log Off");
  for (const auto& k : kept) EXPECT_TRUE(Exists(k)) << k;
  EXPECT_FALSE(Exists(gone));
}

TEST_F(Frames, PatternMatchesAnywhereInTheUpperCasedName) {
  std::string inner = Frame("shot.tvf.bak", 1);
  std::string other = Frame("notes.txt", 1);
  std::string enc = Frame("x.TVF.ENC", 1);
  std::string tff = Frame("y.TFF", 1);  // not a pattern of the age cleanup
  CleanupFrames(*t, "Log Off");
  EXPECT_FALSE(Exists(inner));
  EXPECT_FALSE(Exists(enc));
  EXPECT_TRUE(Exists(other));
  EXPECT_TRUE(Exists(tff));
  EXPECT_NE(t.Messages().back().find("Analyzed (2) Frame File(s)"), std::string::npos);
}

TEST_F(Frames, MaximumAgeComesFromTheSchedule) {
  t->WriteScreen().max_age_days = 1;
  std::string y = Frame("y.TVF", 13, 23);
  CleanupFrames(*t, "Log Off");
  EXPECT_FALSE(Exists(y));
}

TEST_F(Frames, MissingFrameFolderLogsTheErrorWithoutSummary) {
  std::filesystem::remove_all(frames);
  CleanupFrames(*t, "Log Off");
  auto msgs = t.Messages();
  ASSERT_EQ(msgs.size(), 2u);
  EXPECT_EQ(msgs[1], "Error in TDACLI: Detected Error In CleanupFrames() Routine:76, Path not found");
}

TEST_F(Frames, FrameFolderThatIsAFileIsReportedAsPathNotFound) {
  std::filesystem::remove_all(frames);
  WriteFile(frames, "not a folder");
  CleanupFrames(*t, "Log Off");
  auto msgs = t.Messages();
  ASSERT_EQ(msgs.size(), 2u);
  EXPECT_EQ(msgs[1], "Error in TDACLI: Detected Error In CleanupFrames() Routine:76, Path not found");
}

TEST_F(Frames, FrameFolderWithANameTheSystemCannotTakeLogsThatFault) {
  // A folder name longer than any file system allows: the listing fails for the name, not the path.
  t->settings.LocalTemp = temp + kSepStr + std::string(300, 'n') + kSepStr;
  CleanupFrames(*t, "Log Off");
  auto msgs = t.Messages();
  ASSERT_EQ(msgs.size(), 2u);
#ifdef _WIN32
  // Windows reports a name too long for a folder as a path it cannot find.
  EXPECT_EQ(msgs[1], "Error in TDACLI: Detected Error In CleanupFrames() Routine:76, Path not found");
#else
  EXPECT_EQ(msgs[1], "Error in TDACLI: Detected Error In CleanupFrames() Routine:52, Bad file name or number");
#endif
}

TEST_F(Frames, WipeOutEndsWithItsErrorLineWhenTheApplicationFolderCannotBeListed) {
  t->WriteLogin().LoginSucceeded = true;
  std::string f = Frame("a.TVF", 14);
  t->app_folder = t.dir.File("gone") + kSepStr;
  WipeOut(*t);
  EXPECT_FALSE(Exists(f));  // the first pass ran; what it deleted stays deleted
  // The logs live in the missing folder too: the line reaches the event log only, and no summary.
  ASSERT_EQ(t.event_log.entries.size(), 1u);
  EXPECT_EQ(t.event_log.entries[0], std::make_pair(1, std::string("Error during 'WipeOut Routine': 76 - Path not found")));
}

TEST_F(Frames, WipeOutAfterAFailedLoginOnlyWarns) {
  t->WriteLogin().LoginSucceeded = false;
  std::string f = Frame("a.TVF", 14);
  WipeOut(*t);
  EXPECT_TRUE(Exists(f));
  auto msgs = t.Messages();
  ASSERT_EQ(msgs.size(), 1u);
  EXPECT_EQ(msgs[0], "Warning in TDACLI: The WIPE OUT Routine was skipped as the previous login did not succeed!");
}

TEST_F(Frames, WipeOutRemovesAllCaptureActivity) {
  t->WriteLogin().LoginSucceeded = true;
  for (const char* n : {"a.TVF", "b.TVF.ENC", "c.TFF.ENC", "d.tff", "e.TDK", "f.CAM"}) Frame(n, 14);
  std::string keep = Frame("keep.txt", 14);
  WriteFile(t.dir.File("SendFrames-1.TSF"), "x");
  WriteFile(t.dir.File("job.ts2"), "x");
  WriteFile(t.dir.File("TDRegInfo.TXT"), "x");
  WipeOut(*t);
  EXPECT_TRUE(Exists(keep));
  EXPECT_TRUE(Exists(t.dir.File("TDRegInfo.TXT")));
  EXPECT_FALSE(Exists(t.dir.File("SendFrames-1.TSF")));
  EXPECT_FALSE(Exists(t.dir.File("job.ts2")));
  auto msgs = t.Messages();
  ASSERT_EQ(msgs.size(), 3u);
  EXPECT_EQ(msgs[0], "Information in TDACLI: The Tyndrel Agent Client removed all 100% Screen Activity!");
  EXPECT_EQ(msgs[1], "Information in TDACLI: The WIPE OUT Routine removed (6) files from (" + frames + kSepStr + ")");
  EXPECT_EQ(msgs[2], "Information in TDACLI: The WIPE OUT Routine removed (2) files from (" + t->app_folder + ")");
}

TEST_F(Frames, WipeOutWithoutFrameFolderSkipsTheFirstPass) {
  t->WriteLogin().LoginSucceeded = true;
  std::filesystem::remove_all(frames);
  WriteFile(t.dir.File("a.TSF"), "x");
  WipeOut(*t);
  EXPECT_FALSE(Exists(t.dir.File("a.TSF")));
  auto msgs = t.Messages();
  ASSERT_EQ(msgs.size(), 3u);
  EXPECT_EQ(msgs[1], "Information in TDACLI: The WIPE OUT Routine removed (0) files from (" + frames + kSepStr + ")");
}

TEST_F(Frames, WipeOutWithNothingToRemoveLogsNothing) {
  t->WriteLogin().LoginSucceeded = true;
  WipeOut(*t);
  EXPECT_FALSE(Exists(t.ProgramTrace()));
}

TEST_F(Frames, FileThatCannotBeWipedIsReported) {
  t->WriteLogin().LoginSucceeded = true;
  std::string f = Frame("a.TVF", 14);
  t->refuse_delete = [&](const std::string& p) { return p == f; };
  WipeOut(*t);
  EXPECT_TRUE(Exists(f));
  EXPECT_EQ(t.Messages()[0], "Error in TDACLI: Error Wiping File! (" + f + ")");
}

TEST_F(Frames, WipeOutLeavesFoldersNamedLikeFramesAlone) {
  t->WriteLogin().LoginSucceeded = true;
  std::filesystem::create_directory(frames + kSepStr + "held.TVF");
  WriteFile(frames + kSepStr + "held.TVF" + kSepStr + "inside.TVF", "x");
  std::filesystem::create_directory(t.dir.File("jobs.TSF"));
  Frame("a.TVF", 14);
  WipeOut(*t);
  EXPECT_TRUE(std::filesystem::is_directory(frames + kSepStr + "held.TVF"));
  EXPECT_TRUE(Exists(frames + kSepStr + "held.TVF" + kSepStr + "inside.TVF"));
  EXPECT_TRUE(std::filesystem::is_directory(t.dir.File("jobs.TSF")));
  auto msgs = t.Messages();
  ASSERT_EQ(msgs.size(), 3u);
  EXPECT_EQ(msgs[1], "Information in TDACLI: The WIPE OUT Routine removed (1) files from (" + frames + kSepStr + ")");
  EXPECT_EQ(msgs[2], "Information in TDACLI: The WIPE OUT Routine removed (0) files from (" + t->app_folder + ")");
}

#ifndef _WIN32
// A link named like a frame or a job, pointing out of the folders: left out of the listings, so
// neither it nor what it points to is aged, counted or deleted, and the target's mode stays.
struct FramesWithLinks : Frames {
  std::string Victim(const std::string& name) {
    std::string v = outside.File(name);
    WriteFile(v, "outside");
    EXPECT_TRUE(platform::SetFileModifiedLocal(v, {2026, 11, 1, 12, 0, 0}));
    std::filesystem::permissions(v, std::filesystem::perms::owner_read, std::filesystem::perm_options::replace);
    return v;
  }
  void ExpectUntouched(const std::string& v) {
    EXPECT_EQ(testing::ReadFile(v), "outside");
    EXPECT_EQ(std::filesystem::status(v).permissions(), std::filesystem::perms::owner_read);
  }
  testing::TempDir outside;
};

TEST_F(FramesWithLinks, CleanupFramesNeitherAgesNorDeletesALink) {
  const std::string victim = Victim("victim.TVF");
  const std::string link = frames + kSepStr + "old.TVF";
  std::filesystem::create_symlink(victim, link);
  Frame("real.TVF", 1);
  CleanupFrames(*t, "Log Off");
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  ExpectUntouched(victim);
  EXPECT_EQ(t.Messages().back(),
            "Information in TDACLI: The Tyndrel 100% Screen Capture Component Analyzed (1) Frame File(s) at (Log Off) "
            "and Deleted (1).");
}

TEST_F(FramesWithLinks, WipeOutLeavesLinksInBothFolders) {
  t->WriteLogin().LoginSucceeded = true;
  const std::string frame_victim = Victim("frame.TVF");
  const std::string job_victim = Victim("job.TSF");
  std::filesystem::create_symlink(frame_victim, frames + kSepStr + "a.TVF");
  std::filesystem::create_symlink(job_victim, t.dir.File("SendFrames-1.TSF"));
  std::filesystem::create_symlink(outside.path(), frames + kSepStr + "folder.TFF");
  WipeOut(*t);
  EXPECT_TRUE(std::filesystem::is_symlink(frames + kSepStr + "a.TVF"));
  EXPECT_TRUE(std::filesystem::is_symlink(t.dir.File("SendFrames-1.TSF")));
  EXPECT_TRUE(std::filesystem::is_symlink(frames + kSepStr + "folder.TFF"));
  ExpectUntouched(frame_victim);
  ExpectUntouched(job_victim);
  EXPECT_FALSE(Exists(t.ProgramTrace()));  // nothing was removed, so nothing is said
}
#endif

}  // namespace
}  // namespace tdacli
