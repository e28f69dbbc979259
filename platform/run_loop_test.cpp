#include "platform/run_loop.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>
#include <vector>

#include "wps/api/wpsapi.h"
#include "wps/spi/simulated_clock.h"

using namespace std::chrono_literals;

namespace zonara {
namespace {

class RunLoopTest : public ::testing::Test {
 protected:
  WPS::SPI::SimulatedClock clock_;
  WPS::SPI::ScopedClock installed_{clock_};
  RunLoop& loop_ = RunLoop::current();
};

TEST_F(RunLoopTest, TimersFireInDueOrderAtTheirVirtualTimes) {
  std::vector<std::pair<std::string, long>> fired;
  auto record = [&](std::string name) {
    return [&, name] { fired.emplace_back(name, static_cast<long>(clock_.elapsed().count())); };
  };
  (void)loop_.addTimer(3000ms, false, record("c"));
  loop_.performAfterDelay(500ms, record("b"));
  loop_.performAfterDelay(0ms, record("a"));
  EXPECT_TRUE(loop_.runUntilNoTimers());
  EXPECT_EQ(fired, (std::vector<std::pair<std::string, long>>{{"a", 0}, {"b", 500}, {"c", 3000}}));
}

TEST_F(RunLoopTest, RepeatingTimerFiresEveryIntervalUntilCancelled) {
  std::vector<long> at;
  RunLoop::TimerId id = 0;
  id = loop_.addTimer(30s, true, [&] {
    at.push_back(static_cast<long>(clock_.elapsed().count() / 1000));
    if (at.size() == 4) {
      EXPECT_TRUE(loop_.cancelTimer(id));  // cancels itself
    }
  });
  EXPECT_TRUE(loop_.runUntilNoTimers());
  EXPECT_EQ(at, (std::vector<long>{30, 60, 90, 120}));
  EXPECT_FALSE(loop_.cancelTimer(id));
}

TEST_F(RunLoopTest, RepeatingTimerSkipsMissedFiringsAndVirtualLimitStopsTheRun) {
  int count = 0;
  auto id = loop_.addTimer(10s, true, [&] { ++count; });
  clock_.advance(35s);  // three firings missed: only one catches up
  loop_.runOnce();
  EXPECT_EQ(count, 1);
  EXPECT_FALSE(loop_.runUntilNoTimers(100s));  // forever otherwise
  EXPECT_EQ(loop_.timerCount(), 1u);
  EXPECT_GE(count, 10);
  EXPECT_LE(count, 12);
  EXPECT_TRUE(loop_.cancelTimer(id));
}

TEST_F(RunLoopTest, CallbackCanCancelALaterDueTimerAndAddNewOnes) {
  std::vector<int> fired;
  RunLoop::TimerId second = 0;
  loop_.performAfterDelay(1s, [&] {
    fired.push_back(1);
    loop_.cancelTimer(second);
    loop_.performAfterDelay(1s, [&] { fired.push_back(3); });
  });
  second = loop_.performAfterDelay(1s, [&] { fired.push_back(2); });
  EXPECT_TRUE(loop_.runUntilNoTimers());
  EXPECT_EQ(fired, (std::vector<int>{1, 3}));
  EXPECT_EQ(clock_.elapsed(), 2s);
}

TEST_F(RunLoopTest, TimerIsNotDueBeforeItsTime) {
  bool fired = false;
  loop_.performAfterDelay(2s, [&] { fired = true; });
  clock_.advance(1999ms);
  loop_.runOnce();
  EXPECT_FALSE(fired);
  clock_.advance(1ms);
  loop_.runOnce();
  EXPECT_TRUE(fired);
}

TEST_F(RunLoopTest, StopEndsRunFromATimerAndFromAnotherThread) {
  loop_.performAfterDelay(5s, [&] { loop_.stop(); });
  std::thread advancer([&] {
    std::this_thread::sleep_for(20ms);
    clock_.advance(5s);
  });
  loop_.run();  // returns only through the timer's stop
  advancer.join();
  EXPECT_EQ(clock_.elapsed(), 5s);

  std::thread stopper([&] {
    std::this_thread::sleep_for(20ms);
    loop_.stop();
  });
  loop_.run();
  stopper.join();
}

TEST_F(RunLoopTest, NestedRunIsStoppedInnermostFirst) {
  std::vector<std::string> order;
  loop_.performAfterDelay(1s, [&] {
    loop_.performAfterDelay(1s, [&] { loop_.stop(); });
    loop_.run();
    order.push_back("inner returned");
    loop_.stop();
  });
  std::thread advancer([&] {
    for (int i = 0; i < 2; ++i) {
      std::this_thread::sleep_for(20ms);
      clock_.advance(1s);
    }
  });
  loop_.run();
  advancer.join();
  order.push_back("outer returned");
  EXPECT_EQ(order, (std::vector<std::string>{"inner returned", "outer returned"}));
}

TEST_F(RunLoopTest, TimerOfAThreadFiresOnlyWhileThatThreadRunsItsLoop) {
  std::atomic<bool> fired{false};
  std::atomic<bool> added{false};
  std::atomic<bool> release{false};
  std::thread worker([&] {
    RunLoop& mine = RunLoop::current();
    EXPECT_NE(&mine, &RunLoop::main());
    mine.performAfterDelay(1s, [&] { fired = true; });
    added = true;
    while (!release) std::this_thread::sleep_for(1ms);  // not running its loop
    EXPECT_FALSE(fired);
    mine.runOnce();
    EXPECT_TRUE(fired);
  });
  while (!added) std::this_thread::sleep_for(1ms);
  clock_.advance(2s);
  loop_.runOnce();  // the main loop running does not fire the worker's timer
  std::this_thread::sleep_for(10ms);
  EXPECT_FALSE(fired);
  release = true;
  worker.join();
}

TEST_F(RunLoopTest, PerformOnMainThreadWaitingAndNot) {
  std::vector<std::string> order;
  bool ranInline = false;
  RunLoop::performOnMainThread([&] { ranInline = true; }, true);  // on main: at once
  EXPECT_TRUE(ranInline);

  std::atomic<bool> waitedCallDone{false};
  std::thread worker([&] {
    RunLoop::performOnMainThread([&] { order.push_back("queued"); }, false);
    RunLoop::performOnMainThread([&] { order.push_back("waited"); }, true);
    EXPECT_EQ(order.size(), 2u);  // the waiting call returned after running
    waitedCallDone = true;
  });
  EXPECT_TRUE(loop_.runUntil([&] { return waitedCallDone.load(); }, 2s));
  worker.join();
  EXPECT_EQ(order, (std::vector<std::string>{"queued", "waited"}));
}

TEST_F(RunLoopTest, RunUntilGivesUpAfterItsRealLimit) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(loop_.runUntil([] { return false; }, 50ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
}

TEST(RunLoopRealClockTest, TimerWaitsForRealTime) {
  RunLoop& loop = RunLoop::current();
  auto start = std::chrono::steady_clock::now();
  bool fired = false;
  loop.performAfterDelay(30ms, [&] { fired = true; });
  EXPECT_TRUE(loop.runUntilNoTimers());
  EXPECT_TRUE(fired);
  // The clock counts whole milliseconds, so the timer may fire up to 1 ms
  // before 30 ms of the finer steady clock have passed.
  EXPECT_GE(std::chrono::steady_clock::now() - start, 29ms);
}

// The helper reads the one clock it shares with the library: a simulated
// one installed by a test, and back to real time after.
TEST(SharedClockTest, TheHelperReadsTheInstalledSimulatedClock) {
  {
    WPS::SPI::SimulatedClock clock(Clock::WallTime(std::chrono::hours(24 * 365)));
    WPS::SPI::ScopedClock installed(clock);
    EXPECT_TRUE(Clock::get().isVirtual());
    Clock::get().sleepFor(1500ms);  // moves the simulated time
    EXPECT_EQ(Clock::get().now(), Clock::TimePoint(1500ms));
    EXPECT_EQ(Clock::get().wallNow(), Clock::WallTime(std::chrono::hours(24 * 365) + 1500ms));
    EXPECT_EQ(clock.elapsed(), 1500ms);
  }
  EXPECT_FALSE(Clock::get().isVirtual());
  EXPECT_NEAR(static_cast<double>(Clock::get().wallNow().time_since_epoch().count()),
              static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                      std::chrono::system_clock::now().time_since_epoch())
                                      .count()),
              2000.0);
}

// A move of the simulated clock on another thread wakes a loop waiting for
// its timer.
TEST_F(RunLoopTest, AMoveOnAnotherThreadFiresTheTimerThenDue) {
  bool fired = false;
  loop_.performAfterDelay(10s, [&] { fired = true; });
  std::thread mover([this] { clock_.advance(10s); });
  EXPECT_TRUE(loop_.runUntil([&] { return fired; }, 2s));
  mover.join();
}

TEST(ScaledClockTest, ParseFactorAcceptsOnlyNumbersOfAtLeastOne) {
  struct Case {
    const char* text;
    std::optional<double> factor;
  };
  for (const Case& c : std::vector<Case>{{"1", 1.0},
                                         {"20", 20.0},
                                         {"2.5", 2.5},
                                         {nullptr, std::nullopt},
                                         {"", std::nullopt},
                                         {"0.5", std::nullopt},
                                         {"-3", std::nullopt},
                                         {"fast", std::nullopt},
                                         {"10x", std::nullopt},
                                         {"inf", std::nullopt},
                                         {"nan", std::nullopt}}) {
    EXPECT_EQ(Clock::parseFactor(c.text), c.factor) << (c.text ? c.text : "(null)");
  }
}

// The time scale set through the library applies to the helper's timers,
// sleeps and wall time.
TEST(ScaledClockTest, TimersSleepsAndWallTimeRunFaster) {
  ASSERT_EQ(WPS_set_time_scale(100), WPS_OK);
  struct Restore {
    ~Restore() { (void)WPS_set_time_scale(1); }
  } restore;
  const Clock& clock = Clock::get();
  EXPECT_EQ(clock.realDuration(2000ms), 20ms);
  EXPECT_EQ(clock.realDuration(1ms), 1ms);  // never 0: a loop must not spin
  EXPECT_EQ(clock.realDuration(0ms), 0ms);

  const auto realStart = std::chrono::steady_clock::now();
  const auto start = clock.now();
  const auto wallStart = clock.wallNow();
  clock.sleepFor(500ms);
  EXPECT_GE(clock.now() - start, 500ms);
  EXPECT_GE(clock.wallNow() - wallStart, 500ms);

  // A 60 s timer of the scaled clock fires after 0.6 s of real time, well
  // before the loop's own real limit.
  RunLoop& loop = RunLoop::current();
  bool fired = false;
  loop.performAfterDelay(std::chrono::seconds(60), [&] { fired = true; });
  EXPECT_TRUE(loop.runUntil([&] { return fired; }, std::chrono::seconds(20)));
  EXPECT_GE(clock.now() - start, std::chrono::seconds(60));
  EXPECT_GE(std::chrono::steady_clock::now() - realStart, 600ms);
}

}  // namespace
}  // namespace zonara
