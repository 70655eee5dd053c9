// The platform's file system on the real disk (natively and under Wine): whole writes, appends, the
// rename that replaces in one step or refuses to, and a delete that keeps folders and links' targets.
#include "platform/file_system.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/test_agent.h"

namespace tdacli {
namespace {

namespace fs = std::filesystem;
using platform::EntryKind;
using platform::FileFault;
using testing::ReadFile;
using testing::WriteFile;

platform::FileSystem& Files() { return platform::SystemFileSystem(); }

TEST(FileSystem, WriteMakesOrEmptiesTheFileAndWritesEveryByte) {
  testing::TempDir dir;
  const std::string path = dir.File("a.TXT");
  const std::string bytes = std::string(200000, 'x') + "\r\n" + std::string(1, '\0') + "end";
  ASSERT_TRUE(Files().Write(path, bytes, /*flush=*/true));
  EXPECT_EQ(ReadFile(path), bytes);
  ASSERT_TRUE(Files().Write(path, "short", /*flush=*/false));
  EXPECT_EQ(ReadFile(path), "short");
  std::string read;
  ASSERT_TRUE(Files().Read(path, 3, read));
  EXPECT_EQ(read, "sho");
  ASSERT_TRUE(Files().Read(path, 100, read));
  EXPECT_EQ(read, "short");
  EXPECT_EQ(Files().Kind(path), EntryKind::kFile);
  EXPECT_EQ(Files().Kind(dir.path()), EntryKind::kFolder);
  EXPECT_EQ(Files().Kind(dir.File("none")), EntryKind::kMissing);
}

TEST(FileSystem, WriteSaysWhatWentWrong) {
  testing::TempDir dir;
  EXPECT_EQ(Files().Write(dir.File("missing") + kSepStr + "a.TXT", "x", false).fault, FileFault::kNotFound);
  fs::create_directory(dir.File("folder"));
  const FileFault folder = Files().Write(dir.File("folder"), "x", false).fault;
  EXPECT_TRUE(folder == FileFault::kIsFolder || folder == FileFault::kAccessDenied) << static_cast<int>(folder);
  EXPECT_TRUE(fs::is_directory(dir.File("folder")));
}

TEST(FileSystem, AppendAddsToTheEndAndTellsTheSize) {
  testing::TempDir dir;
  const std::string path = dir.File("log.TXT");
  long long size = 0;
  ASSERT_TRUE(Files().Append(path, "one\r\n", size));
  EXPECT_EQ(size, 5);
  ASSERT_TRUE(Files().Append(path, "two\r\n", size));
  EXPECT_EQ(size, 10);
  EXPECT_EQ(ReadFile(path), "one\r\ntwo\r\n");
}

TEST(FileSystem, RenameReplacesItsTargetOrRefusesTo) {
  testing::TempDir dir;
  const std::string a = dir.File("a.tmp"), b = dir.File("b.TXT");
  WriteFile(a, "new");
  WriteFile(b, "old");
  ASSERT_TRUE(Files().Rename(a, b, /*replace=*/true, /*durable=*/true));
  EXPECT_EQ(ReadFile(b), "new");
  EXPECT_EQ(Files().Kind(a), EntryKind::kMissing);

  WriteFile(a, "newer");
  EXPECT_EQ(Files().Rename(a, b, /*replace=*/false, /*durable=*/true).fault, FileFault::kExists);
  EXPECT_EQ(ReadFile(b), "new");
  EXPECT_EQ(ReadFile(a), "newer");
  const std::string c = dir.File("c.TXT");
  ASSERT_TRUE(Files().Rename(a, c, /*replace=*/false, /*durable=*/false));
  EXPECT_EQ(ReadFile(c), "newer");
  EXPECT_EQ(Files().Kind(a), EntryKind::kMissing);
}

TEST(FileSystem, RenameReplacesAReadOnlyTargetButNeverAFolder) {
  testing::TempDir dir;
  const std::string a = dir.File("a.tmp"), b = dir.File("b.TXT");
  WriteFile(a, "new");
  WriteFile(b, "old");
  fs::permissions(b, fs::perms::owner_read, fs::perm_options::replace);
  ASSERT_TRUE(Files().Rename(a, b, /*replace=*/true, /*durable=*/false));
  EXPECT_EQ(ReadFile(b), "new");

  WriteFile(a, "new");
  fs::create_directory(dir.File("folder"));
  WriteFile(dir.File("folder") + kSepStr + "inside", "x");
  EXPECT_FALSE(Files().Rename(a, dir.File("folder"), /*replace=*/true, /*durable=*/false));
  EXPECT_EQ(ReadFile(dir.File("folder") + kSepStr + "inside"), "x");
  EXPECT_EQ(ReadFile(a), "new");
}

TEST(FileSystem, RemoveTakesReadOnlyFilesButNeverFolders) {
  testing::TempDir dir;
  const std::string f = dir.File("ro.TXT");
  WriteFile(f, "x");
  fs::permissions(f, fs::perms::owner_read, fs::perm_options::replace);
  ASSERT_TRUE(Files().Remove(f));
  EXPECT_EQ(Files().Kind(f), EntryKind::kMissing);
  EXPECT_EQ(Files().Remove(f).fault, FileFault::kNotFound);
  fs::create_directory(dir.File("empty.TXT"));
  EXPECT_EQ(Files().Remove(dir.File("empty.TXT")).fault, FileFault::kIsFolder);
  EXPECT_TRUE(fs::is_directory(dir.File("empty.TXT")));
}

#ifdef _WIN32
TEST(FileSystem, WriteRefusesASymbolicLinkUnderTheName) {
  testing::TempDir dir, outside;
  const std::string victim = outside.File("victim.txt");
  WriteFile(victim, "outside");
  const std::string link = dir.File("TDLiveID.INI");
  std::error_code ec;
  fs::create_symlink(fs::u8path(victim), fs::u8path(link), ec);
  if (ec) GTEST_SKIP() << "no symbolic links here: " << ec.message();
  ASSERT_EQ(Files().Kind(link), EntryKind::kLink);
  EXPECT_EQ(Files().Write(link, "planted", false).fault, FileFault::kAccessDenied);
  EXPECT_EQ(ReadFile(victim), "outside");
  ASSERT_TRUE(Files().Remove(link));
  EXPECT_EQ(Files().Kind(link), EntryKind::kMissing);
  EXPECT_EQ(ReadFile(victim), "outside");
}
#else
TEST(FileSystem, LinksAreNeitherFollowedNorWrittenThrough) {
  testing::TempDir dir, outside;
  const std::string victim = outside.File("victim.txt");
  WriteFile(victim, "outside");
  fs::permissions(victim, fs::perms::owner_read, fs::perm_options::replace);
  const std::string link = dir.File("TDLiveID.INI");
  fs::create_symlink(victim, link);
  EXPECT_EQ(Files().Kind(link), EntryKind::kLink);
  EXPECT_EQ(Files().Write(link, "planted", false).fault, FileFault::kAccessDenied);
  long long size = 0;
  EXPECT_EQ(Files().Append(link, "planted", size).fault, FileFault::kAccessDenied);
  ASSERT_TRUE(Files().Remove(link));
  EXPECT_EQ(Files().Kind(link), EntryKind::kMissing);
  EXPECT_EQ(ReadFile(victim), "outside");
  EXPECT_EQ(fs::status(victim).permissions(), fs::perms::owner_read);
}
#endif

}  // namespace
}  // namespace tdacli
