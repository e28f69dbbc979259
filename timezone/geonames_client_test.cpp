#include "timezone/geonames_client.h"

#include <gtest/gtest.h>

#include <map>

#include "timezone/test_support.h"
#include "wps/spi/simulated_clock.h"
#include "wps/spi/testing/http_test_server.h"

using namespace std::chrono_literals;

namespace zonara {
namespace {

using testing::geonamesRecord;
using testing::geonamesReply;
using testing::HttpResponse;
using testing::HttpTestServer;

class GeoNamesClientTest : public ::testing::Test {
 protected:
  GeoNamesClient client(const std::string& url, const std::string& user = "tester") {
    return GeoNamesClient(fetcher_, GeoNamesClient::Config{url, user});
  }

  WPS::SPI::SimulatedClock clock_{testing::utc(2026, 1, 15)};
  WPS::SPI::ScopedClock installed_{clock_};
  CurlHttpFetcher fetcher_;
  HttpTestServer server_;
};

TEST_F(GeoNamesClientTest, AsksForThePointAndReadsTheRecord) {
  server_.enqueue(
      HttpResponse(200, geonamesReply(geonamesRecord("Europe/Paris", "1.0", "2.0"))).withHeader("Content-Type", "text/xml"));
  std::optional<ZoneAnswer> answer = client(server_.url() + "/").lookUp(2.3522, 48.8566);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->identifier, "Europe/Paris");
  EXPECT_EQ(answer->gmtOffset, 3600);
  EXPECT_EQ(answer->dstOffset, 7200);
  ASSERT_EQ(server_.requestCount(), 1u);
  auto request = server_.requests()[0];
  EXPECT_EQ(request.method, "GET");
  EXPECT_EQ(request.path(), "/timezone");
  EXPECT_EQ(request.query(), "lat=48.8566&lng=2.3522&style=full&username=tester");
  EXPECT_EQ(clock_.elapsed(), 0ms);
}

TEST_F(GeoNamesClientTest, ReadsTheLastRecordAndItsLastElements) {
  struct Case {
    const char* what;
    std::string body;
    std::optional<std::string> identifier;
    int32_t gmt;
    int32_t dst;
  };
  const std::vector<Case> cases = {
      {"last timezone record wins",
       geonamesReply(geonamesRecord("Asia/Tokyo", "9", "9") + "<other/>" + geonamesRecord("Europe/Paris", "1", "2")),
       "Europe/Paris", 3600, 7200},
      {"last timezoneId of the record wins",
       geonamesReply("<timezone><timezoneId>Asia/Tokyo</timezoneId><timezoneId>Asia/Seoul</timezoneId></timezone>"),
       "Asia/Seoul", 0, 0},
      {"no timezoneId", geonamesReply(geonamesRecord("-", "5.5", "5.5")), std::nullopt, 19800, 19800},
      {"empty timezoneId", geonamesReply(geonamesRecord("", "1", "2")), "", 3600, 7200},
      {"offsets that are not numbers", geonamesReply(geonamesRecord("X", "one", " -3.5")), "X", 0, -12600},
  };
  for (const Case& c : cases) {
    server_.enqueue(HttpResponse(200, c.body));
    std::optional<ZoneAnswer> answer = client(server_.url()).lookUp(10.5, 20.25);
    ASSERT_TRUE(answer) << c.what;
    EXPECT_EQ(answer->identifier, c.identifier) << c.what;
    EXPECT_EQ(answer->gmtOffset, c.gmt) << c.what;
    EXPECT_EQ(answer->dstOffset, c.dst) << c.what;
  }
  EXPECT_EQ(clock_.elapsed(), 0ms);
}

TEST_F(GeoNamesClientTest, XmlWithoutARecordIsNoAnswer) {
  for (const char* body :
       {"<geonames><status message=\"user account not enabled to use the free webservice\" value=\"10\"/></geonames>",
        "<html><body><p>Proxy error</p></body></html>"}) {
    server_.enqueue(HttpResponse(200, body));
    EXPECT_EQ(client(server_.url()).lookUp(2.35, 48.85), std::nullopt) << body;
  }
  EXPECT_EQ(server_.requestCount(), 2u);
  EXPECT_EQ(clock_.elapsed(), 0ms);
}

TEST_F(GeoNamesClientTest, RequestURLFormatsNumbersAsTheyPrint) {
  GeoNamesClient::Config config{"http://example.invalid", ""};
  EXPECT_EQ(GeoNamesClient::requestURL(config, -33.9, 151.2),
            "http://example.invalid/timezone?lat=-33.9&lng=151.2&style=full");
  config.username = "a b&c";
  EXPECT_EQ(GeoNamesClient::requestURL(config, 12.0, 0.4),
            "http://example.invalid/timezone?lat=12&lng=0.4&style=full&username=a%20b%26c");
}

TEST(GeoNamesConversionTest, HoursBecomeSecondsTruncatedTowardZero) {
  const std::map<float, int32_t> cases = {{-3.5f, -12600}, {5.75f, 20700}, {5.5f, 19800}, {0.0f, 0},
                                          {-0.5f, -1800},  {14.0f, 50400}, {-9.5f, -34200}};
  for (const auto& [hours, seconds] : cases) EXPECT_EQ(GeoNamesClient::secondsFromHours(hours), seconds) << hours;
  EXPECT_EQ(GeoNamesClient::secondsFromHours(0.0001f), 0);   // 0.36 s
  EXPECT_EQ(GeoNamesClient::secondsFromHours(-0.0001f), 0);  // toward zero, not down
}

}  // namespace
}  // namespace zonara
