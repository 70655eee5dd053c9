#pragma once
// The web console's engine: one thread with its own event loop runs everything that talks to agents,
// one job after the other (a scan, a preview or an apply, a seat's login or trace-file request), so
// that the console never holds two connections to one agent, whose listener serves one console at a
// time. The HTTP threads hand jobs over through a bounded queue and wait for their result; they read
// the floor of the last finished scan as an immutable snapshot taken under a mutex.
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fleet/fleet.h"
#include "shared/exchange.h"
#include "web/floor.h"

namespace tdacli::explorer::web {

// Jobs waiting behind the one in hand; more are refused (the HTTP answer is 503).
inline constexpr size_t kMaxQueuedJobs = 16;
// The shortest time between two scans the console starts by itself (--refresh-every).
inline constexpr int kMinRefreshSeconds = 300;

class Engine {
 public:
  struct Settings {
    std::vector<fleet::Host> hosts;
    int parallel = 64;
    double timeout_seconds = 5;
    int refresh_every_seconds = 0;  // 0: only at start and when asked
  };
  explicit Engine(Settings settings);
  ~Engine();  // waits for the job in hand
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Queues a scan of every host; false when one is already queued or running (that one serves).
  bool RequestScan();
  std::shared_ptr<const Floor> floor() const;
  ScanStatus status() const;
  // Both at one moment: the rows and the count of finished scans that /api/hosts gives together must
  // belong to the same scan, or the page would keep older rows as the newer scan's.
  std::pair<std::shared_ptr<const Floor>, ScanStatus> FloorAndStatus() const;

  // fleet set over `hosts` (without `apply`: GETINFO only, "would change" or "unchanged"); nothing
  // when the queue is full.
  std::optional<std::vector<fleet::HostResult>> RunSet(const std::vector<fleet::Host>& hosts,
                                                       const std::vector<fleet::NewValue>& values, bool apply);
  // One command to one host, its reply awaited up to `timeout_seconds`; nothing when the queue is full.
  std::optional<Exchange> RunCommand(const fleet::Host& host, const std::string& command, double timeout_seconds);

 private:
  bool Queue(std::function<void(platform::EventLoop&)> job);
  void Main();
  void Scan(platform::EventLoop& loop);

  const Settings settings_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void(platform::EventLoop&)>> jobs_;
  bool stopping_ = false;
  bool scan_queued_ = false;
  ScanStatus status_;
  std::shared_ptr<const Floor> floor_;
  std::thread thread_;
};

}  // namespace tdacli::explorer::web
