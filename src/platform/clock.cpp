#include "platform/clock.h"

#include <chrono>

namespace tdacli::platform {

int64_t DaysFromCivil(int year, int month, int day) {
  using namespace std::chrono;
  return sys_days{std::chrono::year{year} / std::chrono::month{static_cast<unsigned>(month)} /
                  std::chrono::day{static_cast<unsigned>(day)}}
      .time_since_epoch()
      .count();
}

int64_t SecondsFromLocal(const LocalTime& t) {
  return DaysFromCivil(t.year, t.month, t.day) * 86400 + t.hour * 3600 + t.minute * 60 + t.second;
}

LocalTime LocalFromSeconds(int64_t s) {
  using namespace std::chrono;
  int64_t days = s >= 0 ? s / 86400 : (s - 86399) / 86400;
  int64_t rest = s - days * 86400;
  year_month_day ymd{sys_days{std::chrono::days{days}}};
  LocalTime t;
  t.year = static_cast<int>(ymd.year());
  t.month = static_cast<int>(static_cast<unsigned>(ymd.month()));
  t.day = static_cast<int>(static_cast<unsigned>(ymd.day()));
  t.hour = static_cast<int>(rest / 3600);
  t.minute = static_cast<int>(rest / 60 % 60);
  t.second = static_cast<int>(rest % 60);
  return t;
}

namespace {

class SystemClock : public Clock {
 public:
  int64_t NowMs() const override {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  LocalTime Local() const override { return SystemLocalTime(); }
};

}  // namespace

std::unique_ptr<Clock> MakeSystemClock() { return std::make_unique<SystemClock>(); }

SimulatedClock::SimulatedClock(LocalTime start) : start_seconds_(SecondsFromLocal(start)) {}

LocalTime SimulatedClock::Local() const {
  return LocalFromSeconds(start_seconds_ + (now_ms_ - 1'000'000) / 1000);
}

}  // namespace tdacli::platform
