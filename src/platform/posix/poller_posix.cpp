#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "platform/poller.h"

namespace tdacli::platform {
namespace {

class PosixPoller : public Poller {
 public:
  PosixPoller() {
    if (pipe(wake_) == 0) {
      for (int fd : wake_) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        fcntl(fd, F_SETFD, FD_CLOEXEC);
      }
    }
  }
  ~PosixPoller() override {
    close(wake_[0]);
    close(wake_[1]);
  }

  std::vector<Ready> Poll(const std::vector<Interest>& interests, int timeout_ms) override {
    std::vector<pollfd> fds;
    fds.reserve(interests.size() + 1);
    fds.push_back({wake_[0], POLLIN, 0});
    for (const auto& i : interests) {
      short ev = 0;
      if (i.read) ev |= POLLIN;
      if (i.write) ev |= POLLOUT;
      fds.push_back({static_cast<int>(i.handle), ev, 0});
    }
    std::vector<Ready> ready;
    int n = poll(fds.data(), fds.size(), timeout_ms);
    if (n <= 0) return ready;
    if (fds[0].revents) {
      char buf[256];
      while (read(wake_[0], buf, sizeof buf) > 0) {
      }
    }
    for (size_t k = 1; k < fds.size(); ++k) {
      short r = fds[k].revents;
      if (!r) continue;
      bool err = (r & (POLLERR | POLLHUP | POLLNVAL)) != 0;
      ready.push_back({interests[k - 1].handle, (r & POLLIN) != 0 || (err && interests[k - 1].read),
                       (r & POLLOUT) != 0, err});
    }
    return ready;
  }

  void Wake() override {
    char c = 1;
    [[maybe_unused]] ssize_t n = write(wake_[1], &c, 1);
  }

 private:
  int wake_[2] = {-1, -1};
};

}  // namespace

std::unique_ptr<Poller> MakePoller() { return std::make_unique<PosixPoller>(); }

}  // namespace tdacli::platform
