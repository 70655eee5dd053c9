#pragma once
// A service control manager handle that is closed on every path.
#include <windows.h>

namespace tdacli::platform::win32 {

class ScHandle {
 public:
  explicit ScHandle(SC_HANDLE h = nullptr) : h_(h) {}
  ~ScHandle() {
    if (h_) CloseServiceHandle(h_);
  }
  ScHandle(const ScHandle&) = delete;
  ScHandle& operator=(const ScHandle&) = delete;
  SC_HANDLE get() const { return h_; }
  explicit operator bool() const { return h_ != nullptr; }

 private:
  SC_HANDLE h_;
};

}  // namespace tdacli::platform::win32
