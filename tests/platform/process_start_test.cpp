// Starting a program hidden and without waiting: the command line split, and a real start.
#include "platform/process_start.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "support/test_agent.h"

namespace tdacli {
namespace {

using Args = std::vector<std::string>;

TEST(SplitCommandLine, BlanksSeparateAndDoubleQuotesGroup) {
  EXPECT_EQ(platform::SplitCommandLine("MSIExec.exe /package \"C:\\My App\\TSCC.msi\" /quiet /Log \"C:\\My App\\TSCCLog.txt\""),
            (Args{"MSIExec.exe", "/package", "C:\\My App\\TSCC.msi", "/quiet", "/Log", "C:\\My App\\TSCCLog.txt"}));
  EXPECT_EQ(platform::SplitCommandLine("  a\t b  "), (Args{"a", "b"}));
  EXPECT_EQ(platform::SplitCommandLine("a \"\" b"), (Args{"a", "", "b"}));
  EXPECT_EQ(platform::SplitCommandLine("pre\"fix suf\"fix"), (Args{"prefix suffix"}));
  EXPECT_EQ(platform::SplitCommandLine("\"unterminated quote"), (Args{"unterminated quote"}));
  EXPECT_EQ(platform::SplitCommandLine(""), Args{});
  EXPECT_EQ(platform::SplitCommandLine("   "), Args{});
  // Nothing a shell would interpret is special here.
  EXPECT_EQ(platform::SplitCommandLine("a;b $(c) `d` |e"), (Args{"a;b", "$(c)", "`d`", "|e"}));
}

TEST(StartHiddenProcess, AProgramThatDoesNotExistGivesProcessIdZero) {
  EXPECT_EQ(platform::StartHiddenProcess("tdacli-no-such-program-here.exe /quiet"), 0ul);
  EXPECT_EQ(platform::StartHiddenProcess(""), 0ul);
  EXPECT_EQ(platform::StartHiddenProcess("\"\" x"), 0ul);
}

#ifndef _WIN32
TEST(StartHiddenProcess, StartsTheProgramWithItsArgumentsAndWithoutAShell) {
  testing::TempDir dir;
  // A folder name with a blank and shell characters: it must arrive as one argument, untouched.
  const std::string folder = dir.File("My App;$(x)");
  std::filesystem::create_directories(folder);
  const std::string target = folder + "/made by touch";
  const unsigned long pid = platform::StartHiddenProcess("touch \"" + target + "\"");
  EXPECT_GT(pid, 0ul);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!testing::Exists(target) && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_TRUE(testing::Exists(target));
  EXPECT_FALSE(testing::Exists(dir.File("x")));
}
#endif

}  // namespace
}  // namespace tdacli
