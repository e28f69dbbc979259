#include "timezone/geolocation_helper.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/testing/http_test_server.h"
#include "timezone/test_support.h"

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

  VirtualClock clock_{testing::utc(2026, 1, 15)};
  ScopedClock installed_{clock_};
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
  GeolocationHelper h(fetcher, zones_.zones(), {});
  EXPECT_EQ(h.timezoneForLongitude(2.35, 48.85), std::nullopt);
  EXPECT_EQ(fetcher.calls, 10);
  EXPECT_EQ(clock_.elapsed(), 400s);
}

TEST_F(GeolocationHelperTest, RefusedConnectionsCountAsNoData) {
  testing::ClosedPort closed;
  EXPECT_EQ(helper(closed.url()).timezoneForLongitude(2.35, 48.85), std::nullopt);
  EXPECT_EQ(clock_.elapsed(), 300s);
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
