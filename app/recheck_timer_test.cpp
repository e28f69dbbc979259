#include "app/recheck_timer.h"

#include <gtest/gtest.h>

#include "platform/testing/system_log_capture.h"
#include "wps/spi/simulated_clock.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

// The timer on the main loop in virtual time; each case says when the look-ups
// happen and when the interval changes, and which re-checks follow.
class RecheckTimerTest : public ::testing::Test {
 protected:
  // Moves virtual time on minute by minute, running what falls due.
  void advanceMinutes(int minutes) {
    for (int i = 0; i < minutes; ++i) {
      clock_.advance(1min);
      while (RunLoop::main().runOnce()) {
      }
    }
  }
  testing::SystemLogCapture log_;
  WPS::SPI::SimulatedClock clock_;
  WPS::SPI::ScopedClock installed_{clock_};
  std::vector<Clock::TimePoint> rechecks_;
};

TEST_F(RecheckTimerTest, LooksAgainWhenTheIntervalPassedWithoutALookUp) {
  struct Step {
    int atMinute;
    enum { LookUp, Interval } what;
    int minutes = 0;
  };
  struct Case {
    const char* name;
    std::vector<Step> steps;
    std::vector<long> rechecks;  // minutes after the start, up to minute 100
  };
  const Case cases[] = {
      {"every 30 minutes without look-ups", {{0, Step::Interval, 30}}, {30, 60, 90}},
      {"look-ups postpone it", {{0, Step::Interval, 30}, {20, Step::LookUp}, {45, Step::LookUp}}, {75}},
      {"0 never looks", {{0, Step::Interval, 0}, {10, Step::LookUp}}, {}},
      {"turned off", {{0, Step::Interval, 30}, {29, Step::Interval, 0}}, {}},
      // A new interval counts from the last look-up, not from the change.
      {"shortened", {{0, Step::Interval, 30}, {5, Step::LookUp}, {20, Step::Interval, 10}}, {20, 30, 40, 50, 60, 70, 80, 90, 100}},
      {"lengthened", {{0, Step::Interval, 10}, {5, Step::Interval, 60}}, {60}},
      {"never set", {{10, Step::LookUp}}, {}},
  };
  for (const Case& c : cases) {
    rechecks_.clear();
    const Clock::TimePoint caseStart = Clock::get().now();
    {
      RecheckTimer timer(RunLoop::main(), [this] { rechecks_.push_back(Clock::get().now()); });
      int minute = 0;
      for (const Step& step : c.steps) {
        advanceMinutes(step.atMinute - minute);
        minute = step.atMinute;
        if (step.what == Step::LookUp) {
          timer.lookedUp();
        } else {
          timer.setInterval(std::chrono::minutes(step.minutes));
        }
        while (RunLoop::main().runOnce()) {
        }
      }
      advanceMinutes(100 - minute);
    }
    std::vector<long> got;
    for (Clock::TimePoint t : rechecks_) {
      got.push_back(static_cast<long>(std::chrono::duration_cast<std::chrono::minutes>(t - caseStart).count()));
    }
    EXPECT_EQ(got, c.rechecks) << c.name;
    // Gone with the timer: nothing more.
    const size_t count = rechecks_.size();
    advanceMinutes(60);
    EXPECT_EQ(rechecks_.size(), count) << c.name;
  }
  EXPECT_TRUE(log_.has("no look-up for 30 min (RecheckMinutes): looking for the position again"));
}

}  // namespace
}  // namespace zonara
