#include "app/geolocation_helper.h"

#include <date/date.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "platform/testing/http_test_server.h"
#include "platform/testing/temp_dir.h"

using namespace std::chrono_literals;

namespace zonara {
namespace {

using testing::HttpResponse;
using testing::HttpTestServer;

Clock::WallTime utc(int y, unsigned m, unsigned d) {
  return Clock::WallTime(date::sys_days(date::year(y) / m / d).time_since_epoch());
}

std::string reply(const std::string& records) { return "<geonames>" + records + "</geonames>"; }

std::string record(const std::string& id, const std::string& gmt, const std::string& dst) {
  std::string r = "<timezone tzversion=\"tzdata2024a\"><countryCode>XX</countryCode>";
  if (id != "-") r += "<timezoneId>" + id + "</timezoneId>";  // "-": no timezoneId element
  return r + "<gmtOffset>" + gmt + "</gmtOffset><dstOffset>" + dst + "</dstOffset><rawOffset>" + gmt +
         "</rawOffset><lat>1</lat><lng>2</lng></timezone>";
}

// The system zone is UTC; the present is mid-January 2026 (winter in the
// north: Paris is on CET).
class GeolocationHelperTest : public ::testing::Test {
 protected:
  GeolocationHelperTest() {
    std::ofstream(scratch_.file("timezone")) << "UTC\n";
    zones_ = std::make_unique<DateTzDatabase>(scratch_.file("timezone"));
  }
  GeolocationHelper helper(const std::string& url, const std::string& user = "tester") {
    return GeolocationHelper(fetcher_, *zones_, GeolocationHelper::Config{url, user});
  }

