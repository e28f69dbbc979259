#include "sensors/telluro_helper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "platform/clock.h"
#include "platform/preferences_store.h"
#include "platform/run_loop.h"
#include "platform/testing/system_log_capture.h"
#include "sensors/sensor_test_support.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/temp_dir.h"

namespace zonara {
namespace {

using namespace std::chrono_literals;
using testing::FakeLocationLibrary;
using testing::Gate;

class TelluroHelperTest : public ::testing::Test {
 protected:
  std::vector<std::string> log() { return log_.lines(); }

  testing::SystemLogCapture log_;
  testing::TempDir scratch_{"telluro-helper-"};
  const std::string folder_ = scratch_.path();
};

TEST_F(TelluroHelperTest, FirstLookupRegistersOnceAndLaterLookupsUseTheStoredName) {
  FakeLocationLibrary library;
  library.setLocate([](double* lon, double* lat) {
    *lon = 2.35;
    *lat = 48.85;
    return WPS_OK;
  });
  TelluroHelper helper(library, folder_);
  EXPECT_FALSE(GetTelluroUsername(helper.accountPath()));

  std::optional<TelluroLocation> first = helper.currentLocation();
  ASSERT_TRUE(first);
  ASSERT_EQ(library.registrations().size(), 1u);
  std::optional<std::string> stored = GetTelluroUsername(folder_ + "/Telluro.plist");
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->size(), 36u);
  for (char c : *stored) EXPECT_FALSE(std::islower(static_cast<unsigned char>(c))) << *stored;
  EXPECT_EQ(library.registrations()[0], "vostrel@vostrel.zz " + *stored + "@vostrel.zz");
  EXPECT_EQ(library.users().at(0), *stored + "@vostrel.zz");

