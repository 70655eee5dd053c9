#pragma once
// One event loop per agent, run by one thread. DoEvents() runs whatever is ready now and may be called
// again from inside a handler (nesting). Waits run events until their condition holds or the deadline
// passes and block in the OS poll call in between; a simulated clock is moved to the next deadline
// when nothing is ready, so long time-outs cost no real time in tests.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/clock.h"
#include "platform/poller.h"

namespace tdacli::platform {

class EventLoop;

// A timer control: fires from the loop every `interval` ms while enabled. A tick may start while an
// earlier tick of the same timer is still waiting inside DoEvents().
class Timer {
 public:
  explicit Timer(EventLoop& loop);
  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  void SetInterval(int ms);
  int Interval() const { return interval_ms_; }
  void SetEnabled(bool enabled);
  bool Enabled() const { return enabled_; }
  std::function<void()> on_tick;

 private:
  friend class EventLoop;
  EventLoop& loop_;
  int interval_ms_ = 0;
  bool enabled_ = false;
  int64_t due_ms_ = 0;
};

// What the loop needs of a socket: its OS handle, what it waits for, and what to do when ready.
class SocketSink {
 public:
  virtual ~SocketSink() = default;
  virtual SocketHandle Handle() const = 0;
  virtual bool WantRead() const = 0;
  virtual bool WantWrite() const = 0;
  virtual void OnReady(bool read, bool write, bool error) = 0;
};

class EventLoop {
 public:
  explicit EventLoop(Clock& clock);
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  Clock& clock() { return clock_; }

  // Thread-safe: queue work for the loop's thread and wake it.
  void Post(std::function<void()> work);

  // Runs everything that is ready now (posted work, socket events, due timers) and returns.
  void DoEvents();

  // Runs events until done() is true or the clock passes deadline_ms; returns done().
  bool RunUntil(int64_t deadline_ms, const std::function<bool()>& done);
  // Runs events for `ms` milliseconds of the clock.
  void RunFor(int64_t ms);
  // Runs events until Quit() (or forever).
  void Run();
  // Stops every wait and Run(): used when the process ends.
  void Quit();
  bool Quitting() const { return quit_; }

  // Counters for tests and benchmarks.
  uint64_t poll_calls() const { return poll_calls_; }
  // How deeply DoEvents() runs are nested right now, and the deepest nesting seen so far.
  int run_depth() const { return run_depth_; }
  int max_run_depth() const { return max_run_depth_; }

 private:
  friend class Timer;
  friend class TcpSocket;
  void AddTimer(Timer* t);
  void RemoveTimer(Timer* t);
  void AddSink(SocketSink* s);
  void RemoveSink(SocketSink* s);
  // Blocks until something may be ready or until deadline_ms (clock time).
  void Block(int64_t deadline_ms);
  bool RunPosted();
  bool RunSockets(int timeout_ms);
  bool RunTimers();
  int64_t NextTimerDue() const;

  Clock& clock_;
  std::unique_ptr<Poller> poller_;
  std::mutex mutex_;
  std::vector<std::function<void()>> posted_;
  std::vector<Timer*> timers_;
  struct SinkEntry {
    SocketSink* sink;
    uint64_t generation;
  };
  std::vector<SinkEntry> sinks_;
  uint64_t generation_ = 0;  // bumps whenever a sink is removed, to drop stale readiness
  std::map<SocketSink*, uint64_t> sink_gen_;
  bool quit_ = false;
  uint64_t poll_calls_ = 0;
  int run_depth_ = 0;
  int max_run_depth_ = 0;
};

}  // namespace tdacli::platform
