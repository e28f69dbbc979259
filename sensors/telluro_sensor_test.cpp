#include "sensors/telluro_sensor.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/testing/system_log_capture.h"
#include "sensors/sensor_test_support.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;
using testing::FakeFetcher;
using testing::FakeLocationLibrary;
using testing::FakeReachability;
using testing::Gate;

// Counts triggers with the virtual time of each.
class RecordingTrigger final : public LocationTrigger {
 public:
  void triggerNotification() override {
    MutexLock lock(mu_);
    times_.push_back(Clock::get().now());
  }
  size_t count() {
    MutexLock lock(mu_);
    return times_.size();
  }

 private:
  Mutex mu_;
  std::vector<Clock::TimePoint> times_ ZONARA_GUARDED_BY(mu_);
};

WPS_ReturnCode at(double* lon, double* lat, double x, double y) {
  *lon = x;
  *lat = y;
  return WPS_OK;
}

class TelluroSensorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetTelluroUsername(folder_ + "/Telluro.plist", "user");
    helper_ = std::make_unique<TelluroHelper>(library_, folder_);
  }
  void TearDown() override {
    sensor_.reset();
    helper_.reset();
    // Time-out timers of finished lookups are no-ops; let them go.
    (void)RunLoop::main().runUntilNoTimers(1h);
  }

  // Makes the sensor and lets its silent refresh (no position, no page) end.
  void makeSensor(std::string ipLocationURL = "") {
    sensor_ = std::make_unique<TelluroSensor>(*helper_, reachability_, fetcher_, trigger_,
                                              TelluroSensor::Config{"positioning.test", std::move(ipLocationURL)});
    helper_->waitForLookups();
    finishIPLocationCheck();
    library_.clearLookups();
    fetcher_.clearRequests();
  }

  // Lets the IP-location fallback on the worker end and what it hands to the
  // main loop run.
  void finishIPLocationCheck() {
    EXPECT_TRUE(testing::pumpUntil([&] { return !sensor_->ipLocationCheckRunning(); }));
    while (RunLoop::main().runOnce()) {
    }
  }

  bool logged(const std::string& line) { return log_.has(line); }

  testing::SystemLogCapture log_;
  testing::TempDir scratch_{"telluro-sensor-"};
  const std::string folder_ = scratch_.path();
  WPS::SPI::SimulatedClock clock_;
  WPS::SPI::ScopedClock installed_{clock_};
  FakeLocationLibrary library_;
  FakeReachability reachability_;
  FakeFetcher fetcher_;
  RecordingTrigger trigger_;
  std::unique_ptr<TelluroHelper> helper_;
  std::unique_ptr<TelluroSensor> sensor_;
};

TEST_F(TelluroSensorTest, StartsWithASilentRefreshThatStoresWithoutTriggering) {
  library_.setLocate([](double* lon, double* lat) { return at(lon, lat, 2.35, 48.85); });
  makeSensor();
  EXPECT_EQ(reachability_.lastHost(), "positioning.test");
  EXPECT_FLOAT_EQ(*sensor_->currentLongitude(), 2.35f);
  EXPECT_FLOAT_EQ(*sensor_->currentLatitude(), 48.85f);
  EXPECT_EQ(trigger_.count(), 0u);
  EXPECT_TRUE(sensor_->ready());
}

TEST_F(TelluroSensorTest, QuickCheckFoundInUnderASecondStoresAndTriggersOnce) {
  makeSensor();
  library_.setLocate([](double* lon, double* lat) { return at(lon, lat, 2.35, 48.85); });
  sensor_->performLocationCheck();
  helper_->waitForLookups();
  testing::advanceMainLoop(clock_, 2000ms);
  EXPECT_EQ(trigger_.count(), 1u);
  EXPECT_TRUE(sensor_->ready());
  EXPECT_FLOAT_EQ(*sensor_->currentLongitude(), 2.35f);
  EXPECT_EQ(library_.lookupCount(), 1u);
}

