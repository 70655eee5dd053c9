// The engine thread: jobs one after the other on one event loop, scans published as whole floors.
#include "web/engine.h"

#include <chrono>
#include <future>

#include "platform/clock.h"
#include "platform/event_loop.h"

namespace tdacli::explorer::web {

Engine::Engine(Settings settings) : settings_(std::move(settings)) {
  std::vector<fleet::HostResult> none(settings_.hosts.size());
  for (size_t i = 0; i < none.size(); ++i) none[i].host = settings_.hosts[i];
  floor_ = BuildFloor(std::move(none), 0, {}, 0);
  status_.total = settings_.hosts.size();
  thread_ = std::thread([this] { Main(); });
}

Engine::~Engine() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    jobs_.clear();
  }
  wake_.notify_all();
  thread_.join();
}

std::shared_ptr<const Floor> Engine::floor() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return floor_;
}

ScanStatus Engine::status() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return status_;
}

std::pair<std::shared_ptr<const Floor>, ScanStatus> Engine::FloorAndStatus() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return {floor_, status_};
}

bool Engine::Queue(std::function<void(platform::EventLoop&)> job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_ || jobs_.size() >= kMaxQueuedJobs) return false;
    jobs_.push_back(std::move(job));
  }
  wake_.notify_all();
  return true;
}

bool Engine::RequestScan() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (scan_queued_ || status_.running || stopping_ || jobs_.size() >= kMaxQueuedJobs) return false;
    scan_queued_ = true;
    jobs_.push_back([this](platform::EventLoop& loop) { Scan(loop); });
  }
  wake_.notify_all();
  return true;
}

std::optional<std::vector<fleet::HostResult>> Engine::RunSet(const std::vector<fleet::Host>& hosts,
                                                             const std::vector<fleet::NewValue>& values, bool apply) {
  auto done = std::make_shared<std::promise<std::vector<fleet::HostResult>>>();
  std::future<std::vector<fleet::HostResult>> result = done->get_future();
  fleet::Options o;
  o.command = fleet::Command::kSet;
  o.hosts = hosts;
  o.values = values;
  o.apply = apply;
  o.parallel = settings_.parallel;
  o.timeout_seconds = settings_.timeout_seconds;
  if (!Queue([o, done](platform::EventLoop& loop) { done->set_value(fleet::Run(loop, o)); })) return std::nullopt;
  return result.get();
}

std::optional<Exchange> Engine::RunCommand(const fleet::Host& host, const std::string& command, double timeout_seconds) {
  auto done = std::make_shared<std::promise<Exchange>>();
  std::future<Exchange> result = done->get_future();
  if (!Queue([host, command, timeout_seconds, done](platform::EventLoop& loop) {
        done->set_value(RunExchange(loop, host.name, host.port, command, timeout_seconds));
      }))
    return std::nullopt;
  return result.get();
}

void Engine::Scan(platform::EventLoop& loop) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    scan_queued_ = false;
    status_.running = true;
    status_.done = status_.failed = 0;
    status_.total = settings_.hosts.size();
  }
  fleet::Options o;
  o.command = fleet::Command::kGetVer;
  o.hosts = settings_.hosts;
  o.parallel = settings_.parallel;
  o.timeout_seconds = settings_.timeout_seconds;
  const platform::LocalTime started = loop.clock().Local();
  const int64_t started_ms = loop.clock().NowMs();
  uint64_t number;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    number = status_.scans + 1;
  }
  std::vector<fleet::HostResult> results = fleet::Run(loop, o, [this](const fleet::Progress& p) {
    std::lock_guard<std::mutex> lock(mutex_);
    status_.done = p.done;
    status_.failed = p.failed;
  });
  // Built outside the lock: the HTTP threads keep reading the floor before it meanwhile.
  std::shared_ptr<const Floor> floor = BuildFloor(std::move(results), number, started, started_ms);
  std::lock_guard<std::mutex> lock(mutex_);
  floor_ = std::move(floor);
  status_.running = false;
  status_.scans = number;
}

void Engine::Main() {
  auto clock = platform::MakeSystemClock();
  platform::EventLoop loop(*clock);
  using Steady = std::chrono::steady_clock;
  const auto every = std::chrono::seconds(settings_.refresh_every_seconds);
  auto next_refresh = Steady::now() + every;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (settings_.refresh_every_seconds > 0) {
      wake_.wait_until(lock, next_refresh, [&] { return stopping_ || !jobs_.empty() || Steady::now() >= next_refresh; });
      if (!stopping_ && Steady::now() >= next_refresh) {
        // Counted from when it is due, so that a long job does not make scans follow closer.
        next_refresh = Steady::now() + every;
        if (!scan_queued_ && !status_.running) {
          scan_queued_ = true;
          jobs_.push_back([this](platform::EventLoop& l) { Scan(l); });
        }
      }
    } else {
      wake_.wait(lock, [&] { return stopping_ || !jobs_.empty(); });
    }
    if (stopping_) return;
    if (jobs_.empty()) continue;
    auto job = std::move(jobs_.front());
    jobs_.pop_front();
    lock.unlock();
    job(loop);
    lock.lock();
  }
}

}  // namespace tdacli::explorer::web
