#include "wps/spi/time.h"

#include <gtest/gtest.h>

#include <thread>

#include "wps/spi/concurrent.h"
#include "wps/spi/simulated_clock.h"

namespace WPS::SPI {
namespace {

TEST(TimeTest, RealClockHasMillisecondResolution) {
  Time t = Time::now();
  EXPECT_GT(t.seconds, 1600000000);
  EXPECT_GE(t.milliseconds, 0);
  EXPECT_LT(t.milliseconds, 1000);
}

TEST(TimeTest, DifferenceIsSecondsTimesThousandPlusMilliseconds) {
  const struct {
    Time a, b;
    int64_t ms;
  } cases[] = {
      {Time(10, 500), Time(10, 200), 300},
      {Time(11, 100), Time(10, 900), 200},   // borrow across a second
      {Time(10, 0), Time(12, 0), -2000},
      {Time(2000000000, 999), Time(-2000000000, 0), 4000000000999LL},  // no 32-bit overflow
  };
  for (const auto& c : cases) EXPECT_EQ(c.a - c.b, c.ms);
}

TEST(TimeTest, UnsetIsZeroSeconds) {
  EXPECT_FALSE(Time().isSet());
  EXPECT_FALSE(Time(0, 500).isSet());
  EXPECT_TRUE(Time(1, 0).isSet());
}

TEST(TimeTest, FormatsWithStrftime) {
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(Time::strftime("%Y-%m-%d %H:%M:%S", Time(86400 * 365, 0)), "1971-01-01 00:00:00");
}

TEST(SimulatedClockTest, TimerAndSleepRunInVirtualTime) {
  SimulatedClock clock(Time(1000, 0));
  ScopedClock installed(clock);
  Timer timer;
  Thread::msleep(30000);  // thirty virtual seconds, returns at once
  EXPECT_EQ(Time::now(), Time(1030, 0));
  EXPECT_EQ(timer.tick(), 30000);
  clock.advance(250);
  EXPECT_EQ(timer.elapsed(), 250);
  EXPECT_EQ(clock.totalSlept(), 30000);
}

TEST(SimulatedClockTest, SleeperWaitsUntilAnotherThreadAdvancesPastItsDeadline) {
  SimulatedClock clock(Time(1000, 0), /*autoAdvance=*/false);
  ScopedClock installed(clock);
  std::atomic<bool> woke{false};
  std::thread sleeper([&] {
    Thread::msleep(10000);
    woke = true;
  });
  while (clock.sleepers() == 0) std::this_thread::yield();
  clock.advance(9999);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(woke);
  clock.advance(1);
  sleeper.join();
  EXPECT_TRUE(woke);
}

TEST(SimulatedClockTest, ScopedClockRestoresTheRealClock) {
  {
    SimulatedClock clock(Time(5, 0));
    ScopedClock installed(clock);
    EXPECT_EQ(Time::now(), Time(5, 0));
  }
  EXPECT_EQ(&Clock::get(), &Clock::real());
}

}  // namespace
}  // namespace WPS::SPI
