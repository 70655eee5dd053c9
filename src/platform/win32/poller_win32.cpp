// The event loop's wait on Windows: select(), because WSAPoll does not report a refused connection on
// many Windows versions. A failed non-blocking connect shows up in the exception set. FD_SETSIZE is
// raised for the whole build, so the sets hold far more sockets than the agent ever opens.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <memory>

#include "platform/poller.h"
#include "platform/socket_api.h"

namespace tdacli::platform {
namespace {

// Other threads (the service control handler) wake the loop by writing one byte to a loopback
// connection whose other end sits in the read set of every select().
class SelectPoller : public Poller {
 public:
  SelectPoller() {
    sockapi::Startup();
    MakeWakePair();
  }
  ~SelectPoller() override {
    if (wake_send_ != INVALID_SOCKET) closesocket(wake_send_);
    if (wake_recv_ != INVALID_SOCKET) closesocket(wake_recv_);
  }

  std::vector<Ready> Poll(const std::vector<Interest>& interests, int timeout_ms) override {
    std::vector<Ready> ready;
    Sets* sets = sets_.get();
    FD_ZERO(&sets->read);
    FD_ZERO(&sets->write);
    FD_ZERO(&sets->except);
    unsigned count = 0;
    if (wake_recv_ != INVALID_SOCKET) {
      FD_SET(wake_recv_, &sets->read);
      ++count;
    }
    for (const auto& i : interests) {
      if (count >= FD_SETSIZE) break;
      const SOCKET s = static_cast<SOCKET>(i.handle);
      if (i.read) FD_SET(s, &sets->read);
      if (i.write) {
        FD_SET(s, &sets->write);
        FD_SET(s, &sets->except);  // where a failed connect is reported
      }
      ++count;
    }
    if (count == 0) {
      // Only without a wake-up connection: select() refuses empty sets, so just let the time pass.
      Sleep(timeout_ms < 0 ? 1000 : static_cast<DWORD>(timeout_ms));
      return ready;
    }
    timeval tv{};
    timeval* ptv = nullptr;
    if (timeout_ms >= 0) {
      tv.tv_sec = timeout_ms / 1000;
      tv.tv_usec = (timeout_ms % 1000) * 1000;
      ptv = &tv;
    }
    const int n = select(0, &sets->read, &sets->write, &sets->except, ptv);
    if (n <= 0) return ready;
    if (wake_recv_ != INVALID_SOCKET && FD_ISSET(wake_recv_, &sets->read)) DrainWake();
    for (const auto& i : interests) {
      const SOCKET s = static_cast<SOCKET>(i.handle);
      const bool r = i.read && FD_ISSET(s, &sets->read);
      const bool w = i.write && FD_ISSET(s, &sets->write);
      const bool e = i.write && FD_ISSET(s, &sets->except);
      if (r || w || e) ready.push_back({i.handle, r, w, e});
    }
    return ready;
  }

  void Wake() override {
    if (wake_send_ == INVALID_SOCKET) return;
    char c = 1;
    // A full buffer means a wake-up is already pending.
    send(wake_send_, &c, 1, 0);
  }

 private:
  struct Sets {
    fd_set read, write, except;
  };

  void DrainWake() {
    char buf[256];
    while (recv(wake_recv_, buf, sizeof buf, 0) > 0) {
    }
  }

  // A connected pair over 127.0.0.1 (Windows has no socketpair()).
  void MakeWakePair() {
    SOCKET listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (listener == INVALID_SOCKET) return;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    int len = sizeof a;
    SOCKET client = INVALID_SOCKET, server = INVALID_SOCKET;
    if (bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && listen(listener, 1) == 0 &&
        getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
      client = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
      if (client != INVALID_SOCKET && connect(client, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0)
        server = accept(listener, nullptr, nullptr);
    }
    closesocket(listener);
    if (server == INVALID_SOCKET) {
      if (client != INVALID_SOCKET) closesocket(client);
      return;
    }
    for (SOCKET s : {client, server}) {
      u_long on = 1;
      ioctlsocket(s, FIONBIO, &on);
      SetHandleInformation(reinterpret_cast<HANDLE>(s), HANDLE_FLAG_INHERIT, 0);
    }
    BOOL nodelay = TRUE;
    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&nodelay), sizeof nodelay);
    wake_send_ = client;
    wake_recv_ = server;
  }

  // Kept between calls: with the raised FD_SETSIZE each set is 32 KB.
  std::unique_ptr<Sets> sets_ = std::make_unique<Sets>();
  SOCKET wake_send_ = INVALID_SOCKET;
  SOCKET wake_recv_ = INVALID_SOCKET;
};

}  // namespace

std::unique_ptr<Poller> MakePoller() { return std::make_unique<SelectPoller>(); }

}  // namespace tdacli::platform
