#include "platform/event_loop.h"

#include <gtest/gtest.h>

#include <thread>

namespace tdacli::platform {
namespace {

TEST(EventLoop, DoEventsRunsPostedWorkAndReturns) {
  SimulatedClock clock;
  EventLoop loop(clock);
  int runs = 0;
  loop.Post([&] { ++runs; });
  loop.DoEvents();
  EXPECT_EQ(runs, 1);
  loop.DoEvents();
  EXPECT_EQ(runs, 1);
}

TEST(EventLoop, HandlersMayNestDoEvents) {
  SimulatedClock clock;
  EventLoop loop(clock);
  std::vector<std::string> order;
  loop.Post([&] {
    order.push_back("outer-start");
    loop.Post([&] { order.push_back("inner"); });
    loop.DoEvents();
    order.push_back("outer-end");
  });
  loop.DoEvents();
  EXPECT_EQ(order, (std::vector<std::string>{"outer-start", "inner", "outer-end"}));
}

TEST(EventLoop, SimulatedClockJumpsToTheDeadlineWhenIdle) {
  SimulatedClock clock;
  EventLoop loop(clock);
  const int64_t start = clock.NowMs();
  auto real_start = std::chrono::steady_clock::now();
  EXPECT_FALSE(loop.RunUntil(start + 30'000, [] { return false; }));
  EXPECT_EQ(clock.NowMs(), start + 30'000);
  EXPECT_LT(std::chrono::steady_clock::now() - real_start, std::chrono::seconds(2));
}

TEST(EventLoop, RunUntilEndsAsSoonAsTheConditionHolds) {
  SimulatedClock clock;
  EventLoop loop(clock);
  Timer t(loop);
  bool flag = false;
  t.SetInterval(250);
  t.on_tick = [&] { flag = true; };
  t.SetEnabled(true);
  const int64_t start = clock.NowMs();
  EXPECT_TRUE(loop.RunUntil(start + 30'000, [&] { return flag; }));
  EXPECT_EQ(clock.NowMs(), start + 250);
}

TEST(EventLoop, TimerFiresAtItsInterval) {
  SimulatedClock clock;
  EventLoop loop(clock);
  Timer t(loop);
  std::vector<int64_t> ticks;
  const int64_t start = clock.NowMs();
  t.SetInterval(1000);
  t.on_tick = [&] { ticks.push_back(clock.NowMs() - start); };
  t.SetEnabled(true);
  loop.RunFor(3500);
  EXPECT_EQ(ticks, (std::vector<int64_t>{1000, 2000, 3000}));
}

TEST(EventLoop, TimerDisabledInItsOwnHandlerStaysQuiet) {
  SimulatedClock clock;
  EventLoop loop(clock);
  Timer t(loop);
  int ticks = 0;
  t.SetInterval(1000);
  t.on_tick = [&] {
    ++ticks;
    t.SetInterval(0);
    t.SetEnabled(false);
  };
  t.SetEnabled(true);
  loop.RunFor(10'000);
  EXPECT_EQ(ticks, 1);
}

TEST(EventLoop, TickMayStartWhileAnEarlierTickWaits) {
  SimulatedClock clock;
  EventLoop loop(clock);
  Timer t(loop);
  int depth = 0, max_depth = 0, ticks = 0;
  t.SetInterval(1000);
  t.on_tick = [&] {
    ++ticks;
    ++depth;
    max_depth = std::max(max_depth, depth);
    if (ticks == 1) loop.RunFor(2500);  // the first tick waits; the timer keeps ticking inside
    --depth;
  };
  t.SetEnabled(true);
  loop.RunFor(1000);
  EXPECT_GE(ticks, 3);
  EXPECT_EQ(max_depth, 2);
}

TEST(EventLoop, PostFromAnotherThreadWakesABlockedLoop) {
  auto clock = MakeSystemClock();
  EventLoop loop(*clock);
  bool done = false;
  std::thread other([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    loop.Post([&] { done = true; });
  });
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(loop.RunUntil(clock->NowMs() + 10'000, [&] { return done; }));
  other.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(EventLoop, RealWaitBlocksInsteadOfSpinning) {
  auto clock = MakeSystemClock();
  EventLoop loop(*clock);
  Timer t(loop);
  t.SetInterval(100);
  t.on_tick = [] {};
  t.SetEnabled(true);
  const uint64_t before = loop.poll_calls();
  loop.RunFor(500);
  // A 1-ms polling loop would need about 500 polls; blocking needs about one per timer tick.
  EXPECT_LT(loop.poll_calls() - before, 40u);
}

TEST(EventLoop, QuitEndsEveryWait) {
  SimulatedClock clock;
  EventLoop loop(clock);
  loop.Post([&] { loop.Quit(); });
  EXPECT_FALSE(loop.RunUntil(clock.NowMs() + 1'000'000, [] { return false; }));
  EXPECT_TRUE(loop.Quitting());
}

TEST(Clock, SimulatedLocalTimeFollowsTheMonotonicTime) {
  SimulatedClock clock({2026, 12, 31, 23, 59, 30});
  clock.AdvanceBy(45'000);
  LocalTime t = clock.Local();
  EXPECT_EQ(t.year, 2027);
  EXPECT_EQ(t.month, 1);
  EXPECT_EQ(t.day, 1);
  EXPECT_EQ(t.hour, 0);
  EXPECT_EQ(t.minute, 0);
  EXPECT_EQ(t.second, 15);
}

}  // namespace
}  // namespace tdacli::platform