  (void)helper.currentLocation();
  (void)helper.currentLocation();
  EXPECT_EQ(library.registrations().size(), 1u);
  EXPECT_EQ(library.users().at(2), *stored + "@vostrel.zz");
  bool logged = false;
  for (const std::string& line : log()) logged = logged || line == *stored + " registered OK";
  EXPECT_TRUE(logged);
}

TEST_F(TelluroHelperTest, FailedRegistrationRunsAsTamoAndRetriesWithANewName) {
  FakeLocationLibrary library;
  library.setRegisterResult(WPS_ERROR_SERVER_UNAVAILABLE);
  TelluroHelper helper(library, folder_);
  (void)helper.currentLocation();
  (void)helper.currentLocation();
  ASSERT_EQ(library.registrations().size(), 2u);
  EXPECT_NE(library.registrations()[0], library.registrations()[1]);
  EXPECT_EQ(library.users(), (std::vector<std::string>{"tamo@vostrel.zz", "tamo@vostrel.zz"}));
  EXPECT_FALSE(GetTelluroUsername(helper.accountPath()));
  const std::string uuid = library.registrations()[0].substr(library.registrations()[0].find(' ') + 1, 36);
  bool logged = false;
  for (const std::string& line : log())
    logged = logged || line == "Unable to register telluro user... " + uuid + "\nerror: 5";
  EXPECT_TRUE(logged);

  // Once registration works the name is kept.
  library.setRegisterResult(WPS_OK);
  (void)helper.currentLocation();
  (void)helper.currentLocation();
  EXPECT_EQ(library.registrations().size(), 3u);
  EXPECT_TRUE(GetTelluroUsername(helper.accountPath()));
}

TEST_F(TelluroHelperTest, SetUsernameKeepsOtherKeys) {
  const std::string path = folder_ + "/Telluro.plist";
  {
    PreferencesDomain domain("Telluro", folder_);
    domain.setValue("other", PrefValue::integer(7));
    ASSERT_TRUE(domain.synchronize());
  }
  SetTelluroUsername(path, "someone");
  EXPECT_EQ(GetTelluroUsername(path), "someone");
  PreferencesDomain domain("Telluro", folder_);
  EXPECT_EQ(domain.copyValue("other"), PrefValue::integer(7));
}

TEST_F(TelluroHelperTest, LearnedPlacesRealmIsMadeOnceAndKeptBesideTheUserName) {
  const std::string path = folder_ + "/Telluro.plist";
  EXPECT_EQ(LearnedPlacesRealm(path, false), "");
  SetTelluroUsername(path, "someone");
  const std::string realm = LearnedPlacesRealm(path, true);
  EXPECT_EQ(realm.size(), 36u);
  EXPECT_EQ(LearnedPlacesRealm(path, true), realm);
  EXPECT_EQ(LearnedPlacesRealm(path, false), realm);
  EXPECT_EQ(GetTelluroUsername(path), "someone");
  EXPECT_NE(LearnedPlacesRealm(folder_ + "/Other.plist", true), realm);
}

TEST_F(TelluroHelperTest, LookupUsesTheTileFolderAndNarrowsToLongitudeLatitudeFloats) {
  FakeLocationLibrary library;
  library.setTilingResult(WPS_ERROR);
  library.setLocate([](double* lon, double* lat) {
    *lon = -73.6;
    *lat = 45.5;
    return WPS_OK;
  });
  TelluroHelper helper(library, folder_ + "//");
  std::optional<TelluroLocation> location = helper.currentLocation();
  ASSERT_TRUE(location);
  EXPECT_EQ(location->longitude, static_cast<double>(static_cast<float>(-73.6)));
  EXPECT_EQ(location->latitude, 45.5);
  ASSERT_EQ(library.tilings().size(), 1u);
  EXPECT_EQ(library.tilings()[0], folder_ + "/Telluro Cache/ 460800 20971520");
  std::vector<std::string> lines = log();
  EXPECT_NE(std::find(lines.begin(), lines.end(), "*** WPS_tiling failed (99)!\n\n"), lines.end());
  EXPECT_EQ(lines.front(), "fetching telluro location");

  library.setLocate([](double*, double*) { return WPS_ERROR_LOCATION_CANNOT_BE_DETERMINED; });
  EXPECT_FALSE(helper.currentLocation());
  lines = log();
  EXPECT_EQ(lines.back(), "*** WPS_location failed (6)!\n\n");
}

TEST_F(TelluroHelperTest, ServerWithoutAccountsIsOnlyAskedForTheLocationAndItsSourceIsKept) {
  FakeLocationLibrary library;
  library.setAccounts(false);
  library.setLocate([](double* lon, double* lat) {
    *lon = 13.4;
    *lat = 52.5;
    return WPS_OK;
  });
  TelluroHelper helper(library, folder_);
  for (PositionQuality quality : {PositionQuality{20, PositionSource::PositioningServer},
                                  PositionQuality{120000, PositionSource::IPAddress}}) {
    library.setAnswerQuality(quality);
    std::optional<TelluroLocation> location = helper.currentLocation();
    ASSERT_TRUE(location);
    EXPECT_EQ(location->quality.source, quality.source);
    EXPECT_EQ(location->quality.accuracyMetres, quality.accuracyMetres);
  }
  EXPECT_TRUE(library.registrations().empty());
  EXPECT_TRUE(library.tilings().empty());
  EXPECT_FALSE(GetTelluroUsername(helper.accountPath()));
  EXPECT_EQ(library.users(), (std::vector<std::string>{"@", "@"}));

  // The IP-address position is always marked as such.
  EXPECT_FALSE(helper.ipLocation());
  library.setLocateIp([](double* lon, double* lat) {
    *lon = 2.35;
    *lat = 48.85;
    return WPS_OK;
  });
  std::optional<TelluroLocation> ip = helper.ipLocation();
  ASSERT_TRUE(ip);
  EXPECT_DOUBLE_EQ(ip->latitude, 48.85);
  EXPECT_TRUE(ip->ipBased());
  EXPECT_EQ(ip->quality.accuracyMetres, kUnstatedIPAccuracyMetres);
}

TEST(TelluroHelperDistance, FlatEarthInSinglePrecision) {
  struct Case {
    float a, b, c, d, km;
  } cases[] = {
      {0, 0, 3, 4, 555.0f},
      {10, 20, 10, 20, 0.0f},
      {-1, -1, 2, 3, 555.0f},
      {0, 60, 1, 60, 111.0f},  // no cosine of the latitude
  };
  for (const Case& c : cases) EXPECT_FLOAT_EQ(TelluroHelper::calculateDistanceFrom(c.a, c.b, c.c, c.d), c.km);
}

class TelluroLookupTest : public TelluroHelperTest {};

TEST_F(TelluroLookupTest, ResultBeforeTimeOutIsDeliveredOnceAndTheLaterTimerDoesNothing) {
  WPS::SPI::SimulatedClock clock;
  WPS::SPI::ScopedClock installed(clock);
  FakeLocationLibrary library;
  SetTelluroUsername(folder_ + "/Telluro.plist", "user");
  library.setLocate([](double* lon, double* lat) {
    *lon = 1;
    *lat = 2;
    return WPS_OK;
  });
  TelluroHelper helper(library, folder_);
  std::vector<std::optional<TelluroLocation>> results;
  std::mutex mu;
  helper.reportCurrentLocationQuickly([&](const std::optional<TelluroLocation>& r) {
    std::lock_guard<std::mutex> lock(mu);
    results.push_back(r);
  });
  helper.waitForLookups();
  testing::advanceMainLoop(clock, 2000ms);
  ASSERT_EQ(results.size(), 1u);
  ASSERT_TRUE(results[0]);
  EXPECT_EQ(results[0]->longitude, 1);
  EXPECT_EQ(results[0]->latitude, 2);
}

TEST_F(TelluroLookupTest, LateResultAfterTimeOutIsDropped) {
  WPS::SPI::SimulatedClock clock;
  WPS::SPI::ScopedClock installed(clock);
  FakeLocationLibrary library;
  SetTelluroUsername(folder_ + "/Telluro.plist", "user");
  Gate gate;
  library.setLocate([&](double* lon, double* lat) {
    gate.wait();
    *lon = 1;
    *lat = 2;
    return WPS_OK;
  });
  TelluroHelper helper(library, folder_);
  std::atomic<int> calls{0};
  std::atomic<bool> gotNil{false};
  helper.reportCurrentLocation([&](const std::optional<TelluroLocation>& r) {
    ++calls;
    gotNil = !r;
  });
  testing::advanceMainLoop(clock, 6900ms);
  EXPECT_EQ(calls, 0);
  testing::advanceMainLoop(clock, 200ms);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(gotNil);
  gate.open();
  helper.waitForLookups();
  testing::advanceMainLoop(clock, 5000ms);
  EXPECT_EQ(calls, 1);
}

TEST_F(TelluroLookupTest, LookupFromAThreadWhoseRunLoopNeverRunsIsDeliveredByTheWorker) {
  FakeLocationLibrary library;
  SetTelluroUsername(folder_ + "/Telluro.plist", "user");
  library.setLocate([](double* lon, double* lat) {
    std::this_thread::sleep_for(50ms);
    *lon = 5;
    *lat = 6;
    return WPS_OK;
  });
  TelluroHelper helper(library, folder_);
  std::atomic<int> calls{0};
  std::atomic<bool> gotPosition{false};
  std::thread caller([&] {
    helper.reportCurrentLocationTo(
        [&](const std::optional<TelluroLocation>& r) {
          ++calls;
          gotPosition = r.has_value();
        },
        0.001);
  });
  caller.join();
  helper.waitForLookups();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(gotPosition);
}

// Completions racing their time-outs on the real clock: every lookup is
// delivered exactly once, whichever side wins.
TEST_F(TelluroLookupTest, RacingCompletionsAndTimeOutsDeliverExactlyOnce) {
  FakeLocationLibrary library;
  SetTelluroUsername(folder_ + "/Telluro.plist", "user");
  std::mutex rngMu;
  std::mt19937 rng(42);
  library.setLocate([&](double* lon, double* lat) {
    int micros;
    {
      std::lock_guard<std::mutex> lock(rngMu);
      micros = std::uniform_int_distribution<int>(0, 8000)(rng);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(micros));
    *lon = 1;
    *lat = 1;
    return WPS_OK;
  });
  TelluroHelper helper(library, folder_);
  constexpr int kLookups = 300;
  std::vector<std::atomic<int>> deliveries(kLookups);
  std::atomic<int> timedOut{0};
  for (int i = 0; i < kLookups; ++i) {
    helper.reportCurrentLocationTo(
        [&, i](const std::optional<TelluroLocation>& r) {
          ++deliveries[i];
          if (!r) ++timedOut;
        },
        0.004);
    if (i % 20 == 0) RunLoop::main().runOnce();
  }
  // Fire every time-out and let every worker end.
  (void)RunLoop::main().runUntil([&] {
    for (auto& d : deliveries)
      if (d == 0) return false;
    return true;
  }, 10s);
  helper.waitForLookups();
  (void)RunLoop::main().runUntilNoTimers(1min);
  for (int i = 0; i < kLookups; ++i) EXPECT_EQ(deliveries[i], 1) << "lookup " << i;
  // Both sides must have won some of the races for the test to mean anything.
  EXPECT_GT(timedOut, 0);
  EXPECT_LT(timedOut, kLookups);
}

}  // namespace
}  // namespace zonara
