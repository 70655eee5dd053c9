#include <time.h>

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
    time_t now = time(nullptr);
    tm t{};
    localtime_r(&now, &t);
    return {t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec};
  }
};

}  // namespace

std::unique_ptr<Clock> MakeSystemClock() { return std::make_unique<SystemClock>(); }

}  // namespace tdacli::platform
