#pragma once
// The OS wait primitive under the event loop: poll() on POSIX; on Windows select() for readiness (WSAPoll
// does not report refused connections there) and a wait that also dispatches the thread's window
// messages. Wake() may be called from any thread.
#include <cstdint>
#include <memory>
#include <vector>

namespace tdacli::platform {

using SocketHandle = intptr_t;
constexpr SocketHandle kInvalidSocket = -1;

class Poller {
 public:
  struct Interest {
    SocketHandle handle;
    bool read;
    bool write;
  };
  struct Ready {
    SocketHandle handle;
    bool read;
    bool write;
    bool error;
  };
  virtual ~Poller() = default;
  // Blocks up to timeout_ms (0: just look, -1: no limit) until a handle is ready or Wake() is called.
  virtual std::vector<Ready> Poll(const std::vector<Interest>& interests, int timeout_ms) = 0;
  virtual void Wake() = 0;
};

std::unique_ptr<Poller> MakePoller();

}  // namespace tdacli::platform