TEST_F(TelluroSensorTest, QuickCheckTimedOutThenReachableLooksUpOnceAfterAFifthOfASecond) {
  makeSensor();
  Gate slowFirst;
  std::atomic<int> calls{0};
  library_.setLocate([&](double* lon, double* lat) {
    if (++calls == 1) {
      slowFirst.wait();
      return at(lon, lat, 100, 10);
    }
    return at(lon, lat, 2.35, 48.85);
  });
  struct OpenAtEnd {
    Gate& gate;
    ~OpenAtEnd() { gate.open(); }  // a failed assertion must not leave the lookup blocked
  } openAtEnd{slowFirst};
  const Clock::TimePoint start = Clock::get().now();
  sensor_->performLocationCheck();
  // The quick lookup must be the one held at the gate.
  ASSERT_TRUE(testing::pumpUntil([&] { return calls.load() == 1; }));
  testing::advanceMainLoop(clock_, 1000ms);  // the 1.0 s time-out fires
  ASSERT_TRUE(testing::pumpUntil([&] { return trigger_.count() == 1; }));
  const std::vector<Clock::TimePoint> lookupTimes = library_.lookupTimes();
  ASSERT_EQ(lookupTimes.size(), 2u);
  EXPECT_EQ(lookupTimes[1] - start, 1200ms);
  EXPECT_FLOAT_EQ(*sensor_->currentLongitude(), 2.35f);
  EXPECT_TRUE(logged("setting current longitude to 2.34999990463257, latitude to 48.8499984741211 (from the positioning server, accuracy 30 m)"));
  // The first lookup's late answer is dropped, and the second lookup's 7.0 s
  // time-out (on a thread that never ran its loop) never fires.
  slowFirst.open();
  helper_->waitForLookups();
  testing::advanceMainLoop(clock_, 10000ms);
  EXPECT_EQ(trigger_.count(), 1u);
  EXPECT_FLOAT_EQ(*sensor_->currentLongitude(), 2.35f);
  EXPECT_EQ(library_.lookupCount(), 2u);
  EXPECT_EQ(fetcher_.fetchCount(), 0u);
}

TEST_F(TelluroSensorTest, NetworkDownForFifteenSecondsGivesUpWithoutALookup) {
  makeSensor();
  reachability_.flags = Reachability::kReachable | Reachability::kConnectionRequired;
  sensor_->performLocationCheck();  // fails at once: the wait starts
  helper_->waitForLookups();
  testing::advanceMainLoop(clock_, 9800ms);
  EXPECT_FALSE(sensor_->ready());
  testing::advanceMainLoop(clock_, 5200ms);
  ASSERT_TRUE(testing::pumpUntil([&] { return sensor_->ready(); }));
  EXPECT_EQ(library_.lookupCount(), 1u);
  EXPECT_EQ(trigger_.count(), 0u);
}

TEST_F(TelluroSensorTest, FailedReachabilityChecksAreRetriedHalfASecondApart) {
  makeSensor();
  reachability_.fails = true;
  sensor_->performLocationCheck();
  helper_->waitForLookups();
  // The failing checks sleep 0.5 s each, which moves virtual time towards
  // the give-up timer by itself; no lookup follows.
  ASSERT_TRUE(testing::pumpUntil([&] { return sensor_->ready(); }));
  EXPECT_GE(reachability_.checks, 1);
  EXPECT_EQ(library_.lookupCount(), 1u);
}

TEST_F(TelluroSensorTest, FailedLookupFallsBackToTheIPLocationPage) {
  makeSensor("http://iplocation.test/");
  fetcher_.setBody("<html><tr><td>Latitude/Longitude:</td>\n<td class=output align=left>45.5/-73.6</td></tr>");
  sensor_->triggerSensor(std::nullopt);
  // The page is read on the worker and its position handed to the main loop.
  ASSERT_TRUE(testing::pumpUntil([&] { return trigger_.count() == 1; }));
  EXPECT_TRUE(logged("performing ip location"));
  const std::vector<std::string> urls = fetcher_.urls();
  ASSERT_EQ(urls.size(), 1u);
  EXPECT_EQ(urls[0], "http://iplocation.test/app/locate_my_ip");
  EXPECT_EQ(fetcher_.timeouts()[0], 10000ms);
  EXPECT_DOUBLE_EQ(*sensor_->currentLongitude(), -73.6);
  EXPECT_DOUBLE_EQ(*sensor_->currentLatitude(), 45.5);
  EXPECT_EQ(trigger_.count(), 1u);
}

