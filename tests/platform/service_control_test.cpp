// The service-control client that messages the suite's services returns Windows error numbers on every
// OS: 0 delivered, 1060 no such service, 1062 not running.
#include <gtest/gtest.h>

#include <string>

#include "common/paths.h"
#include "platform/platform.h"
#include "support/test_agent.h"

#ifndef _WIN32
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#endif

namespace tdacli {
namespace {

TEST(ServiceControlClient, UnknownServiceGives1060) {
  testing::TempDir dir;
  auto client = platform::MakeServiceControlClient(dir.path() + kSepStr);
  EXPECT_EQ(client->SendControl("TDNOSUCHSERVICE", 200), 1060u);
}

#ifndef _WIN32

// A datagram endpoint standing in for a sibling service in the same folder.
class Endpoint {
 public:
  explicit Endpoint(const std::string& path) : path_(path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~Endpoint() {
    close(fd_);
    unlink(path_.c_str());
  }
  bool bound() const { return bound_; }
  std::string Receive() {
    char buf[64];
    ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
  }
  void CloseOnly() {
    close(fd_);
    fd_ = -1;
  }

 private:
  std::string path_;
  int fd_ = -1;
  bool bound_ = false;
};

TEST(ServiceControlClient, PosixDeliversTheDecimalCodeToTheServiceEndpoint) {
  testing::TempDir dir;
  Endpoint sibling(dir.File("TDACMT.svc"));
  ASSERT_TRUE(sibling.bound());
  auto client = platform::MakeServiceControlClient(dir.path() + kSepStr);
  EXPECT_EQ(client->SendControl("TDACMT", 130), 0u);
  EXPECT_EQ(sibling.Receive(), "130");
}

TEST(ServiceControlClient, PosixEndpointWithoutAReceiverGives1062) {
  testing::TempDir dir;
  Endpoint sibling(dir.File("TDACMT.svc"));
  ASSERT_TRUE(sibling.bound());
  sibling.CloseOnly();  // the socket file stays, nobody listens: the service is not running
  auto client = platform::MakeServiceControlClient(dir.path() + kSepStr);
  EXPECT_EQ(client->SendControl("TDACMT", 130), 1062u);
}

#endif

}  // namespace
}  // namespace tdacli
