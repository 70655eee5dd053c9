#pragma once
// The hidden main form as the system sees it. On Windows it is a real top-level window that is never
// shown: the end of the user's session, a shutdown and a request to close it reach the program only
// through such a window (a console control handler is not called for them once user32 is loaded).
// It belongs to the thread that runs the agent's loop, whose waits dispatch its messages. Elsewhere
// there is no such window (POSIX ends the process by signal).
#include <cstdint>
#include <functional>
#include <memory>

namespace tdacli::platform {

class MainWindow {
 public:
  virtual ~MainWindow() = default;
  // The window's handle (an HWND on Windows, 0 where there is no window): for tests that send it
  // what the system would.
  virtual intptr_t Handle() const = 0;
};

// Creates the hidden window on the calling thread, which must be the thread that runs the loop.
// `query_unload` runs on that thread when the system asks to close the form (session end, shutdown,
// close request) and returns true to refuse.
std::unique_ptr<MainWindow> MakeMainWindow(std::function<bool()> query_unload);

}  // namespace tdacli::platform