TEST_F(TelluroSensorTest, WithoutAPageTheLibrarysIpLocationIsAskedOnceAndMarked) {
  makeSensor();
  sensor_->triggerSensor(std::nullopt);
  finishIPLocationCheck();
  EXPECT_EQ(library_.ipLookups(), 1);
  EXPECT_FALSE(sensor_->currentLongitude());
  EXPECT_EQ(trigger_.count(), 0u);

  library_.setLocateIp([](double* lon, double* lat) { return at(lon, lat, 13.4, 52.5); });
  sensor_->triggerSensor(std::nullopt);
  finishIPLocationCheck();
  EXPECT_EQ(library_.ipLookups(), 2);
  EXPECT_TRUE(fetcher_.urls().empty());
  ASSERT_TRUE(sensor_->currentLatitude());
  EXPECT_DOUBLE_EQ(*sensor_->currentLatitude(), 52.5);
  ASSERT_TRUE(sensor_->currentQuality());
  EXPECT_EQ(sensor_->currentQuality()->source, PositionSource::IPAddress);
  EXPECT_EQ(sensor_->currentQuality()->accuracyMetres, kUnstatedIPAccuracyMetres);
  EXPECT_TRUE(logged("setting current longitude to 13.4, latitude to 52.5 (from the IP address, accuracy 50000 m)"));
  EXPECT_EQ(trigger_.count(), 1u);

  // A Wi-Fi position replaces it with its own accuracy and source; no
  // position, no quality.
  sensor_->triggerSensor(TelluroLocation{13.41, 52.51, {35, PositionSource::LearnedPlaces}});
  EXPECT_EQ(sensor_->currentQuality()->source, PositionSource::LearnedPlaces);
  EXPECT_EQ(sensor_->currentQuality()->accuracyMetres, 35);
  EXPECT_TRUE(logged("setting current longitude to 13.41, latitude to 52.51 (from the learned places, accuracy 35 m)"));
}

TEST_F(TelluroSensorTest, PageFailuresGiveNoPositionAfterTenAttemptsThirtySecondsApart) {
  library_.setLocate([](double* lon, double* lat) { return at(lon, lat, 2.35, 48.85); });
  makeSensor("http://iplocation.test");
  ASSERT_TRUE(sensor_->currentLongitude());
  sensor_->triggerSensor(std::nullopt);
  EXPECT_FALSE(sensor_->currentLongitude());
  EXPECT_FALSE(sensor_->currentLatitude());
  finishIPLocationCheck();
  EXPECT_EQ(trigger_.count(), 0u);
  const std::vector<Clock::TimePoint> times = fetcher_.times();
  ASSERT_EQ(times.size(), 10u);
  for (size_t i = 1; i < times.size(); ++i) EXPECT_EQ(times[i] - times[i - 1], 30000ms);

  // A page without the expected text gives nothing either.
  fetcher_.setBody("<html>nothing here</html>");
  EXPECT_FALSE(sensor_->performIPLocationCheck());
}

