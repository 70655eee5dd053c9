#pragma once
// Time source of one agent. Deadlines use the monotonic milliseconds, log stamps and file names the
// local wall time. Tests inject a simulated clock that the event loop moves forward when idle.
#include <cstdint>
#include <memory>
#include <string>

namespace tdacli::platform {

struct LocalTime {
  int year = 2000, month = 1, day = 1, hour = 0, minute = 0, second = 0;
};

class Clock {
 public:
  virtual ~Clock() = default;
  virtual int64_t NowMs() const = 0;      // monotonic milliseconds
  virtual LocalTime Local() const = 0;    // local wall time
  virtual bool IsSimulated() const { return false; }
  // Simulated clocks only: move time forward to `ms` (never backwards).
  virtual void AdvanceTo(int64_t /*ms*/) {}
};

// The operating system's clock: monotonic time from the standard library, local wall time from the OS.
std::unique_ptr<Clock> MakeSystemClock();
// The OS's local wall time now.
LocalTime SystemLocalTime();

// A clock that stands still until the event loop (or a test) advances it.
class SimulatedClock : public Clock {
 public:
  explicit SimulatedClock(LocalTime start = {2026, 11, 14, 23, 15, 2});
  int64_t NowMs() const override { return now_ms_; }
  LocalTime Local() const override;
  bool IsSimulated() const override { return true; }
  void AdvanceTo(int64_t ms) override {
    if (ms > now_ms_) now_ms_ = ms;
  }
  void AdvanceBy(int64_t ms) { now_ms_ += ms; }
  // Real milliseconds the loop waits for outside activity (peer processes) before jumping ahead.
  int idle_grace_ms = 15;

 private:
  int64_t start_seconds_;  // seconds since 1970-01-01 of the start, as local time
  int64_t now_ms_ = 1'000'000;
};

// Calendar helpers shared by both clocks.
int64_t DaysFromCivil(int year, int month, int day);
LocalTime LocalFromSeconds(int64_t seconds_since_epoch_local);
int64_t SecondsFromLocal(const LocalTime& t);

}  // namespace tdacli::platform
