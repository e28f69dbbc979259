#include "timezone/geolocation_helper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "timezone/test_support.h"
#include "timezone/testing/built_boundary_file.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/http_test_server.h"

using namespace std::chrono_literals;

namespace zonara {
namespace {

using testing::geonamesRecord;
using testing::geonamesReply;
using testing::HttpResponse;
using testing::HttpTestServer;

// The system zone is UTC; the present is mid-January 2026.
class GeolocationHelperTest : public ::testing::Test {
 protected:
  GeolocationHelper helper(const std::string& url, const std::string& user = "tester") {
    return GeolocationHelper(fetcher_, zones_.zones(), GeolocationHelper::Config{url, user});
  }

  WPS::SPI::SimulatedClock clock_{testing::utc(2026, 1, 15)};
  WPS::SPI::ScopedClock installed_{clock_};
  CurlHttpFetcher fetcher_;
  testing::UtcZones zones_;
  HttpTestServer server_;
};

TEST_F(GeolocationHelperTest, TheServicesAnswerIsMatchedToAKnownZone) {
  struct Case {
    const char* what;
    std::string body;
    std::optional<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"identifier in another spelling", geonamesReply(geonamesRecord("EURÓPE/pAríS", "1", "2")), "Europe/Paris"},
      {"unknown identifier: offsets decide", geonamesReply(geonamesRecord("Nowhere/Atlantis", "5.5", "5.5")),
       "Asia/Kolkata"},
      {"ocean: offsets only", geonamesReply(geonamesRecord("-", "1", "2")), "Europe/Paris"},
      {"offsets nobody has", geonamesReply(geonamesRecord("-", "3.25", "3.25")), std::nullopt},
      // Nothing that says where we are changes nothing.
      {"error document of the service",
       "<geonames><status message=\"user account not enabled to use the free webservice\" value=\"10\"/></geonames>",
       std::nullopt},
  };
  for (const Case& c : cases) {
    server_.enqueue(HttpResponse(200, c.body));
    EXPECT_EQ(helper(server_.url()).timezoneForLongitude(10.5, 20.25), c.expected) << c.what;
  }
  EXPECT_EQ(server_.requestCount(), cases.size());  // one request each: all were XML
  EXPECT_EQ(clock_.elapsed(), 0ms);
}

TEST_F(GeolocationHelperTest, DataThatIsNotXmlIsNotFetchedAgainAndGivesNothing) {
  server_.setDefaultResponse(HttpResponse(200, "Service Unavailable, try later"));
  EXPECT_EQ(helper(server_.url()).timezoneForLongitude(2.35, 48.85), std::nullopt);
  EXPECT_EQ(server_.requestCount(), 1u);
  EXPECT_EQ(clock_.elapsed(), 30s);  // the one pause
}

TEST_F(GeolocationHelperTest, EmptyRepliesAreRetriedTenTimesWithPauses) {
  server_.setDefaultResponse(HttpResponse(200, ""));
  EXPECT_EQ(helper(server_.url()).timezoneForLongitude(2.35, 48.85), std::nullopt);
  EXPECT_EQ(server_.requestCount(), 10u);
  EXPECT_EQ(clock_.elapsed(), 300s);
}

TEST_F(GeolocationHelperTest, AnswerAfterFailedAttemptsIsUsed) {
  server_.enqueue(HttpResponse(500, ""));
  server_.enqueue(HttpResponse(200, ""));
  server_.enqueue(HttpResponse(200, geonamesReply(geonamesRecord("Asia/Tokyo", "9", "9"))));
  EXPECT_EQ(helper(server_.url()).timezoneForLongitude(139.7, 35.7), "Asia/Tokyo");
  EXPECT_EQ(server_.requestCount(), 3u);
  EXPECT_EQ(clock_.elapsed(), 60s);
}

// Every fetch times out after its 10 s.
class TimingOutFetcher final : public HttpFetcher {
 public:
  std::optional<std::string> fetch(const std::string&, std::chrono::milliseconds timeout) override {
    ++calls;
    EXPECT_EQ(timeout, 10s);
    Clock::get().sleepFor(timeout);
    return std::nullopt;
  }
  int calls = 0;
};

TEST_F(GeolocationHelperTest, TenTimedOutFetchesGiveNothingAfterFourHundredSeconds) {
  TimingOutFetcher fetcher;
  GeolocationHelper h(fetcher, zones_.zones(), {"http://service.invalid", ""});
  EXPECT_EQ(h.timezoneForLongitude(2.35, 48.85), std::nullopt);
  EXPECT_EQ(fetcher.calls, 10);
  EXPECT_EQ(clock_.elapsed(), 400s);
}

TEST_F(GeolocationHelperTest, ASingleAttemptWithoutPauseWaitsOnlyForItsRequest) {
  TimingOutFetcher fetcher;
  GeolocationHelper::Config config{"http://service.invalid", ""};
  config.attempts = 1;
  config.pauseBetweenAttempts = 0s;
  EXPECT_EQ(GeolocationHelper(fetcher, zones_.zones(), config).timezoneForLongitude(2.35, 48.85), std::nullopt);
  EXPECT_EQ(fetcher.calls, 1);
  EXPECT_EQ(clock_.elapsed(), 10s);
}

TEST_F(GeolocationHelperTest, RefusedConnectionsCountAsNoData) {
  testing::ClosedPort closed;
  EXPECT_EQ(helper(closed.url()).timezoneForLongitude(2.35, 48.85), std::nullopt);
  EXPECT_EQ(clock_.elapsed(), 300s);
}

// ---- Zones from the boundary data (no service URL configured).

// Fails the test on any request: the boundary data must answer alone.
class NoRequestsFetcher final : public HttpFetcher {
 public:
  std::optional<std::string> fetch(const std::string& url, std::chrono::milliseconds) override {
    ADD_FAILURE() << "unexpected request to " << url;
    return std::nullopt;
  }
};

// The system's zone database without some of its names (an older database
// than the boundaries).
class ZonesWithout final : public TimeZoneDatabase {
 public:
  ZonesWithout(TimeZoneDatabase& all, std::vector<std::string> missing) : all_(all), missing_(std::move(missing)) {}
  std::vector<std::string> knownTimeZoneNames() override {
    std::vector<std::string> names;
    for (const std::string& n : all_.knownTimeZoneNames())
      if (!isMissing(n)) names.push_back(n);
    return names;
  }
  std::optional<std::string> zoneName(const std::string& n) override {
    return isMissing(n) ? std::nullopt : all_.zoneName(n);
  }
  std::optional<int32_t> offsetAt(const std::string& n, Clock::WallTime when) override {
    return isMissing(n) ? std::nullopt : all_.offsetAt(n, when);
  }
  std::optional<std::string> abbreviationAt(const std::string& n, Clock::WallTime when) override {
    return isMissing(n) ? std::nullopt : all_.abbreviationAt(n, when);
  }
  std::string systemTimeZoneName() override { return all_.systemTimeZoneName(); }

