// The real host identity of the machine running the tests: values cannot be predicted, so their shape
// is checked.
#include <gtest/gtest.h>

#include <cctype>
#include <set>
#include <string>
#include <vector>

#include "platform/host_identity.h"
#include "platform/platform.h"

namespace tdacli {
namespace {

bool IsDottedQuad(const std::string& a) {
  int parts = 0;
  size_t start = 0;
  for (;;) {
    size_t end = a.find('.', start);
    std::string part = a.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (part.empty() || part.size() > 3) return false;
    for (char c : part)
      if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    if (std::stoi(part) > 255) return false;
    ++parts;
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return parts == 4;
}

bool IsUpper(const std::string& s) {
  for (char c : s)
    if (std::islower(static_cast<unsigned char>(c))) return false;
  return true;
}

TEST(SystemHostIdentity, AdaptersListDottedIPv4AddressesWithoutLoopback) {
  auto host = platform::MakeSystemHostIdentity();
  std::set<uint32_t> indexes;
  for (const auto& adapter : host->Adapters()) {
    // Every adapter carries its own interface index (0 is no interface).
    EXPECT_NE(adapter.index, 0u);
    EXPECT_TRUE(indexes.insert(adapter.index).second) << "index listed twice: " << adapter.index;
    for (const auto& a : adapter.addresses) {
      EXPECT_TRUE(IsDottedQuad(a)) << a;
      EXPECT_NE(a.rfind("127.", 0), 0u) << "loopback listed: " << a;
    }
  }
}

TEST(SystemHostIdentity, NetBiosNameIsShortUpperCaseAndMatchesThePlainName) {
  auto host = platform::MakeSystemHostIdentity();
  const std::string netbios = host->ComputerNameEx(0);
  ASSERT_FALSE(netbios.empty());
  EXPECT_LE(netbios.size(), 15u);
  EXPECT_TRUE(IsUpper(netbios)) << netbios;
  EXPECT_EQ(netbios.find('\0'), std::string::npos);
  EXPECT_FALSE(host->ComputerNameEx(1).empty());
  // The plain name keeps the NUL the system wrote after it.
  EXPECT_EQ(host->ComputerNameRaw(), netbios + std::string(1, '\0'));
}

TEST(SystemHostIdentity, NamesOfAllEightFormatsHoldNoNul) {
  auto host = platform::MakeSystemHostIdentity();
  for (int f = 0; f < 8; ++f) EXPECT_EQ(host->ComputerNameEx(f).find('\0'), std::string::npos) << f;
}

TEST(SystemHostIdentity, NetworkUserEndsWithOneNul) {
  auto host = platform::MakeSystemHostIdentity();
  const std::string user = host->NetworkUserRaw();
  ASSERT_GE(user.size(), 2u);
  EXPECT_EQ(user.back(), '\0');
  EXPECT_EQ(user.find('\0'), user.size() - 1);
  EXPECT_NE(user.front(), ' ');
}

TEST(CurrentProcess, NamesTheTestProgram) {
  const platform::ProcessInfo p = platform::CurrentProcess();
  EXPECT_EQ(p.exe_base_name, "tdacli_tests");
  EXPECT_NE(p.command_line.find("tdacli_tests"), std::string::npos) << p.command_line;
  ASSERT_FALSE(p.exe_folder.empty());
  EXPECT_EQ(p.exe_path.substr(0, p.exe_folder.size()), p.exe_folder);
}

#ifdef _WIN32

TEST(SystemHostIdentity, WindowsReportsItsTrueVersionAndFolder) {
  auto host = platform::MakeSystemHostIdentity();
  const platform::OsVersion v = host->Version();
  ASSERT_TRUE(v.known);
  EXPECT_GE(v.major, 5u);
  const std::string windir = host->WindowsDirectory();
  ASSERT_GE(windir.size(), 3u);
  EXPECT_TRUE(std::isalpha(static_cast<unsigned char>(windir[0])));
  EXPECT_EQ(windir.substr(1, 2), ":\\");
  EXPECT_NE(windir.back(), '\\');
  EXPECT_EQ(windir.find('\0'), std::string::npos);
}

TEST(CurrentProcess, WindowsPathIsFolderBackslashNameExe) {
  const platform::ProcessInfo p = platform::CurrentProcess();
  EXPECT_EQ(p.exe_path, p.exe_folder + "\\" + p.exe_base_name + ".exe");
  EXPECT_EQ(p.exe_folder.substr(1, 2), ":\\");
  // The test program carries no version resource; the agent's own file does (checked end to end).
  EXPECT_EQ(p.file_revision, 0);
}

#else

TEST(SystemHostIdentity, PosixHasNoWindowsVersionOrFolder) {
  auto host = platform::MakeSystemHostIdentity();
  EXPECT_FALSE(host->Version().known);
  EXPECT_EQ(host->WindowsDirectory(), "");
}

TEST(CurrentProcess, PosixPathIsFolderSlashName) {
  const platform::ProcessInfo p = platform::CurrentProcess();
  EXPECT_EQ(p.exe_path, p.exe_folder + "/" + p.exe_base_name);
  EXPECT_EQ(p.file_revision, TDACLI_REVISION);
}

#endif

}  // namespace
}  // namespace tdacli