  testing::TempDir scratch_{"geo-"};
  VirtualClock clock_{utc(2026, 1, 15)};
  ScopedClock installed_{clock_};
  CurlHttpFetcher fetcher_;
  std::unique_ptr<DateTzDatabase> zones_;
  HttpTestServer server_;
};

TEST_F(GeolocationHelperTest, AsksTheServiceForThePointAndMatchesItsZone) {
  server_.enqueue(HttpResponse(200, reply(record("Europe/Paris", "1.0", "2.0"))).withHeader("Content-Type", "text/xml"));
  EXPECT_EQ(helper(server_.url() + "/").timezoneForLongitude(2.3522, 48.8566), "Europe/Paris");
  ASSERT_EQ(server_.requestCount(), 1u);
  auto request = server_.requests()[0];
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.path(), "/timezone");
  EXPECT_EQ(request.query(), "lat=48.8566&lng=2.3522&style=full&username=tester");
  EXPECT_EQ(clock_.elapsed(), 0ms);
}

TEST_F(GeolocationHelperTest, RequestURLFormatsNumbersAsTheyPrint) {
  GeolocationHelper::Config config{"http://example.invalid", ""};
  EXPECT_EQ(GeolocationHelper::requestURL(config, -33.9, 151.2),
            "http://example.invalid/timezone?lat=-33.9&lng=151.2&style=full");
  config.username = "a b&c";
  EXPECT_EQ(GeolocationHelper::requestURL(config, 12.0, 0.4),
            "http://example.invalid/timezone?lat=12&lng=0.4&style=full&username=a%20b%26c");
}

TEST_F(GeolocationHelperTest, MatchesAnswersTextuallyOrByOffsets) {
  struct Case {
    const char* what;
    std::string body;
    std::optional<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"case and diacritics ignored", reply(record("EURÓPE/pAríS", "1", "2")), "Europe/Paris"},
      {"part of a longer name: first in name order", reply(record("Kolkata", "5.5", "5.5")), "Asia/Kolkata"},
      {"abbreviation matches too", reply(record("CET", "1", "2")), "Africa/Algiers"},
      {"last timezone record wins",
       reply(record("Asia/Tokyo", "9", "9") + "<other/>" + record("Europe/Paris", "1", "2")), "Europe/Paris"},
      {"last timezoneId of the record wins",
       reply("<timezone><timezoneId>Asia/Tokyo</timezoneId><timezoneId>Asia/Seoul</timezoneId></timezone>"),
       "Asia/Seoul"},
      {"unknown identifier: 5.5/5.5 via IST", reply(record("Nowhere/Atlantis", "5.5", "5.5")), "Asia/Kolkata"},
      {"ocean: offsets only", reply(record("-", "1", "2")), "Europe/Paris"},
      {"empty identifier matches nothing: offsets decide", reply(record("", "1", "2")), "Europe/Paris"},
      {"offsets nobody has", reply(record("-", "3.25", "3.25")), std::nullopt},
      {"first zone with the offsets has an abbreviation not in the table", reply(record("-", "9", "9")),
       std::nullopt},
      // Departure: nothing that says where we are changes nothing.
      {"error document of the service",
       "<geonames><status message=\"user account not enabled to use the free webservice\" value=\"10\"/></geonames>",
       std::nullopt},
      {"html page of a proxy", "<html><body><p>Proxy error</p></body></html>", std::nullopt},
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
  server_.enqueue(HttpResponse(200, reply(record("Asia/Tokyo", "9", "9"))));
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
  GeolocationHelper h(fetcher, *zones_, {});
  EXPECT_EQ(h.timezoneForLongitude(2.35, 48.85), std::nullopt);
  EXPECT_EQ(fetcher.calls, 10);
  EXPECT_EQ(clock_.elapsed(), 400s);
}

TEST_F(GeolocationHelperTest, RefusedConnectionsCountAsNoData) {
  testing::ClosedPort closed;
  EXPECT_EQ(helper(closed.url()).timezoneForLongitude(2.35, 48.85), std::nullopt);
  EXPECT_EQ(clock_.elapsed(), 300s);
}

TEST_F(GeolocationHelperTest, OffsetFallbackPrefersTheTableZoneOnlyWhenItFits) {
  GeolocationHelper h = helper("http://unused.invalid");
  EXPECT_EQ(h.timezoneForGMTOffset(3600, 7200), "Europe/Paris");      // Africa/Ceuta, CET
  EXPECT_EQ(h.timezoneForGMTOffset(19800, 19800), "Asia/Kolkata");    // Asia/Calcutta, IST
  EXPECT_EQ(h.timezoneForGMTOffset(-18000, -14400), "America/New_York");  // America/Detroit, EST
  EXPECT_EQ(h.timezoneForGMTOffset(0, 0), "GMT");                     // Africa/Abidjan, GMT
  EXPECT_EQ(h.timezoneForGMTOffset(12345, 12345), std::nullopt);
  EXPECT_NE(h.timezoneForGMTOffset(28800, 28800), "America/Chicago");
}

// A database where China's zone comes first for +8 and calls itself CST.
class ChinaFirstZones final : public TimeZoneDatabase {
 public:
  std::vector<std::string> knownTimeZoneNames() override { return {"America/Chicago", "Asia/Shanghai"}; }
  std::optional<std::string> zoneName(const std::string& n) override {
    return n == "America/Chicago" || n == "Asia/Shanghai" ? std::optional(n) : std::nullopt;
  }
  std::optional<int32_t> offsetAt(const std::string& n, Clock::WallTime when) override {
    if (n == "Asia/Shanghai") return 28800;
    if (n == "America/Chicago") return when < utc(2026, 3, 1) ? -21600 : -18000;
    return std::nullopt;
  }
  std::optional<std::string> abbreviationAt(const std::string& n, Clock::WallTime) override {
    return zoneName(n) ? std::optional<std::string>("CST") : std::nullopt;
  }
  std::string systemTimeZoneName() override { return "UTC"; }
};

TEST_F(GeolocationHelperTest, ChinaStandardTimeNeverBecomesChicago) {
  ChinaFirstZones zones;
  GeolocationHelper h(fetcher_, zones, {});
  EXPECT_EQ(h.timezoneForGMTOffset(28800, 28800), "Asia/Shanghai");
  EXPECT_EQ(h.timezoneForGMTOffset(-21600, -18000), "America/Chicago");
  server_.enqueue(HttpResponse(200, reply(record("-", "8", "8"))));
  EXPECT_EQ(GeolocationHelper(fetcher_, zones, {server_.url(), ""}).timezoneForLongitude(116.4, 39.9),
            "Asia/Shanghai");
}

TEST(GeolocationHelperConversionTest, HoursBecomeSecondsTruncatedTowardZero) {
  const std::map<float, int32_t> cases = {{-3.5f, -12600}, {5.75f, 20700}, {5.5f, 19800}, {0.0f, 0},
                                          {-0.5f, -1800},  {14.0f, 50400}, {-9.5f, -34200}};
  for (const auto& [hours, seconds] : cases) EXPECT_EQ(GeolocationHelper::secondsFromHours(hours), seconds) << hours;
  EXPECT_EQ(GeolocationHelper::secondsFromHours(0.0001f), 0);   // 0.36 s
  EXPECT_EQ(GeolocationHelper::secondsFromHours(-0.0001f), 0);  // toward zero, not down
}

TEST(GeolocationHelperConversionTest, SubstringMatchIgnoresCaseAndDiacritics) {
  struct Case {
    const char* text;
    const char* part;
    bool expected;
  };
  for (const Case& c : std::vector<Case>{{"Europe/Paris", "europe/paris", true},
                                         {"America/Sao_Paulo", "São_Paulo", true},
                                         {"Europe/Zurich", "ZÜRICH", true},
                                         {"Europe/Paris", "Paris/Europe", false},
                                         {"Europe/Paris", "", false},
                                         {"", "", false},
                                         {"CET", "cet", true},
                                         {"Asia/Kolkata", "\xff", false}}) {
    EXPECT_EQ(GeolocationHelper::containsIgnoringCaseAndDiacritics(c.text, c.part), c.expected)
        << c.text << " / " << c.part;
  }
}

}  // namespace
}  // namespace zonara
