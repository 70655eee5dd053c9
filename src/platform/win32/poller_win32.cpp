// The event loop's wait on Windows. Readiness is read with select() (WSAPoll does not report a refused
// connection on many Windows versions; a failed non-blocking connect shows up in the exception set).
// The wait itself is MsgWaitForMultipleObjectsEx, so that it also ends for the window messages of the
// loop's thread (the hidden main form) and for a wake-up from another thread; the sockets signal it
// through WSAEventSelect for the time of the wait only. FD_SETSIZE is raised for the whole build, so
// the sets hold far more sockets than the agent ever opens.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <memory>

#include "platform/poller.h"
#include "platform/socket_api.h"

namespace tdacli::platform {
namespace {

class MessageWaitPoller : public Poller {
 public:
  MessageWaitPoller() {
    sockapi::Startup();
    wake_ = CreateEventA(nullptr, FALSE, FALSE, nullptr);  // auto-reset: one wake-up per Wake()
    net_ = WSACreateEvent();
  }
  ~MessageWaitPoller() override {
    if (wake_) CloseHandle(wake_);
    if (net_ != WSA_INVALID_EVENT) WSACloseEvent(net_);
  }

  std::vector<Ready> Poll(const std::vector<Interest>& interests, int timeout_ms) override {
    DispatchMessages();
    std::vector<Ready> ready = SelectNow(interests);
    if (!ready.empty() || timeout_ms == 0) return ready;

    // Nothing ready: block until a socket event, a window message, a wake-up or the time-out.
    for (const auto& i : interests) WSAEventSelect(static_cast<SOCKET>(i.handle), net_, NetworkEvents(i));
    HANDLE handles[2];
    DWORD count = 0;
    if (wake_) handles[count++] = wake_;
    if (net_ != WSA_INVALID_EVENT) handles[count++] = net_;
    MsgWaitForMultipleObjectsEx(count, handles, timeout_ms < 0 ? INFINITE : static_cast<DWORD>(timeout_ms),
                                QS_ALLINPUT, MWMO_INPUTAVAILABLE);
    // The association ends with the wait: a socket accepted later must not inherit it, and the loop's
    // sockets stay non-blocking as they were.
    for (const auto& i : interests) WSAEventSelect(static_cast<SOCKET>(i.handle), net_, 0);
    if (net_ != WSA_INVALID_EVENT) WSAResetEvent(net_);
    DispatchMessages();
    return SelectNow(interests);
  }

  void Wake() override {
    if (wake_) SetEvent(wake_);
  }

 private:
  struct Sets {
    fd_set read, write, except;
  };

  static long NetworkEvents(const Interest& i) {
    long events = FD_CLOSE;
    if (i.read) events |= FD_READ | FD_ACCEPT | FD_OOB;
    if (i.write) events |= FD_WRITE | FD_CONNECT;
    return events;
  }

  // Window messages of this thread (sent and posted) go to their windows. A message handler may run
  // events itself (it nests like any handler).
  static void DispatchMessages() {
    MSG msg;
    while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
      if (msg.message == WM_QUIT) continue;
      TranslateMessage(&msg);
      DispatchMessageA(&msg);
    }
  }

  std::vector<Ready> SelectNow(const std::vector<Interest>& interests) {
    std::vector<Ready> ready;
    if (interests.empty()) return ready;
    Sets* sets = sets_.get();
    FD_ZERO(&sets->read);
    FD_ZERO(&sets->write);
    FD_ZERO(&sets->except);
    unsigned count = 0;
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
    timeval zero{};
    const int n = select(0, &sets->read, &sets->write, &sets->except, &zero);
    if (n <= 0) return ready;
    for (const auto& i : interests) {
      const SOCKET s = static_cast<SOCKET>(i.handle);
      const bool r = i.read && FD_ISSET(s, &sets->read);
      const bool w = i.write && FD_ISSET(s, &sets->write);
      const bool e = i.write && FD_ISSET(s, &sets->except);
      if (r || w || e) ready.push_back({i.handle, r, w, e});
    }
    return ready;
  }

  // Kept between calls: with the raised FD_SETSIZE each set is 32 KB.
  std::unique_ptr<Sets> sets_ = std::make_unique<Sets>();
  HANDLE wake_ = nullptr;
  WSAEVENT net_ = WSA_INVALID_EVENT;
};

}  // namespace

std::unique_ptr<Poller> MakePoller() { return std::make_unique<MessageWaitPoller>(); }

}  // namespace tdacli::platform
