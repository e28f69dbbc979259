#include "sensors/sensor_aggregator.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/system_log.h"
#include "platform/testing/system_log_capture.h"
#include "platform/zonara_names.h"
#include "sensors/sensor_test_support.h"
#include "wps/spi/simulated_clock.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;

// A positioning sensor's status as a test sets it, compared as the sensor
// does (within 0.01 km).
class FakeStatusSource final : public TelluroStatusSource {
 public:
  TelluroStatus telluroStatus() const override { return status; }
  bool statusIsEqualToStatus(const TelluroStatus& other) const override {
    if (!status.currentLongitude || !other.currentLongitude)
      return !status.currentLongitude && !other.currentLongitude;
    return TelluroHelper::calculateDistanceFrom(*status.currentLongitude, *status.currentLatitude,
                                                *other.currentLongitude, *other.currentLatitude) < 0.01f;
  }
  TelluroStatus status;
};

class SensorAggregatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    observer_ = center_.addObserver(kSensorNotification, [this](const Notification& n) {
      EXPECT_EQ(n.object, aggregator_.get());
      posted_.push_back(Clock::get().now());
    });
    aggregator_ = std::make_unique<SensorAggregator>(center_);
    aggregator_->setStatusSource(&source_);
  }
  void TearDown() override { aggregator_.reset(); }

  testing::SystemLogCapture log_;
  WPS::SPI::SimulatedClock clock_;
  WPS::SPI::ScopedClock installed_{clock_};
  NotificationCenter center_;
  NotificationCenter::ObserverId observer_ = 0;
  FakeStatusSource source_;
  std::unique_ptr<SensorAggregator> aggregator_;
  std::vector<Clock::TimePoint> posted_;
};

TEST_F(SensorAggregatorTest, ThreeTriggersASecondApartGiveOneNotificationFourSecondsAfterTheLast) {
  const Clock::TimePoint start = Clock::get().now();
  for (int i = 0; i < 3; ++i) {
    aggregator_->triggerNotification();
    testing::advanceMainLoop(clock_, 1000ms);
  }
  testing::advanceMainLoop(clock_, 10000ms);
  ASSERT_EQ(posted_.size(), 1u);
  EXPECT_EQ(posted_[0] - start, 6000ms);  // third trigger at 2 s, plus 4 s
  EXPECT_FALSE(aggregator_->pending());
}

TEST_F(SensorAggregatorTest, SleepCancelsAPendingNotification) {
  aggregator_->triggerNotification();
  testing::advanceMainLoop(clock_, 3000ms);
  aggregator_->willSleep();
  testing::advanceMainLoop(clock_, 10000ms);
  EXPECT_TRUE(posted_.empty());
}

TEST_F(SensorAggregatorTest, PostsWhetherOrNotThePositionChangedAndLogsWhich) {
  struct Step {
    TelluroStatus status;
    const char* logLine;
  } steps[] = {
      {{2.35, 48.85}, "aggregator found telluroChanged = 1"},           // gained a position
      {{2.35, 48.85}, "aggregator found telluroChanged = 0"},           // unchanged
      {{2.35 + 0.00005, 48.85}, "aggregator found telluroChanged = 0"}, // 5.5 m
      {{2.45, 48.85}, "aggregator found telluroChanged = 1"},           // moved
      {{}, "aggregator found telluroChanged = 1"},                       // lost it
      {{}, "aggregator found telluroChanged = 0"},
  };
  size_t n = 0;
  for (const Step& step : steps) {
    source_.status = step.status;
    aggregator_->_triggerNotification();
    testing::advanceMainLoop(clock_, 4000ms);
    ++n;
    ASSERT_EQ(posted_.size(), n);
    EXPECT_EQ(log_.last(), step.logLine) << n;
  }
}

TEST_F(SensorAggregatorTest, TriggersFromOtherThreadsReachTheMainThread) {
  std::thread([this] { aggregator_->triggerNotification(); }).join();
  EXPECT_FALSE(aggregator_->pending());  // not yet run on the main thread
  ASSERT_TRUE(testing::pumpUntil([this] { return aggregator_->pending(); }));
  testing::advanceMainLoop(clock_, 4000ms);
  EXPECT_EQ(posted_.size(), 1u);
}

}  // namespace
}  // namespace zonara
