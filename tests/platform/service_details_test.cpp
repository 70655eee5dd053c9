// Service state and account for the component report. POSIX: the service's control endpoint in the
// application folder; Windows: the service control manager (under Wine, a service that is not
// installed cannot be queried).
#include <gtest/gtest.h>

#include "platform/version_info.h"
#include "support/test_agent.h"

#ifndef _WIN32
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#endif

namespace tdacli {
namespace {

#ifndef _WIN32

std::string Me() {
  passwd* pw = getpwuid(getuid());
  return pw ? pw->pw_name : std::to_string(getuid());
}

// A bound datagram endpoint, as a running sibling holds it.
struct Endpoint {
  explicit Endpoint(const std::string& path) {
    fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    bound = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~Endpoint() { Close(); }
  void Close() {
    if (fd >= 0) close(fd);
    fd = -1;
  }
  int fd = -1;
  bool bound = false;
};

TEST(ServiceDetails, AnsweringEndpointIsRunningUnderItsOwner) {
  testing::TempDir dir;
  Endpoint e(dir.File("TDACMT.svc"));
  ASSERT_TRUE(e.bound);
  const auto d = platform::QueryServiceDetails(dir.path() + "/", "TDACMT");
  EXPECT_TRUE(d.ok);
  EXPECT_EQ(d.state, "RUNNING");
  EXPECT_EQ(d.account, Me());
}

TEST(ServiceDetails, EndpointWithoutAProcessIsStopped) {
  testing::TempDir dir;
  Endpoint e(dir.File("TDACMT.svc"));
  ASSERT_TRUE(e.bound);
  e.Close();  // the file stays, nobody answers
  const auto d = platform::QueryServiceDetails(dir.path(), "TDACMT");
  EXPECT_EQ(d.state, "STOPPED");
  EXPECT_EQ(d.account, Me());
}

TEST(ServiceDetails, NoEndpointIsStoppedWithoutAccount) {
  testing::TempDir dir;
  const auto d = platform::QueryServiceDetails(dir.path(), "TDACSC");
  EXPECT_TRUE(d.ok);
  EXPECT_EQ(d.state, "STOPPED");
  EXPECT_EQ(d.account, "");
}

TEST(CaseBlindPaths, FilesAndFoldersAreFoundWhateverTheirCase) {
  testing::TempDir dir;
  std::filesystem::create_directories(dir.File("Rc"));
  testing::WriteFile(dir.File("Rc/tdacvc.exe"), "x");
  testing::WriteFile(dir.File("tdacli.exe"), "x");
  EXPECT_EQ(platform::ResolvePathNoCase(dir.File("TDACLI.EXE")), dir.File("tdacli.exe"));
  EXPECT_EQ(platform::ResolvePathNoCase(dir.File("RC/TDACVC.EXE")), dir.File("Rc/tdacvc.exe"));
  EXPECT_EQ(platform::ResolvePathNoCase(dir.File("tdacli.exe")), dir.File("tdacli.exe"));
  EXPECT_EQ(platform::ResolvePathNoCase(dir.File("MISSING.EXE")), dir.File("MISSING.EXE"));
  EXPECT_EQ(platform::ResolvePathNoCase(dir.File("RC/../TDACLI.EXE")), dir.File("Rc/../tdacli.exe"));
}

// A pipe or a device in place of a component is not read (opening a pipe for reading would wait for a
// writer forever).
TEST(VersionResourceFiles, OnlyRegularFilesAreRead) {
  testing::TempDir dir;
  const std::string fifo = dir.File("TDACLI.EXE");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  platform::VersionStrings v;
  EXPECT_FALSE(platform::ReadFileVersionStrings(fifo, v));
  EXPECT_FALSE(platform::ReadFileVersionStrings("/dev/zero", v));
  EXPECT_FALSE(platform::ReadFileVersionStrings(dir.path(), v));
}

#else

TEST(ServiceDetails, ServiceThatIsNotInstalledCannotBeQueried) {
  const auto d = platform::QueryServiceDetails("", "TDNOSUCHSVC");
  EXPECT_FALSE(d.ok);
  EXPECT_EQ(d.state, "");
  EXPECT_EQ(d.account, "");
  EXPECT_EQ(d.error, "OpenServiceA failed (1060) for TDNOSUCHSVC");
}

#endif

}  // namespace
}  // namespace tdacli