 private:
  bool isMissing(const std::string& n) const {
    return std::find(missing_.begin(), missing_.end(), n) != missing_.end();
  }
  TimeZoneDatabase& all_;
  std::vector<std::string> missing_;
};

TEST_F(GeolocationHelperTest, WithoutServiceOrBoundaryDataNoZoneIsFoundAndNothingIsAsked) {
  NoRequestsFetcher fetcher;
  GeolocationHelper h(fetcher, zones_.zones(), {});
  EXPECT_FALSE(h.usesService());
  EXPECT_EQ(h.timezoneForLongitude(4.35, 50.85), std::nullopt);
  EXPECT_EQ(clock_.elapsed(), 0ms);
}

// With the boundary file this build made from the real data.
class BoundaryGeolocationTest : public GeolocationHelperTest {
 protected:
  void SetUp() override {
    ZONARA_NEED_BOUNDARY_DATA(path);
    std::string error;
    index_ = timezone::BoundaryIndex::open(path, &error);
    ASSERT_NE(index_, nullptr) << error;
  }
  std::unique_ptr<timezone::BoundaryIndex> index_;
};

TEST_F(BoundaryGeolocationTest, BoundaryDataAnswersWithoutTheNetworkAndItsZonesAreMatched) {
  NoRequestsFetcher fetcher;
  ZonesWithout olderZones(zones_.zones(), {"Europe/Brussels", "Europe/Amsterdam", "Europe/Luxembourg"});
  struct Case {
    const char* what;
    TimeZoneDatabase* zones;
    double latitude, longitude;
    std::optional<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"a city", &zones_.zones(), 50.85, 4.35, "Europe/Brussels"},
      {"across the border", &zones_.zones(), 48.8566, 2.3522, "Europe/Paris"},
      {"southern hemisphere, east", &zones_.zones(), -33.8688, 151.2093, "Australia/Sydney"},
      {"the Atlantic: nautical band", &zones_.zones(), 0.0, -30.0, "Etc/GMT+2"},
      {"the Indian Ocean: nautical band", &zones_.zones(), -30.0, 75.0, "Etc/GMT-5"},
      // Brussels unknown to this system: the offsets of longitude 4.35
      // (band 0) pick the zone the offset search finds for 0/0.
      {"a zone the system does not know", &olderZones, 50.85, 4.35,
       KnownZoneMatcher(olderZones).zoneForGMTOffset(0, 0)},
  };
  for (const Case& c : cases) {
    GeolocationHelper h(fetcher, *c.zones, {}, index_.get());
    EXPECT_FALSE(h.usesService());
    EXPECT_EQ(h.timezoneForLongitude(c.longitude, c.latitude), c.expected) << c.what;
  }
  EXPECT_EQ(clock_.elapsed(), 0ms);
}

TEST_F(BoundaryGeolocationTest, AConfiguredServiceIsAskedEvenWithBoundaryData) {
  server_.enqueue(HttpResponse(200, geonamesReply(geonamesRecord("Asia/Tokyo", "9", "9"))));
  GeolocationHelper h(fetcher_, zones_.zones(), {server_.url(), ""}, index_.get());
  EXPECT_TRUE(h.usesService());
  EXPECT_EQ(h.timezoneForLongitude(4.35, 50.85), "Asia/Tokyo");
  EXPECT_EQ(server_.requestCount(), 1u);
}

TEST(UsablePositionTest, NoPositionNearZeroZeroOrNotFinite) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    double longitude, latitude;
    bool usable;
  };
  for (const Case& c : std::vector<Case>{{2.35, 48.85, true},
                                         {0.5, -0.9, false},
                                         {-0.99, 0.99, false},
                                         {1.0, 0.2, true},
                                         {0.2, -1.0, true},
                                         {nan, 48.0, false},
                                         {2.0, inf, false}}) {
    EXPECT_EQ(isUsablePosition(c.longitude, c.latitude), c.usable) << c.longitude << ", " << c.latitude;
  }
}

}  // namespace
}  // namespace zonara
