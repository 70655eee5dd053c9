#include <windows.h>

#include <chrono>

#include "platform/clock.h"

namespace tdacli::platform {
namespace {

class SystemClock : public Clock {
 public:
  int64_t NowMs() const override {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  LocalTime Local() const override {
    SYSTEMTIME t{};
    GetLocalTime(&t);
    return {t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond};
  }
};

}  // namespace

std::unique_ptr<Clock> MakeSystemClock() { return std::make_unique<SystemClock>(); }

}  // namespace tdacli::platform
