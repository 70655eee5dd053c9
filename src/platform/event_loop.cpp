#include "platform/event_loop.h"

#include <algorithm>
#include <limits>

namespace tdacli::platform {

namespace {
constexpr int64_t kForever = std::numeric_limits<int64_t>::max();
}

Timer::Timer(EventLoop& loop) : loop_(loop) { loop_.AddTimer(this); }
Timer::~Timer() { loop_.RemoveTimer(this); }

void Timer::SetInterval(int ms) {
  interval_ms_ = ms;
  if (enabled_) due_ms_ = loop_.clock().NowMs() + ms;
}

void Timer::SetEnabled(bool enabled) {
  if (enabled && !enabled_) due_ms_ = loop_.clock().NowMs() + interval_ms_;
  enabled_ = enabled;
}

EventLoop::EventLoop(Clock& clock) : clock_(clock), poller_(MakePoller()) {}
EventLoop::~EventLoop() = default;

void EventLoop::Post(std::function<void()> work) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    posted_.push_back(std::move(work));
  }
  poller_->Wake();
}

void EventLoop::AddTimer(Timer* t) { timers_.push_back(t); }
void EventLoop::RemoveTimer(Timer* t) { timers_.erase(std::remove(timers_.begin(), timers_.end(), t), timers_.end()); }

void EventLoop::AddSink(SocketSink* s) {
  if (sink_gen_.count(s)) return;
  sink_gen_[s] = ++generation_;
  sinks_.push_back({s, generation_});
}

void EventLoop::RemoveSink(SocketSink* s) {
  sinks_.erase(std::remove_if(sinks_.begin(), sinks_.end(), [s](const SinkEntry& e) { return e.sink == s; }),
               sinks_.end());
  sink_gen_.erase(s);
}

bool EventLoop::RunPosted() {
  std::vector<std::function<void()>> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    work.swap(posted_);
  }
  for (auto& w : work) {
    if (quit_) break;
    w();
  }
  return !work.empty();
}

bool EventLoop::RunSockets(int timeout_ms) {
  std::vector<Poller::Interest> interests;
  std::vector<SinkEntry> owners;
  interests.reserve(sinks_.size());
  owners.reserve(sinks_.size());
  for (const SinkEntry& e : sinks_) {
    bool r = e.sink->WantRead(), w = e.sink->WantWrite();
    if (!r && !w) continue;
    interests.push_back({e.sink->Handle(), r, w});
    owners.push_back(e);
  }
  ++poll_calls_;
  auto ready = poller_->Poll(interests, timeout_ms);
  bool any = false;
  // The poller reports in the order of the interests: a cursor finds each owner without a search
  // through thousands of connections.
  size_t cursor = 0;
  for (const auto& r : ready) {
    if (quit_) return any;
    size_t k = cursor;
    while (k < interests.size() && interests[k].handle != r.handle) ++k;
    if (k == interests.size()) {
      for (k = 0; k < interests.size() && interests[k].handle != r.handle; ++k) {
      }
      if (k == interests.size()) continue;
    }
    cursor = k + 1;
    SocketSink* sink = owners[k].sink;
    auto it = sink_gen_.find(sink);
    if (it == sink_gen_.end() || it->second != owners[k].generation || sink->Handle() != r.handle) continue;
    any = true;
    sink->OnReady(r.read, r.write, r.error);
  }
  return any;
}

int64_t EventLoop::NextTimerDue() const {
  int64_t next = kForever;
  for (const Timer* t : timers_)
    if (t->enabled_ && t->interval_ms_ > 0) next = std::min(next, t->due_ms_);
  return next;
}

bool EventLoop::RunTimers() {
  const int64_t now = clock_.NowMs();
  std::vector<Timer*> due;
  for (Timer* t : timers_)
    if (t->enabled_ && t->interval_ms_ > 0 && t->due_ms_ <= now) due.push_back(t);
  std::sort(due.begin(), due.end(), [](Timer* a, Timer* b) { return a->due_ms_ < b->due_ms_; });
  for (Timer* t : due) {
    if (quit_) break;
    // The timer may have been destroyed or disabled by an earlier handler.
    if (std::find(timers_.begin(), timers_.end(), t) == timers_.end()) continue;
    if (!t->enabled_ || t->interval_ms_ <= 0 || t->due_ms_ > now) continue;
    t->due_ms_ = now + t->interval_ms_;
    if (t->on_tick) t->on_tick();
  }
  return !due.empty();
}

void EventLoop::DoEvents() {
  if (quit_) return;
  struct Depth {
    EventLoop& l;
    explicit Depth(EventLoop& loop) : l(loop) { l.max_run_depth_ = std::max(l.max_run_depth_, ++l.run_depth_); }
    ~Depth() { --l.run_depth_; }
  } depth(*this);
  RunPosted();
  RunSockets(0);
  RunTimers();
}

void EventLoop::Block(int64_t deadline_ms) {
  const int64_t now = clock_.NowMs();
  const int64_t target = std::min(deadline_ms, NextTimerDue());
  if (target <= now) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!posted_.empty()) return;
  }
  if (!clock_.IsSimulated()) {
    const int64_t wait = target - now;
    int timeout = target == kForever ? -1 : static_cast<int>(std::min<int64_t>(wait, 1 << 30));
    RunSockets(timeout);
    return;
  }
  // Simulated time: give peers on the network a short real moment, then jump to the next deadline.
  int grace = static_cast<const SimulatedClock&>(clock_).idle_grace_ms;
  bool any = RunSockets(sinks_.empty() ? 0 : grace);
  if (any) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!posted_.empty()) return;
  }
  if (target != kForever) {
    clock_.AdvanceTo(target);
  } else {
    RunSockets(-1);  // nothing scheduled at all: wait for the outside world
  }
}

bool EventLoop::RunUntil(int64_t deadline_ms, const std::function<bool()>& done) {
  for (;;) {
    DoEvents();
    if (done && done()) return true;
    if (quit_) return false;
    if (clock_.NowMs() >= deadline_ms) return false;
    Block(deadline_ms);
  }
}

void EventLoop::RunFor(int64_t ms) { RunUntil(clock_.NowMs() + ms, nullptr); }

void EventLoop::Run() { RunUntil(kForever, nullptr); }

void EventLoop::Quit() {
  quit_ = true;
  poller_->Wake();
}

}  // namespace tdacli::platform