// The silent refresh fails, its 7.0 s time-out fires on the main loop while
// the IP-location fallback is waiting for the page, and the page answers
// after the time-out (at the second attempt). The time-out finds the lookup
// delivered and does nothing; the main loop keeps running throughout; the
// page's position is stored and triggers once; the lookup was delivered once
// (a second delivery would start a second fallback: a third request).
TEST_F(TelluroSensorTest, RefreshTimeOutWhileTheFallbackWaitsForThePageLeavesTheMainLoopRunning) {
  Gate lookupFails;
  library_.setLocate([&](double*, double*) {
    lookupFails.wait();
    return WPS_ERROR;
  });
  Gate firstPageRefused;
  fetcher_.setScript([&](size_t attempt) -> std::optional<std::string> {
    if (attempt > 1) return "<td>Latitude/Longitude:</td><td class=output>35.7/139.7</td>";
    firstPageRefused.wait();
    return std::nullopt;
  });
  struct OpenAtEnd {
    Gate& a;
    Gate& b;
    ~OpenAtEnd() {
      a.open();
      b.open();
    }
  } openAtEnd{lookupFails, firstPageRefused};
  sensor_ = std::make_unique<TelluroSensor>(*helper_, reachability_, fetcher_, trigger_,
                                            TelluroSensor::Config{"positioning.test", "http://iplocation.test"});
  lookupFails.open();
  ASSERT_TRUE(testing::pumpUntil([&] { return fetcher_.fetchCount() == 1; }));
  // The fallback now waits for its first page; the time-out fires meanwhile.
  bool mainLoopRan = false;
  RunLoop::main().performAfterDelay(7500ms, [&] { mainLoopRan = true; });
  {
    testing::Watchdog watchdog(10s, "the main loop is blocked: the refresh's time-out waits for the look-up, "
                                    "which waits for the main thread (deadlock)");
    testing::advanceMainLoop(clock_, 8000ms);
  }
  EXPECT_TRUE(mainLoopRan);
  firstPageRefused.open();
  ASSERT_TRUE(testing::pumpUntil([&] { return sensor_->currentLongitude().has_value(); }));
  EXPECT_DOUBLE_EQ(*sensor_->currentLongitude(), 139.7);
  EXPECT_DOUBLE_EQ(*sensor_->currentLatitude(), 35.7);
  ASSERT_TRUE(testing::pumpUntil([&] { return !sensor_->ipLocationCheckRunning(); }));
  testing::advanceMainLoop(clock_, 1000ms);
  EXPECT_EQ(fetcher_.fetchCount(), 2u);
  const std::vector<Clock::TimePoint> times = fetcher_.times();
  EXPECT_GE(times[1] - times[0], 30000ms);  // the pause, after the refused page
  EXPECT_EQ(trigger_.count(), 1u);
}

// Checks asked for while one is in progress wait on the main loop, not in
// the call: the call returns at once and each waiting check looks up once
// the one in progress has ended.
TEST_F(TelluroSensorTest, ChecksAskedForDuringACheckWaitWithoutBlockingTheCaller) {
  makeSensor();
  reachability_.flags = Reachability::kReachable | Reachability::kConnectionRequired;
  sensor_->performLocationCheck();  // fails at once: the 10 s wait starts
  helper_->waitForLookups();
  ASSERT_FALSE(sensor_->ready());
  sensor_->performLocationCheck();  // returns although the first has not ended
  EXPECT_EQ(library_.lookupCount(), 1u);
  library_.setLocate([](double* lon, double* lat) { return at(lon, lat, 2.35, 48.85); });
  testing::advanceMainLoop(clock_, 9800ms);
  EXPECT_EQ(library_.lookupCount(), 1u);
  // The first check gives up at 10 s; the waiting one then looks up. Time
  // moves less than the 1.0 s time-out of that lookup from here on.
  testing::advanceMainLoop(clock_, 700ms);
  ASSERT_TRUE(testing::pumpUntil([&] { return sensor_->ready() || library_.lookupCount() == 2; }));
  if (library_.lookupCount() < 2) testing::advanceMainLoop(clock_, 100ms);
  ASSERT_TRUE(testing::pumpUntil([&] { return trigger_.count() == 1; }));
  EXPECT_EQ(library_.lookupCount(), 2u);
}

TEST(TelluroSensorScrape, ReadsLatitudeThenLongitude) {
  struct Case {
    const char* page;
    std::optional<std::pair<double, double>> lonLat;
  } cases[] = {
      {"Latitude/Longitude x class=output y>45.5/-73.6<", std::make_pair(-73.6, 45.5)},
      {"Latitude/Longitude<td class=output> 45.5 / -73.6", std::make_pair(-73.6, 45.5)},
      {"Latitude/Longitude class=output>-33.9 151.2", std::make_pair(151.2, -33.9)},
      {"class=output>45.5/-73.6 Latitude/Longitude", std::nullopt},
      {"Latitude/Longitude>45.5/-73.6", std::nullopt},
      {"Latitude/Longitude class=output 45.5/-73.6", std::nullopt},
      {"Latitude/Longitude class=output>n/a", std::nullopt},
      {"Latitude/Longitude class=output>45.5/", std::nullopt},
      // Numbers that are no place on Earth.
      {"Latitude/Longitude class=output>nan/-73.6", std::nullopt},
      {"Latitude/Longitude class=output>45.5/inf", std::nullopt},
      {"Latitude/Longitude class=output>-33.\t8188651.2093", std::nullopt},
      {"Latitude/Longitude class=output>90.5/0", std::nullopt},
      {"Latitude/Longitude class=output>1e999/10", std::nullopt},
      {"Latitude/Longitude class=output>-90/180", std::make_pair(180.0, -90.0)},
      {"", std::nullopt},
  };
  for (const Case& c : cases) {
    std::optional<TelluroLocation> got = TelluroSensor::scrapeIPLocationPage(c.page);
    ASSERT_EQ(got.has_value(), c.lonLat.has_value()) << c.page;
    if (got) {
      EXPECT_DOUBLE_EQ(got->longitude, c.lonLat->first) << c.page;
      EXPECT_DOUBLE_EQ(got->latitude, c.lonLat->second) << c.page;
    }
  }
}

