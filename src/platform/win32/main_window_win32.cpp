// The hidden main form: a top-level window (not a message-only one, which the system leaves out when
// it asks the windows of a session whether it may end), created without WS_VISIBLE, 1 x 1 at
// (-120, -120), and kept off the task bar. Its messages are dispatched by the event loop's waits.
#include <windows.h>

#include "platform/main_window.h"

namespace tdacli::platform {
namespace {

constexpr const char* kClassName = "TDACLI.frmMain";

class Win32MainWindow : public MainWindow {
 public:
  explicit Win32MainWindow(std::function<bool()> query_unload) : query_unload_(std::move(query_unload)) {
    HINSTANCE instance = GetModuleHandleA(nullptr);
    WNDCLASSEXA wc{};
    wc.cbSize = sizeof wc;
    wc.lpfnWndProc = &WindowProc;
    wc.hInstance = instance;
    wc.lpszClassName = kClassName;
    // Registered once per process; a second form (tests) reuses the class.
    if (!RegisterClassExA(&wc) && GetLastError() != ERROR_CLASS_ALREADY_EXISTS) return;
    hwnd_ = CreateWindowExA(WS_EX_TOOLWINDOW, kClassName, "frmMain", WS_OVERLAPPED, -120, -120, 1, 1, nullptr,
                            nullptr, instance, this);
  }
  ~Win32MainWindow() override {
    if (hwnd_) {
      SetWindowLongPtrA(hwnd_, GWLP_USERDATA, 0);
      DestroyWindow(hwnd_);
    }
  }
  intptr_t Handle() const override { return reinterpret_cast<intptr_t>(hwnd_); }

 private:
  // True when the close is refused.
  bool QueryUnload() { return query_unload_ && query_unload_(); }

  static LRESULT CALLBACK WindowProc(HWND hwnd, UINT msg, WPARAM wp, LPARAM lp) {
    if (msg == WM_NCCREATE) {
      auto* cs = reinterpret_cast<CREATESTRUCTA*>(lp);
      SetWindowLongPtrA(hwnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(cs->lpCreateParams));
    }
    auto* self = reinterpret_cast<Win32MainWindow*>(GetWindowLongPtrA(hwnd, GWLP_USERDATA));
    if (self) {
      switch (msg) {
        case WM_QUERYENDSESSION:
          // Refusing answers FALSE; agreeing (user-session mode) has already ended the process.
          self->asked_ = true;
          return self->QueryUnload() ? FALSE : TRUE;
        case WM_ENDSESSION:
          // The session ends whatever the answers were: the process is ended after this returns. The
          // form was asked already unless the end came without the question (a forced one); only
          // then is it asked here, so that one end of a session is one close request.
          if (wp && !self->asked_) self->QueryUnload();
          self->asked_ = false;
          return 0;
        case WM_CLOSE:
          if (!self->QueryUnload()) DestroyWindow(hwnd);
          return 0;
        default:
          break;
      }
    }
    return DefWindowProcA(hwnd, msg, wp, lp);
  }

  std::function<bool()> query_unload_;
  HWND hwnd_ = nullptr;
  bool asked_ = false;  // WM_QUERYENDSESSION came and its WM_ENDSESSION has not
};

}  // namespace

std::unique_ptr<MainWindow> MakeMainWindow(std::function<bool()> query_unload) {
  return std::make_unique<Win32MainWindow>(std::move(query_unload));
}

}  // namespace tdacli::platform