TEST(TelluroSensorFlags, ConnectedWithoutTransientRequiredOrIntervention) {
  struct Case {
    uint32_t flags;
    bool connected;
  } cases[] = {{0, false}, {2, true}, {2 | 1, false}, {2 | 4, false}, {2 | 16, false}, {8, true}, {32 | 2, true}};
  for (const Case& c : cases) EXPECT_EQ(TelluroSensor::isConnected(c.flags), c.connected) << c.flags;
}

// A long sleep clears the position and looks again at once: the computer may
// have travelled. The look-up finds the place it woke up in.
TEST_F(TelluroSensorTest, WakingAfterThreeWholeMinutesClearsThePositionAndLooksAgain) {
  makeSensor();
  library_.setLocate([](double* lon, double* lat) { return at(lon, lat, 139.69, 35.69); });
  struct Case {
    std::chrono::milliseconds slept;
    bool kept;
  } cases[] = {{179000ms, true}, {180000ms, false}};
  for (const Case& c : cases) {
    sensor_->triggerSensor(TelluroLocation{2.35, 48.85, {}});
    const size_t lookups = library_.lookupCount();
    const size_t triggers = trigger_.count();
    sensor_->willSleep();
    clock_.advance(c.slept);
    sensor_->didWake();
    if (c.kept) {
      EXPECT_FLOAT_EQ(sensor_->currentLongitude().value_or(0), 2.35f) << c.slept.count();
    }
    helper_->waitForLookups();
    testing::advanceMainLoop(clock_, 2000ms);
    EXPECT_EQ(library_.lookupCount(), lookups + (c.kept ? 0 : 1)) << c.slept.count();
    EXPECT_EQ(trigger_.count(), triggers + (c.kept ? 0 : 1)) << c.slept.count();
    EXPECT_FLOAT_EQ(sensor_->currentLongitude().value_or(0), c.kept ? 2.35f : 139.69f) << c.slept.count();
  }
  EXPECT_TRUE(logged("clearing Telluro currentLongitutde/currentLatitude because it's been more than 2 minutes "
                     "since sleep occured"));
  // A wake without a sleep changes nothing.
  sensor_->triggerSensor(TelluroLocation{2.35, 48.85, {}});
  const size_t lookups = library_.lookupCount();
  clock_.advance(600000ms);
  sensor_->didWake();
  EXPECT_TRUE(sensor_->currentLongitude());
  EXPECT_EQ(library_.lookupCount(), lookups);
}

TEST_F(TelluroSensorTest, StatusComparison) {
  makeSensor();
  const TelluroStatus none{};
  EXPECT_TRUE(sensor_->statusIsEqualToStatus(none));
  EXPECT_FALSE(sensor_->statusIsEqualToStatus(TelluroStatus{10.0, 20.0}));
  sensor_->triggerSensor(TelluroLocation{10.0, 20.0, {}});
  EXPECT_FALSE(sensor_->statusIsEqualToStatus(none));
  EXPECT_TRUE(sensor_->statusIsEqualToStatus(TelluroStatus{10.0 + 0.005 / 111.0, 20.0}));
  EXPECT_FALSE(sensor_->statusIsEqualToStatus(TelluroStatus{10.0 + 0.02 / 111.0, 20.0}));
  EXPECT_FALSE(sensor_->statusIsEqualToStatus(TelluroStatus{10.0, std::nullopt}));  // NaN distance
}

}  // namespace
}  // namespace zonara
